#include "treeWalk.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <deque>
#include <utility>

// Handles held at once by one chain, the top included. Deeper trees reopen a
// parent through ".." on the way back up.
static constexpr std::size_t kOpenLevels = 16;

DirChain::DirChain(UniqueFd top, std::string topText) : text(std::move(topText)) {
    levels.emplace_back();
    levels.back().fd = std::move(top);
    levels.back().textLength = text.size();
}

// Paths join with one separator, unless the text is empty or ends in one.
static bool NeedsSeparator(const std::string& text) {
    return !text.empty() && text.back() != '/';
}

std::string DirChain::pathOf(const std::string& name) const {
    return NeedsSeparator(text) ? text + "/" + name : text + name;
}

std::size_t DirChain::lengthOf(const std::string& name) const {
    return text.size() + (NeedsSeparator(text) ? 1 : 0) + name.size();
}

std::error_code DirChain::descend(const std::string& name) {
    UniqueFd child;
    if (std::error_code ec = OpenDirAt(fd(), name.c_str(), child))
        return ec;
    if (levels.size() - firstOpen + 1 >= kOpenLevels) {
        // Remember who the shallowest held directory is before letting it go.
        Level& shallow = levels[firstOpen];
        struct stat st;
        if (::fstat(shallow.fd.get(), &st) != 0)
            return LastError();
        shallow.dev = st.st_dev;
        shallow.ino = st.st_ino;
        shallow.fd.reset();
        ++firstOpen;
    }
    // Appended in place: a deep chain must not copy its whole path per level.
    if (NeedsSeparator(text))
        text += '/';
    text += name;
    levels.emplace_back();
    levels.back().fd = std::move(child);
    levels.back().textLength = text.size();
    return {};
}

std::error_code DirChain::ascend() {
    const Level gone = std::move(levels.back());
    levels.pop_back();
    text.resize(levels.back().textLength);
    const std::size_t at = levels.size() - 1;
    if (at == 0 || at >= firstOpen)
        return {};
    UniqueFd parent;
    if (std::error_code ec = OpenDirAt(gone.fd.get(), "..", parent))
        return ec;
    struct stat st;
    if (::fstat(parent.get(), &st) != 0)
        return LastError();
    if (st.st_dev != levels[at].dev || st.st_ino != levels[at].ino)
        return ErrorOf(ESTALE);
    levels[at].fd = std::move(parent);
    firstOpen = at;
    return {};
}

namespace {

// What is left to do in one directory of the walk's current path. A frame
// costs a few dozen bytes and lives on the heap, so a chain of folders
// deeper than any stack is walked all the same.
struct Frame {
    // In listing order. AsMet: the listing, of which `next` were visited;
    // the last of those is the one being walked into. The other order: the
    // directories still to walk into, the last to go first (and to be the
    // one being walked into, until it is done).
    std::vector<DirEntry> entries;
    std::size_t next = 0;
    int listed = 0;  // AsMet: the errno the listing failed with, said once visited
};

}  // namespace

bool WalkTree(DirChain& chain, TreeVisitor& visitor, WalkOrder order, std::error_code& ec) {
    const bool asMet = order == WalkOrder::AsMet;
    // A deque grows without moving what it holds: no moment holds every
    // frame twice.
    std::deque<Frame> frames;

    // Lists the deepest directory into a new frame. In the other order every
    // entry is visited now, and only the directories to walk into are kept.
    auto list = [&]() {
        frames.emplace_back();
        Frame& frame = frames.back();
        const std::error_code listed = ReadEntries(chain.fd(), frame.entries);
        if (asMet) {
            frame.listed = listed.value();
            return true;
        }
        std::size_t kept = 0;
        for (std::size_t i = 0; i < frame.entries.size(); ++i) {
            const Next next = visitor.visit(chain, frame.entries[i]);
            if (next == Next::Stop)
                return false;
            if (next == Next::Enter && kept++ != i)
                frame.entries[kept - 1] = std::move(frame.entries[i]);
        }
        // Only the directories are needed while the walk goes deeper.
        frame.entries.resize(kept);
        frame.entries.shrink_to_fit();
        return !listed || visitor.listingFailed(chain, listed);
    };
    // The directory of `frame` the walk is in, or goes into next.
    auto current = [asMet](const Frame& frame) -> const std::string& {
        return asMet ? frame.entries[frame.next - 1].name : frame.entries.back().name;
    };

    if (!list())
        return false;
    while (true) {
        Frame& frame = frames.back();
        bool enter = false;
        if (asMet) {
            while (!enter && frame.next < frame.entries.size()) {
                const Next next = visitor.visit(chain, frame.entries[frame.next++]);
                if (next == Next::Stop)
                    return false;
                enter = next == Next::Enter;
            }
            if (!enter && frame.listed != 0 && !visitor.listingFailed(chain, ErrorOf(frame.listed)))
                return false;
        } else {
            enter = !frame.entries.empty();
        }

        if (enter) {
            const std::string& name = current(frame);
            if (std::error_code open = chain.descend(name)) {
                if (!visitor.cannotEnter(chain, name, open))
                    return false;
                if (!asMet)
                    frame.entries.pop_back();
                continue;
            }
            visitor.entered(chain, name);
            if (!list())
                return false;
            continue;
        }

        // Everything below this directory is done: back to its parent.
        frames.pop_back();
        if (frames.empty())
            return true;
        if (std::error_code up = chain.ascend()) {
            ec = up;
            return false;
        }
        Frame& parent = frames.back();
        visitor.left(chain, current(parent));
        if (!asMet)
            parent.entries.pop_back();
    }
}
