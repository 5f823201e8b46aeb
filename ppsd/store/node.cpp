#include "ppsd/store/node.hpp"

#include <algorithm>
#include <ctime>

timespec currentTime() {
    timespec time{};
    clock_gettime(CLOCK_REALTIME, &time);
    return time;
}

std::string pathOf(const Node& node) {
    if (node.parent == nullptr) {
        return {};
    }
    const std::string folder = pathOf(*node.parent);
    return folder.empty() ? node.name : folder + "/" + node.name;
}

std::string pathOf(const DirectoryNode& folder, std::string_view name) {
    const std::string path = pathOf(folder);
    return path.empty() ? std::string(name) : path + "/" + std::string(name);
}

int levelOf(const DirectoryNode& folder) {
    int level = 0;
    for (const DirectoryNode* at = &folder; at->parent != nullptr; at = at->parent) {
        ++level;
    }
    return level;
}

int heightOf(const Node& node) {
    if (node.kind != NodeKind::kDirectory) {
        return 0;
    }
    int highest = 0;
    for (const auto& [name, child] : static_cast<const DirectoryNode&>(node).stored) {
        highest = std::max(highest, heightOf(*child));
    }
    return highest + 1;
}
