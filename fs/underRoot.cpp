#include "underRoot.h"

#include "platform.h"
#include "trust.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

namespace {

// As many links as the kernel itself follows in one lookup.
constexpr int kMaxLinkHops = 40;

// What stood at a name whose open as a directory failed, judged from one
// handle on what stands there now.
enum class Standing { Link, Directory, Other };

// Looks at `name` in `dir` through one handle on the entry itself, never
// following it. A link is read together with its owner from that handle: the
// owner judged is the owner of the text followed, even if the name is swapped
// for another link in between. A directory (the name was swapped back since
// the failed open) comes back as a handle to walk on with, so a race changes
// what is acted on, never the outcome.
std::error_code LookAt(int dir, const std::string& name, Standing& standing,
                       std::string& target, UniqueFd& directory) {
    standing = Standing::Other;
    UniqueFd entry;
    if (std::error_code ec = OpenLinkItself(dir, name.c_str(), entry))
        return ec;
    struct stat st;
    if (::fstat(entry.get(), &st) != 0)
        return LastError();
    if (S_ISDIR(st.st_mode)) {
        standing = Standing::Directory;
        // A handle that only names the directory becomes one that lists it.
        return OpenDirAt(entry.get(), ".", directory, true);
    }
    if (!S_ISLNK(st.st_mode))
        return {};
    standing = Standing::Link;
    if (!IsTrustedOwner(st.st_uid))
        return ErrorOf(EACCES);
    uid_t owner;
    const std::error_code ec = ReadHeldLink(entry.get(), dir, name.c_str(), st, target, owner);
    return IsTrustedOwner(owner) ? ec : ErrorOf(EACCES);
}

std::error_code Walk(int start, std::string_view rel, bool create, int& hops, UniqueFd& out) {
    UniqueFd owned;
    int current = start;
    std::size_t at = 0;
    while (at < rel.size()) {
        std::size_t end = rel.find('/', at);
        if (end == std::string_view::npos)
            end = rel.size();
        const std::string name(rel.substr(at, end - at));
        at = end + 1;
        if (name.empty() || name == ".")
            continue;

        UniqueFd next;
        std::error_code error = OpenDirAt(current, name.c_str(), next);
        if (error == std::errc::no_such_file_or_directory && create) {
            error = MakeDirAt(current, name.c_str(), 0777);
            if (error && error != std::errc::file_exists)
                return error;
            error = OpenDirAt(current, name.c_str(), next);
        }
        if (error == std::errc::not_a_directory ||
            error == std::errc::too_many_symbolic_link_levels) {
            // The open saw a link (or a file) there. What stands there now is
            // what is acted on, through the one handle that looked at it.
            Standing standing;
            std::string target;
            std::error_code ec = LookAt(current, name, standing, target, next);
            if (ec == std::errc::no_such_file_or_directory && create && --hops >= 0) {
                // Gone since: make it again.
                at -= name.size() + 1;
                continue;
            }
            if (ec)
                return ec;
            if (standing == Standing::Other)
                return ErrorOf(ENOTDIR);
            if (standing == Standing::Link) {
                if (--hops < 0)
                    return ErrorOf(ELOOP);
                UniqueFd top;
                if (!target.empty() && target[0] == '/') {
                    if ((ec = OpenDirAt(AT_FDCWD, "/", top, true)))
                        return ec;
                }
                ec = Walk(top.valid() ? top.get() : current, target, false, hops, next);
                // A link whose target is missing is in the way of a directory
                // to create, exactly as a file would be.
                if (ec == std::errc::no_such_file_or_directory && create)
                    ec = ErrorOf(EEXIST);
                if (ec)
                    return ec;
            }
        } else if (error) {
            return error;
        }
        owned = std::move(next);
        current = owned.get();
    }
    if (!owned.valid()) {
        if (std::error_code ec = OpenDirAt(start, ".", owned))
            return ec;
    }
    out = std::move(owned);
    return {};
}

// Where `path` starts: "/" for an absolute path, the working directory
// otherwise. Neither is a link.
std::error_code OpenStart(std::string_view path, UniqueFd& out) {
    return OpenDirAt(AT_FDCWD, !path.empty() && path[0] == '/' ? "/" : ".", out, true);
}

}  // namespace

std::error_code OpenRootFor(const std::string& root, std::string_view rel, UniqueFd& out) {
    if ((!rel.empty() && rel[0] == '/') || root.empty())
        return OpenStart(rel.empty() ? std::string_view(".") : rel, out);
    return OpenDirAtPath(root, out);
}

std::error_code OpenDirAtPath(const std::string& path, UniqueFd& out) {
    if (path.empty())
        return ErrorOf(ENOENT);
    UniqueFd start;
    if (std::error_code ec = OpenStart(path, start))
        return ec;
    return OpenDirBelow(start.get(), path, out);
}

std::error_code MakeDirsAtPath(const std::string& path, UniqueFd& out) {
    if (path.empty())
        return ErrorOf(EINVAL);
    UniqueFd start;
    if (std::error_code ec = OpenStart(path, start))
        return ec;
    return MakeDirsBelow(start.get(), path, out);
}

std::error_code OpenEntryParent(const std::string& path, UniqueFd& dir, std::string& name) {
    if (path.empty())
        return ErrorOf(ENOENT);
    std::string_view parent, leaf;
    SplitLeaf(path, parent, leaf);
    // A trailing separator would make the system follow a link at the leaf
    // even where told not to: such a leaf is resolved as any other folder.
    if (leaf.empty() || leaf.back() == '/' || leaf == "." || leaf == "..") {
        name = ".";
        return OpenDirAtPath(path, dir);
    }
    name.assign(leaf);
    UniqueFd start;
    if (std::error_code ec = OpenStart(path, start))
        return ec;
    return OpenDirBelow(start.get(), parent, dir);
}

std::error_code OpenDirBelow(int base, std::string_view rel, UniqueFd& out) {
    int hops = kMaxLinkHops;
    return Walk(base, rel, false, hops, out);
}

std::error_code MakeDirsBelow(int base, std::string_view rel, UniqueFd& out) {
    int hops = kMaxLinkHops;
    return Walk(base, rel, true, hops, out);
}

void SplitLeaf(std::string_view rel, std::string_view& parent, std::string_view& leaf) {
    std::size_t end = rel.size();
    while (end > 0 && rel[end - 1] == '/')
        --end;
    const std::size_t keep = end < rel.size() ? 1 : 0;  // one trailing separator
    if (end == 0) {
        parent = rel;
        leaf = std::string_view();
        return;
    }
    const std::size_t slash = rel.rfind('/', end - 1);
    if (slash == std::string_view::npos) {
        parent = std::string_view();
        leaf = rel.substr(0, end + keep);
    } else {
        parent = rel.substr(0, slash + 1);
        leaf = rel.substr(slash + 1, end - slash - 1 + keep);
    }
}

std::error_code OpenParentUnderRoot(const std::string& root, std::string_view rel,
                                    UniqueFd& parent, std::string& leaf) {
    UniqueFd base;
    if (std::error_code ec = OpenRootFor(root, rel, base))
        return ec;
    std::string_view parentPart, leafPart;
    SplitLeaf(rel, parentPart, leafPart);
    leaf.assign(leafPart);
    return OpenDirBelow(base.get(), parentPart, parent);
}
