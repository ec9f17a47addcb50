// The command builder: command text made from keywords and values, with
// the values the helper could not take as given refused.

#include "zqimClient.h"

#include "commandKeywords.h"

#include <stdexcept>
#include <utility>

namespace zqim {

namespace {

bool IsSpace(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

// A value reaches the helper as written only without a line break or a NUL
// (one line, one path) and without white space at its ends (trimmed).
const std::string& Checked(const std::string& keyword, const std::string& value) {
    const char* why = nullptr;
    if (value.empty())
        why = "is empty";
    else if (value.find_first_of(std::string("\n\r\0", 3)) != std::string::npos)
        why = "holds a newline, a carriage return or a NUL byte";
    else if (IsSpace(value.front()) || IsSpace(value.back()))
        why = "begins or ends with white space, which the helper trims";
    if (why)
        throw std::invalid_argument("zqim::Commands: the value of " + keyword + " " + why);
    return value;
}

}  // namespace

Commands& Commands::line(const std::string& keyword, const std::string& value) {
    const Keyword* known = MatchKeyword(keyword);
    if (!known || known->name != keyword)
        throw std::invalid_argument("zqim::Commands: no keyword " + keyword);
    // A keyword that drops a character before its value ends the helper's
    // process when nothing follows it: it always has a value here.
    text += !value.empty() || known->dropped > 0 ? keyword + " " + Checked(keyword, value) + "\n"
                                                 : keyword + "\n";
    return *this;
}

Commands& Commands::setRoot(const std::string& root) {
    return line("setRoot", Checked("setRoot", root));
}
Commands& Commands::setUserID(uid_t uid) { return line("setUserID", std::to_string(uid)); }
Commands& Commands::setGroupID(gid_t gid) { return line("setGroupID", std::to_string(gid)); }
Commands& Commands::setPermsAccess(bool full) {
    return line("setPermsAccess", full ? "full" : "none");
}

// A pair's two lines, both values checked before either is added.
Commands& Commands::copy(const std::string& source, const std::string& destination) {
    Checked("copySrc", source);
    Checked("copyDest", destination);
    return line("copySrc", source).line("copyDest", destination);
}

Commands& Commands::move(const std::string& source, const std::string& destination) {
    Checked("copySrc", source);
    Checked("moveOrCopyDest", destination);
    return line("copySrc", source).line("moveOrCopyDest", destination);
}

Commands& Commands::link(const std::string& content, const std::string& path) {
    Checked("lnkContent", content);
    Checked("lnkResulting", path);
    return line("lnkContent", content).line("lnkResulting", path);
}

Commands& Commands::makeDir(const std::string& dir) { return line("makeDir", Checked("makeDir", dir)); }
Commands& Commands::delFile(const std::string& path) { return line("delFile", Checked("delFile", path)); }
Commands& Commands::delFolder(const std::string& dir) {
    return line("delFolder", Checked("delFolder", dir));
}
Commands& Commands::fixPerms(const std::string& path) {
    return line("fixPerms", Checked("fixPerms", path));
}
Commands& Commands::fixPermsR(const std::string& dir) {
    return line("fixPermsR", Checked("fixPermsR", dir));
}
Commands& Commands::exec(const std::string& commandLine) {
    return line("exec", Checked("exec", commandLine));
}

Commands& Commands::progress(int percent) {
    if (percent < 0 || percent > 100)
        throw std::invalid_argument("zqim::Commands: progress " + std::to_string(percent) +
                                    " is not between 0 and 100");
    return line("progress", std::to_string(percent));
}

Commands& Commands::plist(const std::string& location, const std::string& domain,
                          const std::string& key, const std::string& type,
                          const std::string& value) {
    // All checked before any is added: a refused value leaves the text as
    // it was.
    const std::pair<const char*, const std::string*> values[] = {
        {"plistLoc", &location}, {"plistPath", &domain}, {"plistValueName", &key},
        {"plistValueType", &type}, {"plistValueData", &value}};
    for (const auto& [keyword, v] : values)
        Checked(keyword, *v);
    return line("plistLoc", location)
        .line("plistPath", domain)
        .line("plistValueName", key)
        .line("plistValueType", type)
        .line("plistValueData", value)
        .line("plistGo");
}

Commands& Commands::plistDel(const std::string& location, const std::string& domain) {
    Checked("plistLoc", location);
    Checked("plistPath", domain);
    return line("plistLoc", location).line("plistPath", domain).line("plistDel");
}

Commands& Commands::waitForPID() { return line("waitForPID"); }
Commands& Commands::exit() { return line("exit"); }

}  // namespace zqim
