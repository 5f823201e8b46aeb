// An open file: an object, or an end of a served object's channel, the server's or a client's. What
// a write does, what a read gives, and when there is something to read.

#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "tests/fuzz/store_model/channel.hpp"
#include "tests/fuzz/store_model/lines.hpp"
#include "tests/fuzz/store_model/node.hpp"

namespace model {

struct Options {
    bool wait = false;
    bool delta = false;
    bool server = false;
};

// Its channel knows it by its address.
struct File {
    Options options;
    std::shared_ptr<Node> node;  // an object, or of a server what it serves
    // An object's.
    int seen = -1;
    Values seenValues;
    std::string rest;
    // An end of a channel.
    std::shared_ptr<Channel> channel;
    std::uint64_t client = 0;  // 0 for the server
    Opener opener;
    bool reads = true;
    std::deque<std::string> queue;
    std::size_t queuedBytes = 0;
    std::size_t bytesAtServer = 0;
    std::size_t readOfFirst = 0;
    bool isFull = false;  // whatever its queue has room for: its user has none
    bool isEnded = false;

    // Becomes a client of what is served.
    void connect(const Node& served, std::uint64_t number);

    // `bytes` is the size of the text; it is torn when its last line has no line feed. Gives 0 or
    // an errno value.
    int write(const std::vector<Line>& lines, std::size_t bytes, bool isTorn);

    // Nothing when there is nothing yet, or nothing ever again when the file is ended.
    std::string read(std::size_t size);

    bool isReadable() const;
    void close();

  private:
    std::string unread() const;
    int writeObject(const std::vector<Line>& lines, std::size_t bytes, bool isTorn) const;
    int writeToServer(const std::vector<Line>& lines, std::size_t bytes, bool isTorn);
    int writeToClients(const std::vector<Line>& lines, std::size_t bytes, bool isTorn) const;
    std::string tag() const;
    void enqueue(const std::string& text);
    void depart();
};

}  // namespace model
