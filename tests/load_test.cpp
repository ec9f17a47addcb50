// A front-end that sends far more command files than the helper takes in a
// second. The helper takes one command file per poll, by design, so the run
// lasts about a second per file: 60 files by default, ZQIM_LOAD_FILES for
// more (`tools/test.sh --long` sends 500).
#include "testSupport.h"

#include <cstdlib>
#include <thread>

#include <gtest/gtest.h>

using namespace zqimtest;
using namespace std::chrono_literals;

TEST(Load, CommandFilesSentBackToBack) {
    const char* asked = std::getenv("ZQIM_LOAD_FILES");
    const int files = asked && std::atoi(asked) > 0 ? std::atoi(asked) : 60;
    TempDir comm;
    Frontend frontend(comm.path());
    HelperProcess helper({"-c", comm.path().string()});
    auto dir = [&](int n) { return comm / ("dir" + std::to_string(n)); };
    std::thread([&] {
        for (int n = 1; n <= files; ++n)
            frontend.send(n, "progress " + std::to_string(n) + "\nmakeDir " + dir(n).string() +
                                 (n == files ? "\nexit\n" : "\n"));
    }).join();
    ASSERT_TRUE(helper.wait(std::chrono::seconds(60 + 2 * files)));

    std::vector<int> found;
    for (const std::string& message : frontend.log())
        if (message.rfind("Found command file ", 0) == 0)
            found.push_back(std::stoi(message.substr(19)));
    ASSERT_EQ(found.size(), static_cast<std::size_t>(files));
    for (int n = 1; n <= files; ++n) {
        EXPECT_EQ(found[n - 1], n);
        EXPECT_EQ(ReadFile(frontend.file(n, ".zqfin")), "Finished.") << n;
        EXPECT_EQ(ReadFile(frontend.file(n, ".progress")), std::to_string(n) + " %\n") << n;
        EXPECT_TRUE(fs::is_directory(dir(n))) << n;
    }
    EXPECT_FALSE(fs::exists(frontend.file(files, ".err")));
}
