// What is behind a PushClient: its connection, the requests that wait for answers, and how far it
// is on its way to a channel. Belongs to one thread at a time; only stop() may come from others.
// Methods may throw std::bad_alloc; PushClient turns that into a result.

#pragma once

#include <atomic>
#include <chrono>
#include <map>
#include <optional>
#include <string>

#include "client/backoff.hpp"
#include "client/connection.hpp"
#include "client/messages.hpp"
#include "client/recent_ids.hpp"
#include "quilclient/config.hpp"

namespace quilclient {

class PushClientImpl {
  public:
    PushClientImpl(Config config, Handlers handlers);
    ~PushClientImpl();

    Result run();
    Result dispatch();
    void stop() noexcept;
    int descriptor() const { return m_poll; }
    std::chrono::milliseconds untilDue() const;
    Result answerPush(Verb verb, const std::string& id);
    Result wishLaunch(std::string launchString);
    Result destroyChannel();
    Result createChannel();
    bool isReady() const { return m_phase == Phase::Ready; }
    bool hasUnsent() const { return m_connection.hasBacklog(); }

  private:
    using Time = std::chrono::steady_clock::time_point;

    // Query: the session stands, and the agent is asked whether a channel does. Waiting: one has to
    // be made, but what waits on the port of another from before is taken first.
    enum class Phase { Away, Session, Query, Waiting, Channel, Ready, NoChannel, Retry };

    struct Pending {
        Verb verb;
        Time deadline;
    };

    Result watch(int descriptor);
    Result wait();
    void connect();
    void disconnect(const Result& reason);
    void tellConnection(const Result& result);
    Result request(Verb verb, const std::string& argument);
    void ask(Verb verb, const std::string& argument);
    bool isPending(Verb verb) const;
    void retryChannel(const Result& reason);
    bool hasSession() const;
    void lookForChannel();
    void askForChannel();
    void askForChannelWhenQuiet();
    void stepDue();
    void applyLaunchWish();
    void receive();
    void handleMessage(const std::string& text);
    void handleReply(const Incoming& incoming);
    void handleOutcome(Verb verb, const Result& outcome, const Incoming& incoming = {});
    void handleChannelState(const Result& outcome, const ChannelState& channel);
    void tellChannel(const std::string& token);
    void handleChannelOutcome(const Result& outcome, const std::string& token);
    void handlePush(Incoming& incoming);
    void handleSimChange();
    void expirePending();
    void notice(const std::string& words);

    // Calls a handler. What it throws becomes the result of the dispatch() under way.
    template <typename Handler, typename... Arguments>
    auto call(const Handler& handler, const Arguments&... arguments)
        -> decltype(handler(arguments...));

    Config m_config;
    Handlers m_handlers;
    Result m_configCheck;  // what is wrong with m_config
    int m_poll = -1;       // owned; watches m_wake and the connection
    int m_wake = -1;       // owned; written by stop()
    std::atomic<bool> m_isStopped{false};

    Connection m_connection;
    Phase m_phase = Phase::Away;
    bool m_wantsChannel = true;
    bool m_isDestroyDue = false;  // destroyChannel() waits for the end of a createChannel
    std::optional<Time> m_due;    // when the line of life goes on (Waiting) or begins anew
    Time m_quietUntil;            // no channel is asked for before; moves with every push
    Backoff m_reconnect;
    Backoff m_channelRetry;
    std::optional<Result> m_lost;  // the connection broke outside of receive()
    int m_lastConnectionCode = 1;  // last told to onConnection; 1: nothing was
    Result m_failure;              // of a handler, during this dispatch()

    unsigned long long m_lastRequestId = 0;
    std::map<std::string, Pending> m_pending;  // by request id
    std::optional<std::string> m_launchWish;   // "" means: none
    RecentIds m_recentIds;
};

}  // namespace quilclient
