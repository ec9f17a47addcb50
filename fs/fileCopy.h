// Copying a file tree into place by replacement. Every file and every link is
// written under a temporary name beside its destination and then renamed
// over it, so a reader, or a helper killed at any instant, sees the old entry
// or the new one and never a torn one, and a running program is replaced
// rather than rewritten under its feet. Data is cloned where the file system
// shares blocks between files, and copied in the kernel otherwise.
#pragma once

#include <string>
#include <system_error>

// Copies `source` (a file, link or folder tree, as given) to the entry
// `leaf` of the directory `parent`, as a recursive copy that copies links as
// links and overwrites what is there:
// - a file or link replaces what stands at its place, keeping the replaced
//   entry's owner and group; a file gets the source's mode;
// - a file whose place holds a real folder goes into that folder;
// - a folder is merged into an existing one (extra entries are kept), or
//   created with the source's mode, replacing a link that stood there.
// Nothing at the destination is ever followed. The first failure ends the
// copy and is returned; a file copied onto itself is EEXIST and stays as it
// is. Temporary entries never outlive a failure.
std::error_code CopyIntoPlace(const std::string& source, int parent, const std::string& leaf);
