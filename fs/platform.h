// The few calls that differ between macOS and Linux, each behind one
// declaration. platform_mac.cpp or platform_linux.cpp implements them; the
// build picks one, and no other unit asks which system it is built for.
#pragma once

#include "fileHandles.h"

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <string>
#include <system_error>

// ------------------------------------------------------------ processes

// The kernel's start time of `pid` as "<microseconds>-<seconds>", or an empty
// string when no such process exists (or it cannot be inspected).
std::string ReadProcessStartTime(unsigned long pid);

// The real user of `pid`; false when no such process exists (or it cannot be
// inspected).
bool ReadProcessRealUser(unsigned long pid, uid_t& user);

// Marks every open descriptor from `from` up close-on-exec, including those
// the process inherited: a program it runs then starts with the ones below
// `from` only.
void MarkDescriptorsCloseOnExec(int from);

// ------------------------------------------------------ symbolic links

// Opens the entry `name` in `dir` itself: a link is not followed, and a fifo
// that took the name does not block the open. Enough to fstat the entry and
// read a link; a directory is opened again through it to be listed.
std::error_code OpenLinkItself(int dir, const char* name, UniqueFd& out);

// Gives the entry `entry` holds open (opened by OpenLinkItself, or a
// directory) a new owner and group: a link itself, never what it points to.
std::error_code ChangeOwnerOfHeld(int entry, uid_t user, gid_t group);

// Reads the text of the link `link` holds open, `name` in `dir` (whose status
// `st` is). Where the system cannot read a link through its handle, the name
// is read and must still hold that very link (else EACCES); `owner` is the
// owner the link shows after the read, for the caller to judge once more.
std::error_code ReadHeldLink(int link, int dir, const char* name, const struct stat& st,
                             std::string& target, uid_t& owner);

// ------------------------------------------------------ copying file data

// Makes a temporary copy of the open file `in` (of status `source`, whose
// mode is the one the copy gets) beside a destination in `dir` (on the
// device `dirDev`), cloned where the file system shares blocks between files
// and copied otherwise; holes stay holes. With `unnamed`, and where the
// system offers it, the file gets no name at all (`name` is left empty)
// until it is complete, so a helper killed meanwhile leaves nothing behind;
// otherwise `name` is its temporary name. `out` is open on it; `modeSet`
// says whether it already has that mode, `carried` whether the copy brought
// the source's attributes and times along (a clone does). A failure leaves
// nothing behind.
std::error_code MakeTemporaryCopy(int in, const struct stat& source, int dir, dev_t dirDev,
                                  bool unnamed, std::string& name, UniqueFd& out,
                                  bool& modeSet, bool& carried);

// Gives the open, unnamed file `fd` the name `name` in `dir` (EEXIST where
// the name is taken).
std::error_code NameUnnamedFile(int fd, int dir, const char* name);

// Fills `bytes` from the system's source of randomness.
std::error_code FillRandom(unsigned char* bytes, std::size_t size);

// --------------------------------------- what a copy keeps besides data

// What a handle holds: a file or folder opened as such, or a link held by
// OpenLinkItself.
enum class Held { File, Folder, Link };

// Copies onto `to` what `from` (of status `source`) carries besides its
// data, owner and mode: its extended attributes, its ACL, and on macOS its
// flags. Both handles hold the same kind of entry. With `trusted` false (the
// source's owner is not trusted) only what grants nothing is kept: no file
// capabilities or other privileged attributes, no ACL entry that grants
// more than the mode, no system flags. `carried`: the data copy brought them
// along already, and only what the trust rule takes away is removed. What
// the destination's file system does not support is skipped.
std::error_code CopyAttributes(int from, const struct stat& source, int to, Held kind,
                               bool trusted, bool carried);

// Gives `to` the access and modification times of `source`, to the
// nanosecond.
std::error_code CopyTimes(int to, Held kind, const struct stat& source);

// Gives the link that `link` holds (OpenLinkItself) a new owner.
std::error_code ChangeHeldLinkOwner(int link, uid_t user, gid_t group);
