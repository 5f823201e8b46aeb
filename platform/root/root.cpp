#include "platform/root/root.hpp"

#include <cstdlib>

std::string platformPath(std::string_view absolutePath) {
    const char* root = std::getenv("QUIL_ROOT");
    std::string path = root == nullptr ? "" : root;
    while (!path.empty() && path.back() == '/') {
        path.pop_back();
    }
    return path.append(absolutePath);
}
