// A copy, and a move that became a copy across volumes, keep what cp -a
// keeps: extended attributes, ACLs, file capabilities and nanosecond times
// of files, folders and links; from a payload of a user the helper does not
// trust, all that but the capability and the ACL entries that grant more
// than the mode. End-to-end through the real binary.
#include "testSupport.h"

#include <gtest/gtest.h>

// The attributes' names, the tools and the file systems used here are
// Linux's; macOS keeps its own through fcopyfile and acl(3).
#ifndef __linux__
TEST(CopyAttributes, LinuxOnly) {
    GTEST_SKIP() << "the attribute tests use Linux's namespaces, tools and file systems";
}
#else

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>

using namespace zqimtest;
using namespace std::chrono_literals;

namespace {


// The standard output of a shell command.
std::string Output(const std::string& command) {
    std::string out;
    if (FILE* pipe = popen(command.c_str(), "r")) {
        char buffer[4096];
        for (std::size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;)
            out.append(buffer, n);
        pclose(pipe);
    }
    return out;
}

bool Shell(const std::string& command) { return std::system(command.c_str()) == 0; }

// The entries of a payload, each with the times it is given.
const std::map<std::string, long> kEntries = {
    {"", 111111111}, {"bin", 222222222}, {"bin/prog", 123456789}, {"bin/current", 987654321}};

// A payload with each attribute a copy must keep: a program with the
// capability cap_net_raw, a user.* attribute and an ACL granting uid 65534
// what others lack (and one entry granting nothing); a folder with a user.*
// attribute and a default ACL; a link; each with its own nanosecond times.
// With `owner` the payload is that user's.
bool MakePayload(const fs::path& top, uid_t owner = 0) {
    fs::create_directories(top / "bin");
    WriteFile(top / "bin/prog", "#!/bin/sh\n");
    fs::create_symlink("prog", top / "bin/current");
    fs::permissions(top / "bin/prog", fs::perms(0750));
    const std::string q = "'" + top.string() + "'";
    // The owner first: a change of owner clears a capability.
    if (owner != 0 && !Shell("chown -hR " + std::to_string(owner) + ":" + std::to_string(owner) + " " + q))
        return false;
    if (!Shell("setcap cap_net_raw+ep " + q + "/bin/prog && setfattr -n user.note -v hello " + q +
             "/bin/prog && setfacl -m u:65534:rx,u:1234:- " + q + "/bin/prog && setfattr -n "
             "user.kind -v folder " + q + "/bin && setfacl -d -m u:65534:rwx " + q + "/bin"))
        return false;
    for (const auto& [name, nanoseconds] : kEntries) {
        const struct timespec times[2] = {{1500000000, nanoseconds}, {1577934245, nanoseconds}};
        if (utimensat(AT_FDCWD, (top / name).c_str(), times, AT_SYMLINK_NOFOLLOW) != 0)
            return false;
    }
    return true;
}

// What a copy kept of each entry: owner, mode, times and every extended
// attribute, read without listing a folder (which would touch its time).
std::map<std::string, std::string> Describe(const fs::path& top) {
    std::map<std::string, std::string> seen;
    for (const auto& entry : kEntries) {
        const fs::path p = top / entry.first;
        struct stat st {};
        if (lstat(p.c_str(), &st) != 0)
            continue;
        std::string text = std::to_string(st.st_uid) + " " + std::to_string(st.st_mode) + " " +
                           std::to_string(st.st_atim.tv_sec) + "." + std::to_string(st.st_atim.tv_nsec) +
                           " " + std::to_string(st.st_mtim.tv_sec) + "." +
                           std::to_string(st.st_mtim.tv_nsec);
        char names[4096];
        const ssize_t length = llistxattr(p.c_str(), names, sizeof names);
        std::set<std::string> attributes;  // in a stable order
        for (ssize_t at = 0; at < length; at += static_cast<ssize_t>(std::strlen(names + at)) + 1) {
            char value[4096];
            const ssize_t size = lgetxattr(p.c_str(), names + at, value, sizeof value);
            attributes.insert(std::string(names + at) + "=" + std::string(value, size > 0 ? size : 0));
        }
        for (const std::string& attribute : attributes)
            text += " " + attribute;
        seen[entry.first] = text;
    }
    return seen;
}

bool HaveTools() {
    return Shell("{ command -v setcap && command -v setfacl && command -v getfacl && "
                 "command -v setfattr; } >/dev/null 2>&1");
}

}  // namespace

// The payload on a tmpfs, copied to disk and moved there (a move across
// volumes is a copy): both equal what cp -a made of it, every attribute.
TEST(CopyAttributes, CopyAndCrossVolumeMoveKeepWhatCpAKeeps) {
    if (!IsRoot() || !HaveTools())
        GTEST_SKIP() << "needs root, setcap, setfacl, getfacl and setfattr";
    ScratchMount shm(16 << 20);
    if (!shm.ok())
        GTEST_SKIP() << "mounting a tmpfs needs privilege";
    TempDir disk, comm;
    for (const char* name : {"copied", "moved", "reference"})
        ASSERT_TRUE(MakePayload(shm.path() / name)) << name;
    ASSERT_TRUE(Shell("cp -a '" + (shm.path() / "reference").string() + "' '" +
                    (disk / "reference").string() + "'"));
    Frontend frontend(comm.path());
    frontend.send(1, "setRoot " + disk.path().string() + "\ncopySrc " + (shm.path() / "copied").string() +
                         "\ncopyDest copied\ncopySrc " + (shm.path() / "moved").string() +
                         "\nmoveOrCopyDest moved\nexit\n");
    HelperProcess helper({"-c", comm.path().string()});
    ASSERT_TRUE(helper.wait(30s));
    EXPECT_FALSE(fs::exists(frontend.file(1, ".err")));
    EXPECT_NE(frontend.logText().find("Cannot move cross-device."), std::string::npos);

    const auto reference = Describe(disk / "reference");
    EXPECT_EQ(Describe(disk / "copied"), reference);
    EXPECT_EQ(Describe(disk / "moved"), reference);
    // cp -a kept each of them, so the comparison says something.
    for (const char* kept : {"security.capability=", "user.note=hello", "system.posix_acl_access="})
        EXPECT_NE(reference.at("bin/prog").find(kept), std::string::npos) << kept;
    EXPECT_NE(reference.at("bin").find("system.posix_acl_default="), std::string::npos);
    EXPECT_NE(reference.at("bin/current").find("1577934245.987654321"), std::string::npos);
}

// From uid 65534's payload, the capability and the ACL entries granting
// more than the mode (the access entry for 65534 and the default one) go;
// the entry granting nothing, user.* attributes and times stay.
TEST(CopyAttributes, UntrustedPayloadLosesCapabilityAndGrantingAclEntries) {
    if (!IsRoot() || !HaveTools())
        GTEST_SKIP() << "needs root, setcap, setfacl, getfacl and setfattr";
    TempDir tmp, comm;
    fs::permissions(tmp.path(), fs::perms(0755));
    ASSERT_TRUE(MakePayload(tmp / "payload", kNobody));
    const auto source = Describe(tmp / "payload");
    Frontend frontend(comm.path());
    frontend.send(1, "setRoot " + (tmp / "root").string() + "\ncopySrc " + (tmp / "payload").string() +
                         "\ncopyDest app\nexit\n");
    HelperProcess helper({"-c", comm.path().string()});
    ASSERT_TRUE(helper.wait(30s));
    EXPECT_FALSE(fs::exists(frontend.file(1, ".err")));

    const auto copy = Describe(tmp / "root/app");
    const std::string prog = copy.at("bin/prog");
    EXPECT_EQ(prog.find("security.capability"), std::string::npos) << prog;
    EXPECT_NE(source.at("bin/prog").find("security.capability"), std::string::npos);
    EXPECT_NE(prog.find("user.note=hello"), std::string::npos);
    EXPECT_NE(prog.find(" 1577934245.123456789"), std::string::npos);
    EXPECT_NE(copy.at("bin").find("user.kind=folder"), std::string::npos);
    EXPECT_NE(copy.at("bin").find(" 1577934245.222222222"), std::string::npos);
    EXPECT_NE(copy.at("bin/current").find(" 1500000000.987654321 1577934245.987654321"),
              std::string::npos);
    const std::string acl = Output("getfacl -cpn '" + (tmp / "root/app/bin/prog").string() + "'");
    EXPECT_NE(acl.find("user:1234:---"), std::string::npos) << acl;
    EXPECT_EQ(acl.find("user:65534"), std::string::npos) << acl;
    const std::string defaults = Output("getfacl -cpnd '" + (tmp / "root/app/bin").string() + "'");
    EXPECT_EQ(defaults.find("user:65534"), std::string::npos) << defaults;
}

// A volume that holds no extended attributes, ACLs nor capabilities (ramfs)
// still takes the copy, its data and times: what it refuses as not
// supported is skipped, as cp -a skips it.
TEST(CopyAttributes, WhatTheVolumeDoesNotSupportIsSkipped) {
    if (!IsRoot() || !HaveTools())
        GTEST_SKIP() << "needs root, setcap, setfacl, getfacl and setfattr";
    TempDir tmp, ram, comm;
    if (mount("ramfs", ram.path().c_str(), "ramfs", 0, nullptr) != 0)
        GTEST_SKIP() << "mounting a ramfs needs privilege";
    ASSERT_TRUE(MakePayload(tmp / "payload"));
    Frontend frontend(comm.path());
    frontend.send(1, "setRoot " + ram.path().string() + "\ncopySrc " + (tmp / "payload").string() +
                         "\ncopyDest app\nexit\n");
    HelperProcess helper({"-c", comm.path().string()});
    const bool ended = helper.wait(30s);
    const auto copy = Describe(ram / "app");
    umount2(ram.path().c_str(), MNT_DETACH);
    ASSERT_TRUE(ended);
    EXPECT_FALSE(fs::exists(frontend.file(1, ".err"))) << frontend.logText();
    ASSERT_EQ(copy.size(), kEntries.size());
    EXPECT_EQ(copy.at("bin/prog"), "0 33256 1500000000.123456789 1577934245.123456789");
}

// An attribute the destination refuses for another reason (a value too
// large for ext4) fails the copy with that error, and the file it was to
// replace stays whole, with no temporary entry left beside it.
TEST(CopyAttributes, AnAttributeThatCannotBeSetLeavesTheOldFileWhole) {
    ScratchMount shm(1 << 20);
    if (!shm.ok())
        GTEST_SKIP() << "mounting a tmpfs needs privilege";
    TempDir disk, comm;
    WriteFile(shm.path() / "prog", "new");
    ASSERT_EQ(setxattr((shm.path() / "prog").c_str(), "user.big", std::string(20000, 'x').data(),
                       20000, 0), 0);
    WriteFile(disk / "prog", "old");
    Frontend frontend(comm.path());
    frontend.send(1, "setRoot " + disk.path().string() + "\ncopySrc " + (shm.path() / "prog").string() +
                         "\ncopyDest prog\nexit\n");
    HelperProcess helper({"-c", comm.path().string()});
    ASSERT_TRUE(helper.wait(30s));
    EXPECT_EQ(ReadFile(frontend.file(1, ".err")), "2001\nend\n");
    EXPECT_NE(frontend.logText().find("ZQIMMoveOrCopyFile() - No space on device for"), std::string::npos);
    EXPECT_EQ(ReadFile(disk / "prog"), "old");
    EXPECT_EQ(std::distance(fs::directory_iterator(disk.path()), fs::directory_iterator()), 1);
}
#endif  // __linux__
