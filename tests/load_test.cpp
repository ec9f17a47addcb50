// A front-end that sends far more command files than the helper takes in a
// second. Runs for about 500 s (one command file per poll, by design), so
// the sanitizer run leaves it out (ctest -E '^Load\.').
#include "testSupport.h"

#include <thread>

#include <gtest/gtest.h>

using namespace zqimtest;
using namespace std::chrono_literals;

TEST(Load, FiveHundredCommandFilesSentBackToBack) {
    TempDir comm;
    Frontend frontend(comm.path());
    HelperProcess helper({"-c", comm.path().string()});
    auto dir = [&](int n) { return comm / ("dir" + std::to_string(n)); };
    std::thread([&] {
        for (int n = 1; n <= 500; ++n)
            frontend.send(n, "progress " + std::to_string(n) + "\nmakeDir " + dir(n).string() +
                                 (n == 500 ? "\nexit\n" : "\n"));
    }).join();
    ASSERT_TRUE(helper.wait(840s));

    std::vector<int> found;
    for (const std::string& message : frontend.log())
        if (message.rfind("Found command file ", 0) == 0)
            found.push_back(std::stoi(message.substr(19)));
    ASSERT_EQ(found.size(), 500u);
    for (int n = 1; n <= 500; ++n) {
        EXPECT_EQ(found[n - 1], n);
        EXPECT_EQ(ReadFile(frontend.file(n, ".zqfin")), "Finished.") << n;
        EXPECT_EQ(ReadFile(frontend.file(n, ".progress")), std::to_string(n) + " %\n") << n;
        EXPECT_TRUE(fs::is_directory(dir(n))) << n;
    }
    EXPECT_FALSE(fs::exists(frontend.file(500, ".err")));
}
