// The keywords of the command language, declared once as data: the
// interpreter dispatches on them and the command-file checker reads the
// same table, so the two cannot disagree about what a line means.
#pragma once

#include <cstddef>
#include <string_view>

enum class Command {
    CopySrc, CopyDest, MoveOrCopyDest, LnkContent, LnkResulting, SetRoot, SetUserID,
    SetGroupID, Progress, SetPermsAccess, FixPermsR, FixPerms, MakeDir, DelFile, DelFolder,
    Exec,
    PlistLoc, PlistPath, PlistValueName, PlistValueType, PlistValueData, PlistGo, PlistDel,
    RegHive, RegPath, RegValueName, RegValueType, RegValueData, RegGo, RegDel,
    ShortcutGroup, ShortcutTarget, ShortcutName, ShortcutDescription, ShortcutLocation,
    ShortcutAdd, ShortcutDel,
    WaitForPID, Exit,
};

// What a recognised line leaves in the value a following line may use.
enum class ValueKept { TheValue, Unchanged, Cleared };

struct Keyword {
    Command command;
    std::string_view name;
    // The group word for the plist, reg and shortcut keywords: a line
    // beginning with it is matched only against its group, so it is an
    // unknown command if none of them fits. Empty for the others.
    std::string_view group;
    // Characters dropped after the keyword, whatever they are, before the
    // value is trimmed. Past the end of the line the cut ends the process.
    std::size_t dropped;
    // A pair's end names the keyword that must be the file's last recognised
    // command before it; otherwise the line returns 2006.
    std::string_view pairStart;
    // Whether that 2006 is also recorded for the error file.
    bool recordsBrokenPair;
    ValueKept value;
    // Whether the operation's result becomes the line's result.
    bool resultKept;
};

// Every keyword, in the order lines are tested against them.
const Keyword* KeywordsBegin();
const Keyword* KeywordsEnd();

// The keyword a trimmed line begins with, as the interpreter sees it: the
// first in table order that prefixes the line (no separator needed), or
// nullptr for an unknown command.
const Keyword* MatchKeyword(std::string_view line);

// True for the keywords that start a pair (copySrc, lnkContent).
bool StartsPair(Command command);
