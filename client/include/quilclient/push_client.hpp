// Pushes for an application: says to the push agent who the application is, keeps its session and
// its channel alive, and hands over each push as a value.
//
//     quilclient::Config config;
//     config.appId = "com.example.news";
//     config.ppgUrl = "http://push.example.com";
//     quilclient::Handlers handlers;
//     handlers.onPush = [](const quilclient::Push& push) {
//         std::cout << push.data << '\n';
//         return quilclient::Answer::Accept;
//     };
//     quilclient::PushClient client(config, handlers);
//     return client.run().ok() ? 0 : 1;
//
// With an event loop of your own: watch descriptor() for reading, wait no longer than untilDue(),
// and call dispatch() after either.
//
// Threads: none are made, and all handlers are called from within run() or dispatch(). A client
// belongs to one thread at a time; only stop() may come from other threads and signal handlers.
//
// Exceptions: none leave this library, with one exception: the constructor throws std::bad_alloc
// when there is no memory. What a handler throws is caught, the work goes on, and the dispatch() or
// run() that called the handler returns kHandlerThrew with the exception's words.

#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "quilclient/result.hpp"

namespace quilclient {

// A header line of a push, as the agent cut it out: blanks are kept, also the one that usually
// stands behind the colon.
struct Header {
    std::string name;
    std::string value;
};

// One push.
struct Push {
    std::string id;               // as on the wire: it may begin with a blank
    std::vector<Header> headers;  // in the order of arrival, equal names included
    std::string data;             // the bytes that the sender sent, decoded
    bool senderWaits = false;     // the sender keeps its connection open for accept() or reject()
    bool isDuplicate = false;     // a push with this id was handed over before (of the last 1024)
};

// What becomes of a push whose sender waits; without effect when nobody waits.
enum class Answer {
    Accept,  // the sender gets its acknowledgement
    Reject,  // the sender's connection is closed without a byte
    Later    // the application will call accept() or reject() itself; the sender waits till then
};

struct Config {
    std::string appId;   // provider application id: how the agent and the push server know you
    std::string ppgUrl;  // where the push server is, "http://host:port"; taken as it stands

    // The longest that one request may go unanswered. The agent works off registrations with push
    // servers one by one, two HTTP requests of up to a minute each, and answers queue up behind.
    std::chrono::milliseconds requestTimeout{150000};
    // How long no push may have come since the session was created before its channel is asked for.
    // Pushes wait on the port of a session that the agent brought back from before its restart, and
    // a channel asked for anew closes that port with all that waits there. An application that
    // never had a channel waits in vain, but neither it nor this client can know. Pushes that keep
    // coming faster than this put the channel off: they show that there is one.
    std::chrono::milliseconds quietTime{1000};
    // Pause between attempts to reach an agent that is not there; doubles from first to longest.
    std::chrono::milliseconds firstReconnect{100};
    std::chrono::milliseconds longestReconnect{5000};
    // Pause before a channel that was not created is asked for again; doubles likewise. It is the
    // push server that has to bear these.
    std::chrono::milliseconds firstChannelRetry{1000};
    std::chrono::milliseconds longestChannelRetry{300000};

    // How to open the connection, for applications that may not open files themselves: gives a
    // non-blocking descriptor, which the client then owns, or -1 with errno. On it each write is
    // one message, and reads give whole messages. Empty: opens /pps/services/push/ipc below
    // QUIL_ROOT.
    std::function<int()> open;
};

// What the application is told. Any of these may be left empty. A handler may call every method of
// its client, but must not destroy it.
struct Handlers {
    // A push arrived. Left empty, pushes are rejected; so is a push whose handler throws.
    std::function<Answer(const Push&)> onPush;

    // The channel was created, or created anew (ok, with the token that the agent gave), or was
    // not (the reason; the client tries again by itself unless stop() is called). A completion
    // without a token is such a failure: kEmptyToken.
    std::function<void(const Result&, const std::string& token)> onChannel;

    // The agent answered on a new connection (ok), or the connection was lost or refused (the
    // reason). Not repeated while the reason stays the same; the client goes on trying by itself.
    std::function<void(const Result&)> onConnection;

    // The device has another SIM than the one that channels were created with, so the agent tore
    // them down. The agent may tell every client so, whichever application is concerned. If this
    // client's channel stood, it is created anew.
    std::function<void()> onSimChange;

    // How setLaunchString() or clearLaunchString() ended.
    std::function<void(const Result&)> onLaunch;

    // How destroyChannel() ended.
    std::function<void(const Result&)> onChannelDestroyed;

    // Something came that cannot be right, such as an answer that nobody asked for; for a log.
    std::function<void(const std::string&)> onNotice;
};

class PushClient {
  public:
    PushClient(Config config, Handlers handlers);
    ~PushClient();
    PushClient(PushClient&&) noexcept;
    PushClient& operator=(PushClient&&) noexcept;

    // Connects, creates the session, takes the pushes that wait, creates the channel, and handles
    // what comes until stop(). ok after stop();
    // kBadArgument for a configuration that cannot work; kHandlerThrew; kSystemError. May be called
    // again and then goes on where it stopped.
    Result run() noexcept;

    // Makes run() return ok. Safe on any thread and in a signal handler. When nothing runs, the
    // next run() returns at once.
    void stop() noexcept;

    // One descriptor for the life of this client, readable when dispatch() has something to do; -1
    // when the system gave none (dispatch() then returns kSystemError).
    int descriptor() const noexcept;

    // How long until dispatch() has to be called even when the descriptor stays silent; 0 when it
    // is due now, milliseconds::max() when nothing is due.
    std::chrono::milliseconds untilDue() const noexcept;

    // Does all that can be done without waiting. Results as of run().
    Result dispatch() noexcept;

    // Answers the sender that waits for push `id`. ok means that the answer is on its way: the
    // agent confirms neither, and knows nothing any more of pushes from before its restart.
    Result accept(const std::string& id) noexcept;
    Result reject(const std::string& id) noexcept;

    // Sets the string that tells the system what to launch for a push when the application does not
    // run. The agent keeps it; this client sets it again with every new session. It may be called
    // at any time; the end is told to onLaunch. kBadArgument for an empty or too long string.
    Result setLaunchString(const std::string& launchString) noexcept;
    Result clearLaunchString() noexcept;

    // Takes the channel down: no more pushes, and no new channel after a reconnect. The end is told
    // to onChannelDestroyed. kNotConnected when there is no agent to ask.
    Result destroyChannel() noexcept;

    // Asks for a channel again after destroyChannel().
    Result createChannel() noexcept;

    // True while session and channel stand.
    bool isReady() const noexcept;

    // True while requests and answers wait here for room in the queue of an agent that is busy;
    // dispatch() hands them over. What still waits when the client is destroyed is never sent.
    bool hasUnsent() const noexcept;

  private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace quilclient
