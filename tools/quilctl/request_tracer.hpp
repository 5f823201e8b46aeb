// Follows what applications ask through the lines of the agent's log, as far as it is done at once.
// What a push server is asked for is ChannelTracer's, an answer to a push PushTracer's; here it is
// what the agent refused of them.

#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

struct RequestTrace {
    std::optional<double> time;
    std::string appId;    // empty where the request had none, or the log does not tell
    std::string name;     // such as "createSession"
    std::string trouble;  // why it was refused, or empty
};

class RequestTracer {
  public:
    std::function<void(const RequestTrace&)> onEnd = [](const RequestTrace&) {};

    // As of PushTracer.
    void take(std::string_view text, std::optional<double> time);

  private:
    bool takeBegin(std::string_view text);
    bool takeRefusal(std::string_view text);
    bool takeQueued(std::string_view text);
    bool takeDirectReply(std::string_view text);
    void end(const std::string& appId, const std::string& name, const std::string& trouble);

    std::optional<double> m_now;
    bool m_isReading = false;  // the main thread has a request in its hands
    std::string m_name;        // of the request, where the log tells it
    std::string m_appId;
    std::string m_pushId;      // of an answer to a push
    bool m_isRefused = false;  // told already
    int m_destroyedTaken = 0;  // ends of channels that the handler thread took, not replied to yet
};
