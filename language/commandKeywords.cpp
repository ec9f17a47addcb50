#include "commandKeywords.h"

#include <iterator>

namespace {

using C = Command;
using V = ValueKept;

// Longer keywords that share a beginning with shorter ones come first
// (fixPermsR before fixPerms); inside a group no keyword prefixes another.
constexpr Keyword kKeywords[] = {
    {C::CopySrc, "copySrc", "", 0, "", false, V::TheValue, false},
    {C::CopyDest, "copyDest", "", 1, "copySrc", true, V::TheValue, true},
    {C::MoveOrCopyDest, "moveOrCopyDest", "", 0, "copySrc", true, V::TheValue, true},
    {C::LnkContent, "lnkContent", "", 1, "", false, V::TheValue, false},
    {C::LnkResulting, "lnkResulting", "", 1, "lnkContent", false, V::TheValue, true},
    {C::SetRoot, "setRoot", "", 0, "", false, V::TheValue, false},
    {C::SetUserID, "setUserID", "", 0, "", false, V::TheValue, false},
    {C::SetGroupID, "setGroupID", "", 0, "", false, V::TheValue, false},
    {C::Progress, "progress", "", 0, "", false, V::TheValue, false},
    {C::SetPermsAccess, "setPermsAccess", "", 0, "", false, V::TheValue, false},
    {C::FixPermsR, "fixPermsR", "", 0, "", false, V::TheValue, false},
    {C::FixPerms, "fixPerms", "", 0, "", false, V::TheValue, false},
    {C::MakeDir, "makeDir", "", 0, "", false, V::TheValue, false},
    {C::DelFile, "delFile", "", 0, "", false, V::TheValue, true},
    {C::DelFolder, "delFolder", "", 0, "", false, V::TheValue, true},
    {C::Exec, "exec", "", 0, "", false, V::TheValue, false},
    {C::PlistLoc, "plistLoc", "plist", 0, "", false, V::Unchanged, false},
    {C::PlistPath, "plistPath", "plist", 0, "", false, V::Unchanged, false},
    {C::PlistValueName, "plistValueName", "plist", 0, "", false, V::Unchanged, false},
    {C::PlistValueType, "plistValueType", "plist", 0, "", false, V::Unchanged, false},
    {C::PlistValueData, "plistValueData", "plist", 0, "", false, V::Unchanged, false},
    {C::PlistGo, "plistGo", "plist", 0, "", false, V::Unchanged, true},
    {C::PlistDel, "plistDel", "plist", 0, "", false, V::Unchanged, false},
    {C::RegHive, "regHive", "reg", 0, "", false, V::Unchanged, false},
    {C::RegPath, "regPath", "reg", 0, "", false, V::Unchanged, false},
    {C::RegValueName, "regValueName", "reg", 0, "", false, V::Unchanged, false},
    {C::RegValueType, "regValueType", "reg", 0, "", false, V::Unchanged, false},
    {C::RegValueData, "regValueData", "reg", 0, "", false, V::Unchanged, false},
    {C::RegGo, "regGo", "reg", 0, "", false, V::Unchanged, false},
    {C::RegDel, "regDel", "reg", 0, "", false, V::Unchanged, false},
    {C::ShortcutGroup, "shortcutGroup", "shortcut", 0, "", false, V::Unchanged, false},
    {C::ShortcutTarget, "shortcutTarget", "shortcut", 0, "", false, V::Unchanged, false},
    {C::ShortcutName, "shortcutName", "shortcut", 0, "", false, V::Unchanged, false},
    {C::ShortcutDescription, "shortcutDescription", "shortcut", 0, "", false, V::Unchanged,
     false},
    {C::ShortcutLocation, "shortcutLocation", "shortcut", 0, "", false, V::Unchanged, false},
    {C::ShortcutAdd, "shortcutAdd", "shortcut", 0, "", false, V::Unchanged, false},
    {C::ShortcutDel, "shortcutDel", "shortcut", 0, "", false, V::Unchanged, false},
    {C::WaitForPID, "waitForPID", "", 0, "", false, V::Cleared, false},
    {C::Exit, "exit", "", 0, "", false, V::Cleared, true},
};

bool Prefixes(std::string_view prefix, std::string_view line) {
    return line.substr(0, prefix.size()) == prefix;
}

}  // namespace

const Keyword* KeywordsBegin() { return std::begin(kKeywords); }
const Keyword* KeywordsEnd() { return std::end(kKeywords); }

const Keyword* MatchKeyword(std::string_view line) {
    for (const Keyword* k = KeywordsBegin(); k != KeywordsEnd();) {
        if (k->group.empty()) {
            if (Prefixes(k->name, line))
                return k;
            ++k;
            continue;
        }
        // A group's keywords stand together; a line with the group's word
        // is one of them or unknown.
        const Keyword* end = k;
        while (end != KeywordsEnd() && end->group == k->group)
            ++end;
        if (Prefixes(k->group, line)) {
            for (; k != end; ++k)
                if (Prefixes(k->name, line))
                    return k;
            return nullptr;
        }
        k = end;
    }
    return nullptr;
}

bool StartsPair(Command command) {
    return command == Command::CopySrc || command == Command::LnkContent;
}
