#include "treeWalk.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

// Handles held at once by one chain, the top included. Deeper trees reopen a
// parent through ".." on the way back up.
static constexpr std::size_t kOpenLevels = 16;

DirChain::DirChain(UniqueFd top, std::string topText) : text(std::move(topText)) {
    levels.emplace_back();
    levels.back().fd = std::move(top);
    levels.back().textLength = text.size();
}

std::string DirChain::pathOf(const std::string& name) const {
    if (text.empty())
        return name;
    return text.back() == '/' ? text + name : text + "/" + name;
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
    text = pathOf(name);
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

bool WalkTree(DirChain& chain, TreeVisitor& visitor, WalkOrder order, std::error_code& ec) {
    auto enter = [&](const std::string& name) {
        if (std::error_code open = chain.descend(name))
            return visitor.cannotEnter(chain, name, open);
        visitor.entered(chain, name);
        const bool go = WalkTree(chain, visitor, order, ec);
        if (std::error_code up = chain.ascend()) {
            ec = up;
            return false;
        }
        if (go)
            visitor.left(chain, name);
        return go;
    };

    std::vector<DirEntry> entries;
    const std::error_code listed = ReadEntries(chain.fd(), entries);
    std::vector<std::string> later;
    for (DirEntry& entry : entries) {
        const Next next = visitor.visit(chain, entry);
        if (next == Next::Stop)
            return false;
        if (next == Next::Skip)
            continue;
        if (order == WalkOrder::AsMet) {
            if (!enter(entry.name))
                return false;
        } else {
            later.push_back(std::move(entry.name));
        }
    }
    // The listing is no longer needed while the walk goes deeper.
    std::vector<DirEntry>().swap(entries);
    if (listed && !visitor.listingFailed(chain, listed))
        return false;
    for (auto name = later.rbegin(); name != later.rend(); ++name)
        if (!enter(*name))
            return false;
    return true;
}
