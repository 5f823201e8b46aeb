// What stands in the tree: a folder, an object, or an object that is served.

#pragma once

#include <sys/types.h>

#include <map>
#include <memory>
#include <string>

#include "tests/fuzz/store_model/channel.hpp"
#include "tests/fuzz/store_model/lines.hpp"

namespace model {

inline constexpr uid_t kOwner = 1;  // unless the fuzzer says otherwise

struct Node {
    enum Kind { kFolder, kObject, kServed } kind;
    std::string name;
    Node* folder = nullptr;  // null for the root and for what is gone
    uid_t owner = kOwner;
    // A folder.
    std::map<std::string, std::shared_ptr<Node>> stored;
    std::map<std::string, std::shared_ptr<Node>> served;
    // An object.
    Values values;
    int version = 0;  // another one whenever the values are others
    int opened = 0;   // how often
    // A served object.
    std::shared_ptr<Channel> channel;

    // Removed, and open nowhere: so nobody keeps its values.
    void dropIfGone() {
        if (folder == nullptr && opened == 0) {
            change({});
        }
    }
    void change(const Values& newValues) {
        if (values != newValues) {
            values = newValues;
            ++version;
        }
    }
};

}  // namespace model
