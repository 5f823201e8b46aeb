// A push of any bytes that comes in pieces of any size, with any end: what the intake makes of the
// connection must be what the message makes of the same pieces when it is given them one by one.

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "agent/messages/message_queue.hpp"
#include "agent/messages/push_message.hpp"
#include "agent/pushes/push_connection.hpp"
#include "agent/sessions/session.hpp"
#include "tests/fuzz/agent_folder.hpp"
#include "tests/fuzz/bytes.hpp"

namespace {

constexpr int kNoMessage = -1;  // the type of the node behind the last one
constexpr unsigned kMostPieces = 8;

// What is to become of the push.
struct Expected {
    std::unique_ptr<QuilPushMessage> push;  // null when there is none
    bool isKept = false;                    // its connection
    std::size_t piecesRead = 0;
};

// The rules in their plain form: one piece is one read; `hangsUp` ends the last one.
Expected expect(const std::vector<std::string>& pieces, bool hangsUp) {
    Expected expected;
    for (const std::string& piece : pieces) {
        if (expected.push == nullptr) {
            expected.push = std::make_unique<QuilPushMessage>("app", "@ipc.1");
        }
        expected.push->setPayload(piece.data(), static_cast<int>(piece.size()));
        ++expected.piecesRead;
        if (!expected.push->hasMoreData() || expected.push->isPayloadFull()) {
            expected.isKept = true;
            return expected;
        }
    }
    if (!hangsUp) {
        expected.push.reset();  // it is waited for
    } else if (expected.push == nullptr) {
        expected.push = std::make_unique<QuilPushMessage>("app", "@ipc.1");
        expected.push->setPayload("", 0);
    }
    return expected;
}

void requireSame(const QuilPushMessage& push, const QuilPushMessage& expected) {
    require(push.getPayloadLength() == expected.getPayloadLength());
    require(push.getDataLength() == expected.getDataLength());
    require(push.getContentLength() == expected.getContentLength());
    require(push.getDataPosition() == expected.getDataPosition());
    require(push.getHttpHeaders().size() == expected.getHttpHeaders().size());
    for (std::size_t i = 0; i < push.getHttpHeaders().size(); ++i) {
        require(push.getHttpHeaders()[i]->getName() == expected.getHttpHeaders()[i]->getName());
        require(push.getHttpHeaders()[i]->getValue() == expected.getHttpHeaders()[i]->getValue());
    }
    QuilPushMessage encoded(push);
    QuilPushMessage alsoEncoded(expected);
    encoded.createData();
    alsoEncoded.createData();
    require(encoded.getErrorCode() == alsoEncoded.getErrorCode());
    require(encoded.getData() == alsoEncoded.getData());
}

std::unique_ptr<QuilMessageNode> takeQueued() {
    QuilMessageManager* queue = QuilMessageManager::getInstance();
    queue->push(std::make_unique<QuilMessageNode>(kNoMessage, nullptr));
    std::unique_ptr<QuilMessageNode> node = queue->pop();
    if (node->getType() == kNoMessage) {
        return nullptr;
    }
    require(queue->pop()->getType() == kNoMessage);
    return node;
}

std::vector<std::string> takePieces(const std::uint8_t* data, std::size_t size, bool* hangsUp) {
    Bytes input(data, size);
    *hangsUp = input.flag();
    std::vector<std::size_t> sizes(1 + input.below(kMostPieces));
    for (std::size_t& length : sizes) {
        length = input.next() * 64U + input.next() % 64U;
    }
    std::vector<std::string> pieces;
    for (std::size_t i = 0; i < sizes.size() && !input.isAtEnd(); ++i) {
        std::string piece;
        const bool isLast = i + 1 == sizes.size();
        while (!input.isAtEnd() && piece.size() < PUSH_PAYLOAD_BYTES &&
               (isLast || piece.size() < sizes[i])) {
            piece.push_back(static_cast<char>(input.next()));
        }
        if (!piece.empty()) {
            pieces.push_back(std::move(piece));
        }
    }
    return pieces;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const auto* const folder = new AgentFolder();
    static auto* const session = new QuilSession("app", "@ipc.1");
    static_cast<void>(folder);
    bool hangsUp = false;
    const std::vector<std::string> pieces = takePieces(data, size, &hangsUp);
    const Expected expected = expect(pieces, hangsUp);

    int ends[2];
    require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0);
    auto connection = std::make_unique<PushConnection>(ends[0], *session);
    PushConnection::Progress progress = connection->advance();
    require(progress == PushConnection::Progress::Waits);
    std::size_t sent = 0;
    while (progress == PushConnection::Progress::Waits && sent < pieces.size()) {
        const std::string& piece = pieces[sent++];
        require(send(ends[1], piece.data(), piece.size(), MSG_NOSIGNAL) ==
                static_cast<ssize_t>(piece.size()));
        progress = connection->advance();
    }
    if (progress == PushConnection::Progress::Waits && hangsUp) {
        shutdown(ends[1], SHUT_WR);
        progress = connection->advance();
        require(progress == PushConnection::Progress::Done);
    }
    connection.reset();

    const std::unique_ptr<QuilMessageNode> node = takeQueued();
    require((node != nullptr) == (expected.push != nullptr));
    if (node != nullptr) {
        const auto& push = dynamic_cast<const QuilPushMessage&>(*node->getMessage());
        require((push.getSocket() != -1) == expected.isKept);
        require(!expected.isKept || sent == expected.piecesRead);
        requireSame(push, *expected.push);
        closeConnectionOf(*node);
    }
    close(ends[1]);
    return 0;
}
