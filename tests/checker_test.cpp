// The command-file checker: what it finds in snippets, where, and how bad.
// That its process-ending and 2006 verdicts match what the helper really
// does is checked by the fuzzer, which runs both on every input.
#include "commandChecker.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using zqim::Finding;

namespace {

struct Expected {
    Finding::Kind kind;
    int line, column;
    std::string fragment;  // part of the message; with a final '$', its end
};

struct Case {
    const char* name;
    std::string text;
    std::vector<Expected> findings;
    bool noPid = false;
    bool rootSet = true;
};

constexpr auto E = Finding::Error;
constexpr auto W = Finding::Warning;
constexpr auto N = Finding::Note;

const std::string kEnd = "exit\n";

}  // namespace

TEST(Checker, FindsWhatEndsStopsOrMisleadsWithLineAndColumn) {
    const std::vector<Case> cases = {
        {"clean, placeholders of templates included",
         "# install\nsetRoot @ROOT@\n\ncopySrc @STAGE@/a\n  copyDest a\nprogress 50\n" + kEnd,
         {}, false, false},
        {"bare pair ends and lnkContent end the process",
         "copySrc /s\ncopyDest\nlnkContent\nlnkContent x\n  lnkResulting\n" + kEnd,
         {{E, 2, 1, "ends the helper process"}, {E, 3, 1, "ends the helper process"},
          {E, 5, 3, "ends the helper process"}}},
        {"a destination without its start is 2006, naming what broke the pair",
         "lnkResulting l\ncopySrc /s\nlnkContent t\nsetRoot /r\ncopyDest a\nmoveOrCopyDest b\n"
         "lnkResulting m\n" + kEnd,
         {{E, 1, 1, "no lnkContent before it"},
          {E, 5, 1, "the pair begun on line 2 was broken by line 3 (lnkContent)"},
          {E, 6, 1, "the pair begun on line 2 was broken by line 3 (lnkContent)"},
          {E, 7, 1, "the pair begun on line 3 was broken by line 4 (setRoot)"}}},
        {"comments and unknown lines keep a pair; a second destination does not",
         "copySrc /s\n# note\nbogus\ncopyDest a\ncopyDest b\n" + kEnd,
         {{W, 3, 1, "unknown command 'bogus'"}, {E, 5, 1, "broken by line 4 (copyDest)"}}},
        {"NUL byte", std::string("makeDir /a\0b\n", 13) + kEnd, {{E, 1, 1, "NUL byte"}}},
        {"waitForPID without -p", "waitForPID\n" + kEnd, {{E, 1, 1, "never returns"}}, true},
        {"glued keywords and dropped separators",
         "copySrcX\ncopyDest:a\nsetRoot=/x\nexitNow\n",
         {{W, 1, 8, "read as 'copySrc' with the value 'X'"}, {W, 1, 8, "relative path"},
          {W, 2, 9, "':' is not part of the value"}, {W, 3, 8, "glued"},
          {W, 4, 5, "glued"}}},
        {"unknown commands suggest the nearest keyword",
         "copysrc /a\nsetroot /r\nplistGO\nfrobnicate\n" + kEnd,
         {{W, 1, 1, "did you mean 'copySrc'?"}, {W, 2, 1, "did you mean 'setRoot'?"},
          {W, 3, 1, "did you mean 'plistGo'?"}, {W, 4, 1, "'frobnicate' is skipped"}}},
        {"paths: relative sources, no root yet, a root ending in /, leaving the root",
         "copySrc stage/a\ndelFolder tmp/x\ndelFile a\nsetRoot /r/\ncopySrc /s\n"
         "copyDest ../etc/x\nlnkContent t\nlnkResulting a/../../b\n" + kEnd,
         {{W, 1, 1, "'copySrc' is never used: line 2 (delFolder) comes before its 'copyDest' or "
                    "'moveOrCopyDest'"},
          {W, 1, 9, "relative path"}, {W, 2, 11, "relative path"},
          {W, 3, 9, "before any setRoot"}, {W, 4, 9, "ending in '/'"}, {W, 6, 10, "'..'"},
          {W, 8, 14, "'..'"}},
         false, false},
        {"quotes in preferences, progress down or past 100, exec runs as root",
         "plistValueData a\"b\nprogress 40\nprogress 30\nprogress 120\nexec rm\r\x1b[2J /x\n" +
             kEnd,
         {{W, 1, 16, "double quote"}, {W, 3, 10, "goes down, from 40 to 30"},
          {W, 4, 10, "past 100"}, {N, 5, 6, "runs as root, through the shell: rm\\x0d\\x1b[2J /x"}}},
        {"an absolute destination, quotes, a link never made, far typos, a glued value",
         "setRoot /r\ncopySrc /s\ncopyDest /opt/x\ncopySrc \"/s t\"\nmoveOrCopyDest b\n"
         "lnkContent t\nprogress 5\ncopySource /a\nlnkResult b\ncopySrc /s\n"
         "copyDestversions/1.0\ndelFile /etc/x\nlnkContent /t\nlnkResulting /l\n"
         "lnkContent u\n" + kEnd,
         {{W, 3, 10, "an absolute path leaves the root: copyDest uses '/opt/x' as it stands"},
          {W, 4, 9, "quotes are taken literally: the value is '\"/s t\"'"},
          {W, 4, 9, "relative path"},
          {W, 6, 1, "'lnkContent' is never used: line 7 (progress) comes before its "
                    "'lnkResulting'"},
          {W, 8, 1, "unknown command 'copySource /a' is skipped; did you mean 'copySrc'?"},
          {W, 9, 1, "did you mean 'lnkResulting'?"},
          {W, 11, 9, "'v' is not part of the value, which is 'ersions/1.0'"},
          {W, 12, 9, "an absolute path leaves the root: delFile uses '/etc/x'"},
          {W, 15, 1, "'lnkContent' is never used: line 16 (exit) comes before its"}}},
        {"a start at the end of the file, and near-misses that are not",
         "copySrc /s\nsetGroup 5\nfrobnicate\nmkdir /x\n",
         {{W, 1, 1, "'copySrc' is never used: the file ends before its 'copyDest' or "
                    "'moveOrCopyDest'"},
          {W, 2, 1, "did you mean 'setGroupID'?"},
          {W, 3, 1, "'frobnicate' is skipped$"},
          {W, 4, 1, "'mkdir /x' is skipped; did you mean 'makeDir'?"},
          {W, 4, 1, "no exit"}}},
        {"no final exit, and lines after an exit", "progress 1\n",
         {{W, 1, 1, "no exit"}}},
        {"lines after exit never run", "exit\nprogress 1\n",
         {{W, 2, 1, "never runs: the file stops at the exit on line 1"}}},
    };
    for (const Case& c : cases) {
        zqim::CheckContext context;
        context.noPid = c.noPid;
        context.rootSet = c.rootSet;
        const std::vector<Finding> found = zqim::CheckCommandFile(c.text, context);
        std::string all;
        for (const Finding& f : found)
            all += std::to_string(f.line) + ":" + std::to_string(f.column) + ": " +
                   zqim::KindName(f.kind) + ": " + f.message + "\n";
        ASSERT_EQ(found.size(), c.findings.size()) << c.name << "\n" << all;
        for (std::size_t i = 0; i < found.size(); ++i) {
            const Expected& e = c.findings[i];
            const bool atEnd = !e.fragment.empty() && e.fragment.back() == '$';
            const std::string fragment = e.fragment.substr(0, e.fragment.size() - atEnd);
            const std::size_t at = found[i].message.rfind(fragment);
            EXPECT_TRUE(found[i].kind == e.kind && found[i].line == e.line &&
                        found[i].column == e.column && at != std::string::npos &&
                        (!atEnd || at + fragment.size() == found[i].message.size()))
                << c.name << ": expected " << e.line << ":" << e.column << " '" << e.fragment
                << "'\n" << all;
        }
    }
}

// The run's state carries from one file to the next: a root set in the
// first counts in the second, and only the last needs an exit. A file after
// an exit is a new helper's, with no root; sent to the same helper, it
// would never run.
TEST(Checker, FilesOfOneRunShareTheRootUntilAnExit) {
    zqim::CheckContext context;
    context.lastFile = false;
    EXPECT_TRUE(zqim::CheckCommandFile("setRoot /r\n", context).empty());
    EXPECT_TRUE(zqim::CheckCommandFile("delFile a\n  exit\n", context).empty());
    context.lastFile = true;
    const std::vector<Finding> fresh = zqim::CheckCommandFile("delFile a\nexit\n", context);
    ASSERT_EQ(fresh.size(), 1u);
    EXPECT_NE(fresh[0].message.find("before any setRoot"), std::string::npos);

    zqim::CheckContext oneHelper;
    oneHelper.oneHelper = true;
    oneHelper.lastFile = false;
    const std::vector<Finding> early = zqim::CheckCommandFile("setRoot /r\n  exit\n", oneHelper);
    ASSERT_EQ(early.size(), 1u);
    EXPECT_TRUE(early[0].kind == Finding::Error && early[0].line == 2 && early[0].column == 3)
        << early[0].message;
}
