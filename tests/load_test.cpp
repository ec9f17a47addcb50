// A front-end that sends far more command files than the helper takes in a
// second. The polling helper takes one command file per poll, by design, so
// the run lasts about a second per file: 60 files by default, ZQIM_LOAD_FILES
// for more (`tools/test.sh --long` sends 500). Woken by the files (-w), it
// takes them as fast as they come: the same run in seconds.
#include "testSupport.h"

#include <cstdlib>
#include <thread>

#include <gtest/gtest.h>

using namespace zqimtest;
using namespace std::chrono_literals;

static void SendBackToBack(const std::vector<std::string>& extraArgs,
                           std::chrono::seconds (*limit)(int files)) {
    const char* asked = std::getenv("ZQIM_LOAD_FILES");
    const int files = asked && std::atoi(asked) > 0 ? std::atoi(asked) : 60;
    TempDir comm;
    Frontend frontend(comm.path());
    std::vector<std::string> args{"-c", comm.path().string()};
    args.insert(args.end(), extraArgs.begin(), extraArgs.end());
    HelperProcess helper(args);
    auto dir = [&](int n) { return comm / ("dir" + std::to_string(n)); };
    std::thread([&] {
        for (int n = 1; n <= files; ++n)
            frontend.send(n, "progress " + std::to_string(n) + "\nmakeDir " + dir(n).string() +
                                 (n == files ? "\nexit\n" : "\n"));
    }).join();
    ASSERT_TRUE(helper.wait(limit(files)));

    std::vector<int> found;
    for (const std::string& message : frontend.log()) {
        if (message.rfind("Found command file ", 0) == 0)
            found.push_back(std::stoi(message.substr(19)));
        // Each file was complete before the next was written, so with -w none
        // ever held a later one back (a poll may still land between a command
        // file and its signal).
        if (!extraArgs.empty()) {
            EXPECT_NE(message.rfind("GetNextCommand() - No sig file found", 0), 0u) << message;
        }
    }
    ASSERT_EQ(found.size(), static_cast<std::size_t>(files));
    for (int n = 1; n <= files; ++n) {
        EXPECT_EQ(found[n - 1], n);
        EXPECT_EQ(ReadFile(frontend.file(n, ".zqfin")), "Finished.") << n;
        EXPECT_EQ(ReadFile(frontend.file(n, ".progress")), std::to_string(n) + " %\n") << n;
        EXPECT_TRUE(fs::is_directory(dir(n))) << n;
    }
    EXPECT_FALSE(fs::exists(frontend.file(files, ".err")));
}

TEST(Load, CommandFilesSentBackToBack) {
    SendBackToBack({}, [](int files) { return std::chrono::seconds(60 + 2 * files); });
}

// Well under the second per file of the polling helper, even on a loaded
// machine.
TEST(Load, CommandFilesSentBackToBackWakeOnChange) {
    SendBackToBack({"-w"}, [](int files) { return std::chrono::seconds(10 + files / 4); });
}
