// Resolving the paths commands name by handle: the install root and what lies
// below it, and the paths used as given (folders to delete or hand over,
// directories to make, a copy's source). Each component is opened through its
// parent's handle, from "/" or from the working directory, and a symbolic link
// on the way is followed only when a trusted user (fs/trust.h) owns it: such
// links (macOS's /tmp -> private/tmp) keep working, while a link planted by
// anyone else, ahead of time or in a race, is refused with EACCES and nothing
// is written, removed, handed over or read through it.
#pragma once

#include "fileHandles.h"

#include <string>
#include <string_view>
#include <system_error>

// The handle to resolve `rel` from, as paths join: an absolute `rel` starts at
// "/", an empty root at the working directory, anything else at the root
// (itself resolved from "/" or the working directory).
std::error_code OpenRootFor(const std::string& root, std::string_view rel, UniqueFd& out);

// The directory `path` names, from "/" or the working directory; an empty
// path names nothing (ENOENT).
std::error_code OpenDirAtPath(const std::string& path, UniqueFd& out);

// The same, creating the directories that are missing, as MakeDirsBelow; an
// empty path is EINVAL, as create_directories says.
std::error_code MakeDirsAtPath(const std::string& path, UniqueFd& out);

// The directory that holds the entry `path` names, from "/" or the working
// directory, and its name there, for opening the entry itself without
// following it. A path whose last component is a directory's by its spelling
// ("/", "a/b/", "a/.", "..") names that directory, whatever link led to it:
// `dir` is then the directory and `name` is ".". Empty: ENOENT.
std::error_code OpenEntryParent(const std::string& path, UniqueFd& dir, std::string& name);

// Opens the directory that `rel` names below the directory `base`.
std::error_code OpenDirBelow(int base, std::string_view rel, UniqueFd& out);

// The same, creating the directories that are missing (mode 0777 less the
// umask). Errors are those create_directories reports for the same tree.
std::error_code MakeDirsBelow(int base, std::string_view rel, UniqueFd& out);

// Splits off the last component: "a/b/c" -> "a/b" + "c", "a/b/" -> "a" + "b/"
// (a trailing separator stays with its name, so the system still insists on
// a directory there), "c" -> "" + "c".
void SplitLeaf(std::string_view rel, std::string_view& parent, std::string_view& leaf);

// The directory that holds `rel` under `root`, and the name of `rel` in it.
std::error_code OpenParentUnderRoot(const std::string& root, std::string_view rel,
                                    UniqueFd& parent, std::string& leaf);
