// The executable's entry point; start-up itself lives in ZQIMHelper.cpp so
// that the tests can link everything else.
#include "ZQIMHelper.h"

int main(int argc, char** argv) {
    return ZQIMHelperMain(argc, argv);
}
