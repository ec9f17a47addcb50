// Resolving paths below the install root by handle. The root itself is the
// front-end's choice and is opened as the system resolves it. Below it, each
// component is opened through its parent's handle, and a symbolic link on the
// way is followed only when root or the helper's own user owns it: such links
// (macOS's /etc -> private/etc) keep working, while a link planted by anyone
// else, ahead of time or in a race, is refused with EACCES and nothing is
// written, removed or created through it.
#pragma once

#include "fileHandles.h"

#include <string>
#include <string_view>
#include <system_error>

// The handle to resolve `rel` from, as paths join: an absolute `rel` starts at
// "/", an empty root at the working directory, anything else at the root.
std::error_code OpenRootFor(const std::string& root, std::string_view rel, UniqueFd& out);

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
