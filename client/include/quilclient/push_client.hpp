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
#include <memory>
#include <string>

#include "quilclient/api.hpp"
#include "quilclient/config.hpp"
#include "quilclient/push.hpp"
#include "quilclient/result.hpp"

namespace quilclient {

class QUILCLIENT_API PushClient {
  public:
    PushClient(Config config, Handlers handlers);
    ~PushClient();
    PushClient(PushClient&&) noexcept;
    PushClient& operator=(PushClient&&) noexcept;

    // Connects, creates the session, creates the channel unless it stands, and handles what comes
    // until stop(). ok after stop();
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
