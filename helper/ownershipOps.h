// Ownership repair: a path, or every entry below a folder, handed to a user
// and group.
#pragma once

#include <string>

int DoFixPerms(std::string uid, std::string gid, std::string path, bool recursive,
               bool fullAccess);
