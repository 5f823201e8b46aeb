// The way of a push through an MQTT broker, quality of service 1: a publisher and a subscriber in
// one process, in a closed loop; timed from the publisher's first call to the whole message with
// the subscriber.
//
//     bench_mqtt_load PORT COUNT BYTES new|kept
//
// "new" makes a connection for every message, as a push sender does, "kept" one for all. Prints one
// JSON object.

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

#include "tests/bench/stack/sockets.hpp"
#include "tests/bench/stack/timing.hpp"

namespace {

constexpr int kConnect = 0x10;
constexpr int kPublishOnce = 0x32;  // quality of service 1
constexpr int kPublish = 0x30;
constexpr int kPublishReceived = 0x40;
constexpr int kSubscribe = 0x82;
constexpr int kTypeMask = 0xf0;
constexpr int kMoreLength = 0x80;
constexpr std::string_view kTopic = "t";

struct Packet {
    int head = 0;
    std::string body;
};

std::string counted(std::string_view text) {
    const std::size_t size = text.size();
    return std::string{static_cast<char>(size >> 8), static_cast<char>(size)} + std::string(text);
}

std::string packetText(int head, const std::string& body) {
    std::string text(1, static_cast<char>(head));
    std::size_t left = body.size();
    do {
        const int digit = static_cast<int>(left % kMoreLength);
        left /= kMoreLength;
        text += static_cast<char>(left != 0 ? digit | kMoreLength : digit);
    } while (left != 0);
    return text + body;
}

class Peer {
  public:
    Peer(std::uint16_t port, const std::string& name)
        : m_socket(bench::connectFrom("127.0.0.1", port)) {
        const int one = 1;
        setsockopt(m_socket, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        // Protocol level 4, clean session, to be heard of at least once a minute.
        send(kConnect, counted("MQTT") + std::string("\x04\x02\x00\x3c", 4) + counted(name));
        receive();
    }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;
    ~Peer() { close(m_socket); }

    void send(int head, const std::string& body) {
        bench::sendAll(m_socket, packetText(head, body));
    }

    Packet receive() {
        Packet packet;
        packet.head = byte();
        std::size_t size = 0;
        for (int shift = 0, digit = kMoreLength; (digit & kMoreLength) != 0; shift += 7) {
            digit = byte();
            size |= static_cast<std::size_t>(digit & ~kMoreLength) << shift;
        }
        packet.body.resize(size);
        bench::receiveAll(m_socket, packet.body);
        return packet;
    }

  private:
    int byte() {
        char value = 0;
        bench::receiveAll(m_socket, {&value, 1});
        return static_cast<unsigned char>(value);
    }

    int m_socket;
};

// From the message on its way to its acknowledgements on both sides; timed to its arrival.
void publish(Peer& publisher, Peer& subscriber, const std::string& data, bench::Waits& waits,
             std::chrono::steady_clock::time_point begin) {
    publisher.send(kPublishOnce, counted(kTopic) + std::string("\0\1", 2) + data);
    Packet packet;
    do {
        packet = subscriber.receive();
    } while ((packet.head & kTypeMask) != kPublish);
    waits.addSince(begin);
    subscriber.send(kPublishReceived, packet.body.substr(2 + kTopic.size(), 2));
    publisher.receive();
}

}  // namespace

int main(int count, char** words) {
    if (count != 5) {
        std::fprintf(stderr, "Usage: bench_mqtt_load PORT COUNT BYTES new|kept\n");
        return 2;
    }
    const auto port = static_cast<std::uint16_t>(bench::numberOf(words[1]));
    const std::size_t messages = bench::numberOf(words[2]);
    const std::string data(bench::numberOf(words[3]), 'x');
    const bool isNew = std::string_view(words[4]) == "new";

    Peer subscriber(port, "subscriber");
    subscriber.send(kSubscribe, std::string("\0\1", 2) + counted(kTopic) + "\1");
    subscriber.receive();
    bench::Waits waits(messages);
    if (isNew) {
        for (std::size_t i = 0; i < messages; ++i) {
            const auto begin = std::chrono::steady_clock::now();
            Peer publisher(port, "p" + std::to_string(i));
            publish(publisher, subscriber, data, waits, begin);
        }
    } else {
        Peer publisher(port, "publisher");
        for (std::size_t i = 0; i < messages; ++i) {
            publish(publisher, subscriber, data, waits, std::chrono::steady_clock::now());
        }
    }
    std::printf("{\"application\": %s}\n", waits.asJson().c_str());
    return 0;
}
