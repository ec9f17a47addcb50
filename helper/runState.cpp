#include "runState.h"

unsigned long long gPID = 0;
std::string gCommDir;
std::string gLogFilepath;
bool gVerbose = false;
bool gWake = false;
bool gQuitCommandFound = false;

LogFile gLogStream;
std::set<int> gErrors;

std::string gProgressFilepath;
int gPrevProgress = -1;

std::string gRoot;
bool gRootIsCrossDevice = false;
std::string gUserID = "0";
std::string gGroupID = "0";
bool gPermsFullAccess = false;
std::map<std::string, std::string> gMovedFiles;
std::string gPlistLocation, gPlistPath, gPlistValueName, gPlistValueType, gPlistValueData;
std::string gRegHive, gRegPath, gRegValueName, gRegValueType, gRegValueData;
std::string gShortcutGroup, gShortcutTarget, gShortcutName, gShortcutDescription,
    gShortcutLocation;

void ResetRunState() {
    gProgressFilepath.clear();
    gPrevProgress = -1;
    gErrors.clear();
    gRoot.clear();
    gRootIsCrossDevice = false;
    gUserID = gGroupID = "0";
    gPermsFullAccess = false;
    gMovedFiles.clear();
    for (std::string* s : {&gPlistLocation, &gPlistPath, &gPlistValueName, &gPlistValueType,
                           &gPlistValueData, &gRegHive, &gRegPath, &gRegValueName,
                           &gRegValueType, &gRegValueData, &gShortcutGroup, &gShortcutTarget,
                           &gShortcutName, &gShortcutDescription, &gShortcutLocation})
        s->clear();
}
