// End-to-end: the real helper on a scratch communication directory.
#include "testSupport.h"

#include <gtest/gtest.h>

using namespace zqimtest;
using namespace std::chrono_literals;

TEST(Exchange, AnswersCommandFilesInOrderAndStopsOnExit) {
    TempDir comm;
    Frontend frontend(comm.path());
    frontend.send(2, "makeDir " + (comm / "made/deep").string() + "\n");
    frontend.send(1, "# first\n\n");
    frontend.send(3, "exit");
    HelperProcess helper({"-c", comm.path().string()});
    ASSERT_TRUE(helper.wait(20s));
    EXPECT_EQ(helper.exitCode(), 0);

    for (int n : {1, 2, 3})
        EXPECT_EQ(ReadFile(frontend.file(n, ".zqfin")), "Finished.") << n;
    EXPECT_FALSE(fs::exists(frontend.file(1, ".err")));
    EXPECT_TRUE(fs::is_directory(comm / "made/deep"));

    const auto log = frontend.log();
    ASSERT_GE(log.size(), 2u);
    EXPECT_EQ(log.front(), "Opened Log at: " + (comm / "ZQIMLog.txt").string());
    EXPECT_EQ(log.back(), "Closing log.");
    EXPECT_EQ(helper.output(),
              "ZQIMHelper starting...\nNo PID passed in.\nCommunication dir was: " +
                  comm.path().string() + "\n");
}
