// Walking a directory tree by handle, shared by folder deletion, ownership
// repair and copying. Every directory is opened through the handle of the
// directory it was listed from, never through a link, and every entry is
// acted on through its directory's handle, so a directory swapped for a link
// after it was listed is never followed. Only the deepest few directories of
// the current path are held open, so the depth of a tree is not bounded by
// the descriptor limit.
#pragma once

#include "fileHandles.h"

#include <sys/types.h>

#include <deque>
#include <string>
#include <system_error>
#include <vector>

// The directories from a walk's top down to the one being visited.
class DirChain {
public:
    // `top` is already open; `topText` is how messages name it.
    DirChain(UniqueFd top, std::string topText);

    // The handle of the deepest directory.
    int fd() const { return levels.back().fd.get(); }
    // Its path text, and the text of an entry in it, as paths join.
    const std::string& path() const { return text; }
    std::string pathOf(const std::string& name) const;
    // The length of pathOf(name), without making it.
    std::size_t lengthOf(const std::string& name) const;
    std::size_t depth() const { return levels.size() - 1; }

    // Opens the directory `name` in the deepest one (never through a link)
    // and makes it the deepest.
    std::error_code descend(const std::string& name);
    // Makes the parent of the deepest directory the deepest again. A parent
    // whose handle had been let go is reopened through ".." and must be the
    // very directory it was: if it was moved meanwhile, ESTALE, and the
    // chain must not be used further.
    std::error_code ascend();

private:
    struct Level {
        UniqueFd fd;
        dev_t dev = 0;
        ino_t ino = 0;
        std::size_t textLength = 0;
    };
    std::deque<Level> levels;  // grows without moving what it holds
    std::string text;
    std::size_t firstOpen = 1;  // levels [1, firstOpen) were let go
};

// What a walk does next, once an entry was visited.
enum class Next { Skip, Enter, Stop };

// What a walk does at each entry of each directory.
class TreeVisitor {
public:
    virtual ~TreeVisitor() = default;
    // Called for every entry, in listing order. Enter walks into it (say it
    // only of a directory), Stop ends the whole walk.
    virtual Next visit(DirChain& dir, const DirEntry& entry) = 0;
    // Called once the directory `name` was opened and became the deepest of
    // `dir`, before anything below it is visited.
    virtual void entered(DirChain& dir, const std::string& name) { (void)dir, (void)name; }
    // Called after the walk below `name` came back.
    virtual void left(DirChain& dir, const std::string& name) { (void)dir, (void)name; }
    // `name` could not be opened as a directory (it may have been swapped for
    // a link since it was listed); false ends the whole walk.
    virtual bool cannotEnter(DirChain& dir, const std::string& name, std::error_code ec) = 0;
    // The listing of `dir` failed midway; the entries read before were
    // visited. False ends the whole walk.
    virtual bool listingFailed(DirChain& dir, std::error_code ec) = 0;
};

enum class WalkOrder {
    // Walk into a directory as soon as it is met (depth first, listing order).
    AsMet,
    // Visit every entry of a directory first, then walk into its directories,
    // the last met first: a last-in, first-out stack of directories to visit.
    AfterListingLastFirst,
};

// Walks everything below the deepest directory of `chain`, without recursion:
// the depth of a tree is bounded by neither the stack nor the descriptors.
// Returns false when a visitor ended the walk, or the chain lost its way
// (ESTALE in `ec`); the chain is then left where the walk stopped.
bool WalkTree(DirChain& chain, TreeVisitor& visitor, WalkOrder order, std::error_code& ec);
