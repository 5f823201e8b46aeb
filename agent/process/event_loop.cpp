// One select over the served client object, the read end of a pipe by which other threads wake this
// one, the listening socket of every port, and one descriptor for all connections whose push is not
// in yet. The set is built anew before every wait from the list of ports taken at the end of the
// pass before, so a new port is watched from the next pass on. Everything that touches sockets of
// pushes and requests of clients runs here, on the main thread, and waits for nobody but the object
// service.
//
// What a pass costs does not hang on how many ports there are, but for their lines: what is known
// of them is kept until one of them changes.

#include "agent/process/event_loop.hpp"

#include <sys/epoll.h>
#include <sys/select.h>

#include <algorithm>
#include <bitset>
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
#include "agent/process/port_watch.hpp"
#include "agent/pushes/push_intake.hpp"
#include "agent/requests/permissions.hpp"
#include "agent/requests/request_reader.hpp"
#include "agent/requests/session_requests.hpp"
#include "agent/sessions/port_changes.hpp"
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
        return isWatchable(descriptor) &&
               (FD_ISSET(descriptor, &m_set) || m_ports.test(static_cast<std::size_t>(descriptor)));
    }
    // Of a failed wait everything that was added is in the set.
    int wait(const PortWatch& ports) {
        const int count = select(m_highest + 1, &m_set, nullptr, nullptr, nullptr);
        if (has(ports.descriptor())) {
            m_ports = count > 0 ? ports.takeReady() : ports.all();
        }
        return count;
    }

  private:
    fd_set m_set;
    std::bitset<PortWatch::kNumbers> m_ports;  // of those that are not in m_set themselves
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

// The ports as they were at the end of the pass before, and what changes with them alone.
struct Ports {
    std::vector<QuilPort*> list;
    unsigned long changes = 0;  // countPortChanges() before the list was taken
    bool isTaken = false;
    LogLines setLines;   // "setting rfds" for each
    LogLines nextLines;  // at the end of a pass, for each
    PortWatch watch;
    std::vector<int> sockets;  // that are to be watched
};

template <typename LogLine>
void logPorts(const Ports& ports, LogLines* lines, LogLine logLine) {
    logFromMemory(lines, [&] {
        for (const QuilPort* port : ports.list) {
            logLine(port->getPort(), port->getSocket());
        }
    });
}

// Puts the sockets that are to be watched into the set, or what stands for them.
void addSockets(Ports* ports, unsigned long changes, const Room& room, DescriptorSet* set) {
    const auto isToBeWatched = [&](const QuilPort& port) {
        return isWatchable(port.getSocket()) && !port.isWaitingForClient() &&
               room.forPushesOf(port);
    };
    try {
        const QuilLock lock(portSocketLock());
        ports->sockets.clear();
        for (const QuilPort* port : ports->list) {
            if (isToBeWatched(*port)) {
                ports->sockets.push_back(port->getSocket());
            }
        }
        ports->watch.watch(ports->sockets, changes);
        if (isWatchable(ports->watch.descriptor())) {
            set->add(ports->watch.descriptor());
        }
        for (const int socket : ports->watch.others()) {
            set->add(socket);
        }
    } catch (const std::bad_alloc&) {
        for (const QuilPort* port : ports->list) {
            if (isToBeWatched(*port)) {
                set->add(port->getSocket());
            }
        }
    }
}

// False when a descriptor that the loop cannot do without is out of range.
bool buildSet(Ports* ports, DescriptorSet* set) {
    QUIL_LOG(LOG_LEVEL_INFO, "quilAgentLoop: Waiting (select)...");
    const Room room;
    const bool takesPushes = room.forPushes() && !isPushIntakePaused();
    const unsigned long changes = countPortChanges();
    if (changes != ports->changes) {
        ports->setLines.forget();
    }
    logPorts(*ports, &ports->setLines, [](int port, int socket) {
        QUIL_LOG(LOG_LEVEL_INFO, "quilAgentLoop: setting rfds: port [%d] fd[%d]", port, socket);
    });
    if (takesPushes) {
        addSockets(ports, changes, room, set);
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

void waitForEvents(const Ports& ports, DescriptorSet* set) {
    flushLogEcho();
    errno = 0;
    if (set->wait(ports.watch) <= 0) {
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
            const HandlingHere handling;
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
        const HandlingHere handling;
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
        const HandlingHere handling;
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

// Takes the ports of all sessions, unless they are what they were; `log` shows them. After an
// exception the list is the one before: a loop that watched nothing would not come back by itself.
template <typename Log>
void takePorts(Ports* ports, const char* exceptionText, Log log) {
    QUIL_LOG(LOG_LEVEL_INFO, "quilAgentLoop: All the valid ports are\n");
    try {
        const unsigned long changes = countPortChanges();
        // At this level taking the list has lines of its own.
        if (!ports->isTaken || changes != ports->changes || isLogged(LOG_LEVEL_DEBUG)) {
            ports->list = g_sessions->getAllPorts();
            ports->setLines.forget();
            ports->nextLines.forget();
            ports->changes = changes;
            ports->isTaken = true;
        }
        log();
    } catch (...) {
        ports->isTaken = false;
        QUIL_LOG(LOG_LEVEL_WARNING, "%s", exceptionText);
    }
}

void takeFirstPorts(Ports* ports) {
    takePorts(ports, "quilAgentLoop: exception occurred when trying to get all ports\n", [=] {
        QUIL_LOG(LOG_LEVEL_DEBUG, "ports->size() = %d", static_cast<int>(ports->list.size()));
        for (const QuilPort* port : ports->list) {
            QUIL_LOG(LOG_LEVEL_INFO, "quilAgentLoop: port [%d] fd[%d]", port->getPort(),
                     port->getSocket());
        }
    });
}

void takeNextPorts(Ports* ports) {
    takePorts(ports, "quilAgentLoop: exception occurred when trying to get all ports", [=] {
        logPorts(*ports, &ports->nextLines, [](int port, int socket) {
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
    Ports ports;
    takeFirstPorts(&ports);
    if (g_sessions->processSimChange(quilDestroyChannel) == 0) {
        QUIL_LOG(LOG_LEVEL_ERROR, "QuilAgent: process SIM Change failed!");
        return;
    }
    QUIL_LOG(LOG_LEVEL_INFO, "Entering quilAgentLoop...");
    for (;;) {
        DescriptorSet set;
        if (!buildSet(&ports, &set)) {
            return;
        }
        waitForEvents(ports, &set);
        // Pushes first, then the client, then the wake-up, and only then the new list: a request
        // that frees a port cannot take it away from the one push that this pass found there. What
        // waits behind that push falls with the port.
        servePorts(ports.list, set);
        if (set.has(g_intake)) {
            serveSetAside();
        }
        if (set.has(g_clientWatch.descriptor())) {
            serveClient();
        }
        if (set.has(g_pipeReadEnd)) {
            serveWakeUp();
        }
        takeNextPorts(&ports);
        QUIL_LOG(LOG_LEVEL_INFO, "\n\n");
    }
}
