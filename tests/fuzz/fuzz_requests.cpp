// Requests of any text, several in a row where zero bytes stand between them, to an agent with
// sessions in all states. The queue is worked off after each as the handler thread does it, except
// that no push data server is asked: whether it accepted depends on the URL. Every reply must be
// one object that can be read, with the id of the request.

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>

#include "agent/clients/client_object.hpp"
#include "agent/messages/message_factory.hpp"
#include "agent/messages/message_queue.hpp"
#include "agent/messages/reply_messages.hpp"
#include "agent/requests/request_completion.hpp"
#include "agent/requests/request_reader.hpp"
#include "agent/sessions/saved_sessions.hpp"
#include "agent/sessions/session_manager.hpp"
#include "agent/sessions/states/session_states.hpp"
#include "agent/support/log.hpp"
#include "agent/support/wake_up.hpp"
#include "platform/pps/decoder.hpp"
#include "tests/fuzz/agent_folder.hpp"
#include "tests/fuzz/bytes.hpp"

namespace {

constexpr std::size_t kRequestBytes = 8192;  // a longer one is cut when it is read
constexpr int kNoMessage = -1;               // the type of the node behind the last one
constexpr std::size_t kLargestReplyBytes = 256 * 1024;

class Agent {
  public:
    Agent() {
        std::filesystem::create_directories(m_folder.at("/pps/services/push"));
        // Saves go nowhere.
        std::filesystem::create_symlink("/dev/null", m_folder.at("/pps/services/push/quilagent"));
        m_folder.write("/pps/services/push/ipc", "");
        m_folder.write("/pps/services/push/ipc?server", "");
        raiseVerbosity(2);
        require(clientIfInit() != -1);
        int ends[2];
        require(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) == 0);
        const int bytes = 4 * static_cast<int>(kLargestReplyBytes);
        setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
        require(dup3(ends[0], clientDescriptor(), O_CLOEXEC) != -1);
        close(ends[0]);
        m_client = ends[1];
        require(openWakeUp() != -1);
    }

    // A session in each state, and one whose push waits for its answer.
    void reset() {
        QuilSessionManager::getInstance()->removeAll();
        add("created");
        add("registered")->enterState(makeState<QuilRegisterState>());
        add("terminated")->enterState(makeState<QuilTerminateState>());
        add("changed")->enterState(makeState<QuilSimChangeState>());
        add("deleted")->enterState(makeState<QuilDeleteState>());
        QuilSession* waiting = add("waiting");
        waiting->setLaunchString("start");
        waiting->enterState(makeState<QuilRegisterState>());
        int ends[2];
        require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0);
        require(waiting->addPushSocket("m1", ends[0]) == 1);
        m_sender = ends[1];
    }

    // The push was answered with an acknowledgement or a close, or waits still.
    void checkPush() {
        QuilSession* waiting = QuilSessionManager::getInstance()->getSessionByAppId("waiting");
        require(waiting != nullptr);
        const bool waits = waiting->getPushSocket("m1") != nullptr;
        char bytes[256];
        const ssize_t count = recv(m_sender, bytes, sizeof bytes, MSG_DONTWAIT);
        require(waits ? count == -1 && errno == EAGAIN : count == 0 || count == 72);
        waiting->acknowledgePush("m1", false);
        require(recv(m_sender, bytes, sizeof bytes, 0) == 0);
        close(m_sender);
    }

    void request(const std::string& text) {
        clientProcessRequest(text.c_str());
        takeWakeUp();
        pps_decoder_t decoder;
        pps_decoder_initialize(&decoder, text.c_str());
        pps_decoder_push(&decoder, nullptr);
        std::string id;
        pps_decoder_get_string(&decoder, "id", &id);
        workOffQueue();
        checkReplies(pps_decoder_name(&decoder), id);
    }

  private:
    static QuilSession* add(const std::string& appId) {
        auto session = std::make_unique<QuilSession>(appId, "@ipc.1");
        require(QuilSessionManager::getInstance()->addSession(session) == 1);
        return QuilSessionManager::getInstance()->getSessionByAppId(appId);
    }

    static void workOffQueue() {
        QuilMessageManager& queue = *QuilMessageManager::getInstance();
        queue.push(std::make_unique<QuilMessageNode>(kNoMessage, nullptr));
        for (;;) {
            const std::unique_ptr<QuilMessageNode> node = queue.pop();
            if (node->getType() != kNoMessage) {
                handle(*node);
                continue;
            }
            // A registration has put its completion behind the end.
            if (!s_hasMore) {
                return;
            }
            s_hasMore = false;
            queue.push(std::make_unique<QuilMessageNode>(kNoMessage, nullptr));
        }
    }

    static void handle(const QuilMessageNode& node) {
        std::unique_ptr<QuilBaseMessage> copy =
            QuilMessageFactory::getInstance()->copyMessage(&node);
        if (copy == nullptr) {
            require(node.getType() == MESSAGE_UNKNOWN_REQUEST);
            return;
        }
        switch (node.getType()) {
            case MESSAGE_SERVER_REGISTER:
            case MESSAGE_SERVER_DEREGISTER: {
                auto& request = dynamic_cast<QuilServerRegMessage&>(*node.getMessage());
                if (request.getPpgUrl().size() % 4 == 3) {
                    request.setErrorCode(RESULT_SERVER_UNREACHABLE);
                }
                if (node.getType() == MESSAGE_SERVER_REGISTER) {
                    addCreateChannelCompletedMessage(request);
                } else {
                    addDestroyChannelCompletedMessage(request);
                }
                s_hasMore = true;
                break;
            }
            case MESSAGE_DESTROY_CHANNEL_COMPLETE:
                processDestroyChannelCallback(std::move(copy));
                break;
            default:
                sendCallbackResponse(std::move(copy));
                break;
        }
    }

    void checkReplies(const std::string& clientId, const std::string& id) const {
        // The object service hands out no name with such a byte, and no reply can be given to it.
        const bool canBeNamed = std::none_of(
            clientId.begin(), clientId.end(),
            [](unsigned char byte) { return byte < 0x20 || byte == 0x7F || byte == '\\'; });
        static char reply[kLargestReplyBytes + 1];
        for (;;) {
            const ssize_t count = recv(m_client, reply, kLargestReplyBytes, 0);
            if (count == -1) {
                require(errno == EAGAIN);
                return;
            }
            if (count == 0) {
                require(!canBeNamed);
                continue;
            }
            reply[count] = '\0';
            pps_decoder_t decoder;
            require(pps_decoder_initialize(&decoder, reply) == PPS_DECODER_OK);
            require(pps_decoder_push(&decoder, nullptr) == PPS_DECODER_OK);
            std::string back;
            require(pps_decoder_get_string(&decoder, "id", &back) == PPS_DECODER_OK);
            require(back == id);
            require(pps_decoder_length(&decoder) <= 3);
        }
    }

    static inline bool s_hasMore = false;

    AgentFolder m_folder;
    int m_client = -1;  // the applications' end of the served object
    int m_sender = -1;  // of the push that waits
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Agent agent;
    agent.reset();
    for (const std::string& text : splitAtZeros(data, size)) {
        agent.request(text.substr(0, kRequestBytes));
    }
    agent.checkPush();
    return 0;
}
