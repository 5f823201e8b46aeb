// One select over the served client object, the read end of a pipe by which other threads wake this
// one, the listening socket of every port, and one descriptor for all connections whose push is not
// in yet. The set is built anew before every wait from the list of ports taken at the end of the
// pass before, so a new port is watched from the next pass on. Everything that touches sockets of
// pushes and requests of clients runs here, on the main thread, and nothing of it waits.

#include "agent/process/event_loop.hpp"

#include <sys/epoll.h>
#include <sys/select.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <new>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "agent/clients/client_object.hpp"
#include "agent/messages/message_queue.hpp"
#include "agent/process/exchanges.hpp"
#include "agent/process/handler_thread.hpp"
#include "agent/pushes/push_intake.hpp"
#include "agent/requests/permissions.hpp"
#include "agent/requests/request_reader.hpp"
#include "agent/requests/session_requests.hpp"
#include "agent/sessions/saved_sessions.hpp"
#include "agent/sessions/session_manager.hpp"
#include "agent/support/log.hpp"
#include "agent/support/service_life.hpp"
#include "agent/support/wake_up.hpp"

namespace {

constexpr int kLowestDescriptor = 1;
constexpr int kHighestDescriptor = 255;
// After a failure that a next pass would run into at once.
constexpr std::chrono::milliseconds kPause{100};

// Main thread only.
int g_clientDescriptor = -1;
QuilSessionManager* g_sessions = nullptr;
int g_pipeReadEnd = -1;  // of the wake-up
int g_intake = -1;       // of set-aside connections
std::optional<std::chrono::steady_clock::time_point> g_heldSince;

bool isWatchable(int descriptor) {
    return descriptor >= kLowestDescriptor && descriptor <= kHighestDescriptor;
}

class DescriptorSet {
  public:
    DescriptorSet() { FD_ZERO(&m_set); }

    void add(int descriptor) {
        FD_SET(descriptor, &m_set);
        m_highest = std::max(m_highest, descriptor);
    }
    bool has(int descriptor) const {
        return isWatchable(descriptor) && FD_ISSET(descriptor, &m_set);
    }
    int wait() { return select(m_highest + 1, &m_set, nullptr, nullptr, nullptr); }

  private:
    fd_set m_set;
    int m_highest = 0;
};

// Stands for the client object in the set. To have a file of the object service in the set itself
// would cost two questions to the service in every pass, whoever it is about; behind a descriptor
// of epoll it is asked when it has told of something.
class ClientWatch {
  public:
    // Of the descriptor as it is now; to be repeated when it has become another file.
    void watch(int client) {
        m_watched = client;
        if (m_set == -1) {
            m_set = epoll_create1(EPOLL_CLOEXEC);
        }
        epoll_event event{};
        event.events = EPOLLIN;
        const bool isBehindSet =
            isWatchable(m_set) && isWatchable(client) &&
            (epoll_ctl(m_set, EPOLL_CTL_ADD, client, &event) == 0 || errno == EEXIST);
        if (isBehindSet) {
            m_watched = m_set;
        }
    }
    // What to put into the set: the client object's own where there is no other way.
    int descriptor() const { return m_watched; }

  private:
    int m_set = -1;  // open until the process ends
    int m_watched = -1;
};

ClientWatch g_clientWatch;

// How much of what comes in can be handed on at the moment. The rest waits where it is: pushes with
// their senders, requests with the object service. Without queue or lanes nothing is held back, and
// what comes in is refused there.
class Room {
  public:
    Room()
        : m_isQueueCrowded(m_queue != nullptr && m_queue->isCrowded()),
          m_hasManyRequests(m_queue != nullptr && m_queue->hasManyRequests()) {}

    bool forPushes() const { return !m_isQueueCrowded; }
    bool forRequests() const { return !m_hasManyRequests; }
    bool forPushesOf(const QuilPort& port) const {
        try {
            return m_exchanges == nullptr || !m_exchanges->hasCrowd() ||
                   !m_exchanges->isCrowded(port.getName());
        } catch (...) {
            return false;  // no memory for its name either
        }
    }

  private:
    QuilMessageManager* m_queue = QuilMessageManager::getInstance();
    QuilExchanges* m_exchanges = QuilExchanges::getInstance();
    bool m_isQueueCrowded;
    bool m_hasManyRequests;
};

// Set-aside connections are not to pay for the time in which nobody could see to them. It begins
// when pushes are held back, or when the object service is lost, and ends when both are over.
void beginHold() {
    g_heldSince = g_heldSince.value_or(std::chrono::steady_clock::now());
}

void endHold() {
    if (g_heldSince) {
        postponePushIntake(std::chrono::steady_clock::now() - *g_heldSince);
        g_heldSince.reset();
    }
}

// Lines about each port, the same in every pass until a port changes.
class PortLines {
  public:
    template <typename Logging>
    void log(const std::vector<QuilPort*>& ports, Logging logLine) {
        if (!isSame(ports)) {
            m_lines.forget();
        }
        logFromMemory(&m_lines, [&] {
            for (const QuilPort* port : ports) {
                logLine(port->getPort(), port->getSocket());
            }
        });
    }

  private:
    // Whether the lines of the last time would be the same. Without memory to compare with they are
    // taken for others.
    bool isSame(const std::vector<QuilPort*>& ports) {
        const auto shows = [](const QuilPort* port, const std::pair<int, int>& shown) {
            return port->getPort() == shown.first && port->getSocket() == shown.second;
        };
        if (std::equal(ports.begin(), ports.end(), m_shown.begin(), m_shown.end(), shows)) {
            return true;
        }
        m_shown.clear();
        try {
            for (const QuilPort* port : ports) {
                m_shown.emplace_back(port->getPort(), port->getSocket());
            }
        } catch (const std::bad_alloc&) {
            m_shown.clear();
            m_shown.shrink_to_fit();
        }
        return false;
    }

    std::vector<std::pair<int, int>> m_shown;  // port and descriptor
    LogLines m_lines;
};

// False when a descriptor that the loop cannot do without is out of range.
bool buildSet(const std::vector<QuilPort*>& ports, PortLines* lines, DescriptorSet* set) {
    QUIL_LOG(LOG_LEVEL_INFO, "quilAgentLoop: Waiting (select)...");
    const Room room;
    const bool takesPushes = room.forPushes() && !isPushIntakePaused();
    lines->log(ports, [](int port, int socket) {
        QUIL_LOG(LOG_LEVEL_INFO, "quilAgentLoop: setting rfds: port [%d] fd[%d]", port, socket);
    });
    for (const QuilPort* port : ports) {
        const int socket = port->getSocket();
        if (isWatchable(socket) && takesPushes && !port->isWaitingForClient() &&
            room.forPushesOf(*port)) {
            set->add(socket);
        }
    }
    if (room.forPushes() && isWatchable(g_intake)) {
        set->add(g_intake);
    }
    room.forPushes() ? endHold() : beginHold();
    if (!isWatchable(g_clientDescriptor)) {
        QUIL_LOG(LOG_LEVEL_ERROR, "QuilAgent: invalid client file descriptor %d",
                 g_clientDescriptor);
        return false;
    }
    if (room.forRequests()) {
        set->add(g_clientWatch.descriptor());
    }
    if (!isWatchable(g_pipeReadEnd)) {
        QUIL_LOG(LOG_LEVEL_ERROR,
                 "QuilAgent: invalid file descriptor for internal pipe between threads %d",
                 g_pipeReadEnd);
        return false;
    }
    set->add(g_pipeReadEnd);
    return true;
}

void waitForEvents(DescriptorSet* set) {
    flushLogEcho();
    errno = 0;
    if (set->wait() <= 0) {
        // The pass goes on with the set as select left it. Kept on purpose: a port may have been
        // closed under the wait, and every reader below copes with a descriptor that has nothing to
        // give.
        QUIL_LOG(LOG_LEVEL_WARNING, "quilAgentLoop: Select error [%d] [%s]", errno,
                 strerror(errno));
    }
}

void servePorts(const std::vector<QuilPort*>& ports, const DescriptorSet& set) {
    for (QuilPort* port : ports) {
        if (!set.has(port->getSocket()) || isPushIntakePaused()) {
            continue;
        }
        try {
            QUIL_LOG(LOG_LEVEL_INFO, "quilAgentLoop: Port %d receiving data for App id [%s]",
                     port->getPort(), port->getName().c_str());
            serverIfProcessData(port);
        } catch (...) {
            QUIL_LOG(LOG_LEVEL_WARNING,
                     "quilAgentLoop: exception occurred when trying to serverIfProcessData");
        }
        QUIL_LOG(LOG_LEVEL_INFO, "quilAgentLoop: serverIfProcessData port [%d] fd[%d]",
                 port->getPort(), port->getSocket());
    }
}

void serveSetAside() {
    try {
        servePushIntake();
    } catch (...) {
        QUIL_LOG(LOG_LEVEL_WARNING,
                 "quilAgentLoop: exception occurred when trying to serverIfProcessData");
    }
}

bool isObjectServiceBack() {
    try {
        return reopenClientObject();
    } catch (...) {
        return false;  // without memory it is tried again
    }
}

// Until the object service is back, nothing is taken off the ports, and nobody could be told
// anything.
void awaitObjectService(int error) {
    QUIL_LOG(LOG_LEVEL_WARNING, "quilAgentLoop: object service lost: errno[%d] error[%s]", error,
             strerror(error));
    // In this order: an id that is still there after the life has ended would seem to be of the
    // next.
    g_sessions->forgetClients();
    QuilPermissions::getInstance()->forgetConnections();
    endServiceLife();
    flushLogEcho();
    beginHold();
    do {
        std::this_thread::sleep_for(kPause);
    } while (!isObjectServiceBack());
    g_clientWatch.watch(g_clientDescriptor);
    QUIL_LOG(LOG_LEVEL_NOTICE, "quilAgentLoop: object service is back");
    try {
        QuilDataManager::getInstance()->reopenAndSave();
    } catch (...) {
        QUIL_LOG(LOG_LEVEL_WARNING, "quilAgentLoop: no memory to save the sessions again");
    }
}

void serveClient() {
    QUIL_LOG(LOG_LEVEL_DEBUG, "Client if event.\n");
    int count = 0;
    int error = 0;
    try {
        count = clientPPSMessageGet();
        error = errno;
    } catch (...) {
        QUIL_LOG(LOG_LEVEL_WARNING,
                 "quilAgentLoop: exception occurred when trying to process a client request");
    }
    if (count == -1 && error != EAGAIN && error != EINTR) {
        awaitObjectService(error);
    }
}

void serveWakeUp() {
    QUIL_LOG(LOG_LEVEL_DEBUG, "Ignore\n");
    takeWakeUp();
}

// Puts the ports of all sessions into `ports`, shown by `logPorts`. After an exception the list is
// the one before: a loop that watched nothing would not come back by itself.
template <typename LogPorts>
void takePorts(std::vector<QuilPort*>* ports, const char* exceptionText, LogPorts logPorts) {
    QUIL_LOG(LOG_LEVEL_INFO, "quilAgentLoop: All the valid ports are\n");
    try {
        *ports = g_sessions->getAllPorts();
        logPorts(*ports);
    } catch (...) {
        QUIL_LOG(LOG_LEVEL_WARNING, "%s", exceptionText);
    }
}

void takeFirstPorts(std::vector<QuilPort*>* taken) {
    takePorts(taken, "quilAgentLoop: exception occurred when trying to get all ports\n",
              [](const std::vector<QuilPort*>& ports) {
                  QUIL_LOG(LOG_LEVEL_DEBUG, "ports->size() = %d", static_cast<int>(ports.size()));
                  for (const QuilPort* port : ports) {
                      QUIL_LOG(LOG_LEVEL_INFO, "quilAgentLoop: port [%d] fd[%d]", port->getPort(),
                               port->getSocket());
                  }
              });
}

void takeNextPorts(PortLines* lines, std::vector<QuilPort*>* taken) {
    takePorts(taken, "quilAgentLoop: exception occurred when trying to get all ports",
              [lines](const std::vector<QuilPort*>& ports) {
                  lines->log(ports, [](int port, int socket) {
                      QUIL_LOG(LOG_LEVEL_INFO, "quilAgentLoop 2: port[%d] fd[%d]", port, socket);
                  });
              });
}

}  // namespace

int quilAgentInit() {
    QUIL_LOG(LOG_LEVEL_DEBUG, "quilAgentInit - ENTER\n");
    if (msgHandlerInit() == 0) {
        QUIL_LOG(LOG_LEVEL_WARNING, "quilAgentInit: messsage handler init FAILED.");
        return 0;
    }
    g_clientDescriptor = clientIfInit();
    if (g_clientDescriptor == -1) {
        return 0;
    }
    g_sessions = QuilSessionManager::getInstance();
    if (g_sessions == nullptr) {
        return 0;
    }
    QUIL_LOG(LOG_LEVEL_DEBUG, "quilAgentInit - EXIT");
    return 1;
}

void quilAgentLoop() {
    // Also when quilAgentInit failed on the way to it.
    g_sessions = QuilSessionManager::getInstance();
    g_pipeReadEnd = openWakeUp();
    g_intake = openPushIntake();
    g_clientWatch.watch(g_clientDescriptor);
    std::vector<QuilPort*> ports;
    PortLines setLines;
    PortLines nextLines;
    takeFirstPorts(&ports);
    if (g_sessions->processSimChange(quilDestroyChannel) == 0) {
        QUIL_LOG(LOG_LEVEL_ERROR, "QuilAgent: process SIM Change failed!");
        return;
    }
    QUIL_LOG(LOG_LEVEL_INFO, "Entering quilAgentLoop...");
    for (;;) {
        DescriptorSet set;
        if (!buildSet(ports, &setLines, &set)) {
            return;
        }
        waitForEvents(&set);
        // Pushes first, then the client, then the wake-up, and only then the new list: a request
        // that frees a port cannot take it away from the one push that this pass found there. What
        // waits behind that push falls with the port.
        servePorts(ports, set);
        if (set.has(g_intake)) {
            serveSetAside();
        }
        if (set.has(g_clientWatch.descriptor())) {
            serveClient();
        }
        if (set.has(g_pipeReadEnd)) {
            serveWakeUp();
        }
        takeNextPorts(&nextLines, &ports);
        QUIL_LOG(LOG_LEVEL_INFO, "\n\n");
    }
}
