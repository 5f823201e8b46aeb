// One loop over two descriptors: the client's, and standard input while a question is open. Pushes
// are answered only after they were saved and after the command ended, so that an acceptance always
// means that the push is safe.

#include "tools/quilctl/listen.hpp"

#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <deque>
#include <system_error>

#include "quilclient/push_client.hpp"
#include "quilclient/request.hpp"
#include "tools/common/terminal.hpp"
#include "tools/quilctl/channel_words.hpp"
#include "tools/quilctl/output.hpp"
#include "tools/quilctl/push_command.hpp"
#include "tools/quilctl/push_files.hpp"
#include "tools/quilctl/push_length.hpp"
#include "tools/quilctl/push_view.hpp"

namespace {

using Clock = std::chrono::steady_clock;
using quilclient::Answer;
using quilclient::Push;
using quilclient::Result;
using std::chrono::milliseconds;

constexpr milliseconds kQueryTime{2000};  // an agent that is well answers at once
constexpr milliseconds kFlushTime{2000};  // for answers that a full queue of the agent holds back

std::optional<Clock::time_point> deadlineOf(const std::optional<double>& seconds) {
    if (!seconds) {
        return std::nullopt;
    }
    return Clock::now() + milliseconds(static_cast<std::int64_t>(std::ceil(*seconds * 1000)));
}

class Listener {
  public:
    explicit Listener(const ListenOptions& options)
        : m_options(options),
          m_style(stdout),
          m_deadline(deadlineOf(options.timeoutSeconds)),
          m_client(config(), handlers()) {}

    ExitStatus run();

  private:
    quilclient::Config config() const;
    quilclient::Handlers handlers();

    void finish(ExitStatus status);
    milliseconds pause() const;
    void waitAndRead();
    void flushAnswers();

    void onConnection(const Result& result);
    void onChannel(const Result& result, const std::string& token);
    Answer onPush(const Push& push);
    Answer decide(const Push& push);
    Answer runCommand(const Push& push);
    bool save(const Push& push);

    void askNext();
    void readAnswer();
    void answerOldest(bool isAccepted);

    void show(const std::string& event, const std::string& words, const Result& result = {});
    void showAnswer(const std::string& id, bool isAccepted, const std::string& why);
    void showFailure(const std::string& what, const Result& result);
    void showTimeout();
    void warnOfDeafChannel();

    const ListenOptions& m_options;
    Style m_style;
    std::optional<Clock::time_point> m_deadline;
    std::optional<ExitStatus> m_end;
    bool m_hadChannel = false;
    std::uint64_t m_pushes = 0;
    std::deque<std::string> m_questions;  // ids of pushes that wait for an answer, oldest first
    std::string m_typed;                  // of a line on standard input that has no end yet
    bool m_isInputOver = false;
    quilclient::PushClient m_client;
};

quilclient::Config Listener::config() const {
    quilclient::Config config;
    config.appId = m_options.appId;
    config.ppgUrl = m_options.ppgUrl;
    return config;
}

quilclient::Handlers Listener::handlers() {
    quilclient::Handlers handlers;
    handlers.onConnection = [this](const Result& result) { onConnection(result); };
    handlers.onChannel = [this](const Result& result, const std::string& token) {
        onChannel(result, token);
    };
    handlers.onPush = [this](const Push& push) { return onPush(push); };
    handlers.onSimChange = [this] {
        show("simChange", "the device has another SIM; channels of the old one are gone");
    };
    handlers.onNotice = [this](const std::string& words) { show("notice", words); };
    return handlers;
}

// --- The loop ------------------------------------------------------------------------------------

ExitStatus Listener::run() {
    while (!m_end) {
        const Result result = m_client.dispatch();
        if (!result.ok()) {
            showFailure("listen", result);
            finish(exitStatusOf(result));
        } else if (std::ferror(stdout) != 0) {
            finish(kRefused);  // nobody reads what is shown
        } else if (m_options.count && m_pushes >= *m_options.count && m_questions.empty()) {
            finish(kDone);
        } else if (m_deadline && Clock::now() >= *m_deadline) {
            showTimeout();
            finish(kTimeout);
        }
        if (!m_end) {
            waitAndRead();
        }
    }
    flushAnswers();
    return *m_end;
}

// The first reason to end stands.
void Listener::finish(ExitStatus status) {
    if (!m_end) {
        m_end = status;
    }
}

milliseconds Listener::pause() const {
    milliseconds pause = std::min(m_client.untilDue(), milliseconds(60000));
    if (m_deadline) {
        const auto left = std::chrono::ceil<milliseconds>(*m_deadline - Clock::now());
        pause = std::clamp(left, milliseconds(0), pause);
    }
    return pause;
}

void Listener::waitAndRead() {
    const bool isAsking = !m_questions.empty();
    pollfd entries[2] = {{m_client.descriptor(), POLLIN, 0},
                         {isAsking ? STDIN_FILENO : -1, POLLIN, 0}};
    if (poll(entries, 2, static_cast<int>(pause().count())) > 0 && entries[1].revents != 0) {
        readAnswer();
    }
}

void Listener::flushAnswers() {
    const auto limit = Clock::now() + kFlushTime;
    while (m_client.hasUnsent() && Clock::now() < limit) {
        waitAndRead();
        m_client.dispatch();
    }
}

// --- What the client tells -----------------------------------------------------------------------

void Listener::onConnection(const Result& result) {
    if (result.ok()) {
        show("connected", "connected to the agent");
        return;
    }
    showFailure("listen", result);
    if (!m_hadChannel) {
        finish(exitStatusOf(result));
    }
}

void Listener::onChannel(const Result& result, const std::string& token) {
    if (result.ok()) {
        m_hadChannel = true;
        if (m_options.json) {
            printJson({{"event", "channel"}, {"app", m_options.appId}, {"token", token}});
        } else {
            show("channel", m_style.good("channel open") + " for " + visible(m_options.appId) +
                                ", token " + visible(token));
        }
        warnOfDeafChannel();
        return;
    }
    showFailure("channel of " + m_options.appId, result);
    if (!m_hadChannel) {
        finish(exitStatusOf(result));
    }
}

// A channel has a token also when nobody can push over it. The client does not tell which ones, so
// the agent is asked.
void Listener::warnOfDeafChannel() {
    const quilclient::Reply reply =
        quilclient::sendRequest({quilclient::Verb::QueryChannel, m_options.appId, ""}, kQueryTime);
    const std::string words = reply.result.ok() ? describeDeafChannel(reply.channel) : "";
    if (!words.empty()) {
        show("warning", m_options.json ? words : m_style.warning("warning: ") + visible(words));
    }
}

Answer Listener::onPush(const Push& push) {
    const bool isBeyondCount = m_options.count && m_pushes >= *m_options.count;
    if (m_end || isBeyondCount) {
        return Answer::Reject;  // came in one go with the last one that counts
    }
    ++m_pushes;
    if (m_options.json) {
        printJson(pushAsJson(push));
    } else {
        std::printf("%s", describePush(push, m_style).c_str());
        std::fflush(stdout);
    }
    return save(push) ? decide(push) : Answer::Reject;
}

Answer Listener::decide(const Push& push) {
    switch (m_options.mode) {
        case ListenOptions::Mode::Command:
            return runCommand(push);
        case ListenOptions::Mode::Ask:
            if (push.senderWaits) {
                m_questions.push_back(push.id);
                if (m_questions.size() == 1) {
                    askNext();
                }
            }
            return Answer::Later;
        case ListenOptions::Mode::Accept:
        case ListenOptions::Mode::Reject:
            break;
    }
    const bool isAccepting = m_options.mode == ListenOptions::Mode::Accept;
    const bool isTooShort = isAccepting && !m_options.acceptsShort && isShort(push);
    const bool isAccepted = isAccepting && !isTooShort;
    if (push.senderWaits) {
        showAnswer(push.id, isAccepted, isTooShort ? "less data than its Content-Length says" : "");
    }
    return isAccepted ? Answer::Accept : Answer::Reject;
}

Answer Listener::runCommand(const Push& push) {
    const auto deadline = m_deadline.value_or(Clock::now() + std::chrono::hours(24 * 365));
    std::optional<int> status;
    try {
        status = runPushCommand(m_options.command, m_options.appId, push, deadline);
    } catch (const std::system_error& error) {
        showFailure("--exec", {quilclient::kSystemError, error.what()});
        finish(kRefused);
        return Answer::Reject;
    }
    const bool isAccepted = status == 0;
    const std::string why = status ? "the command ended with status " + std::to_string(*status)
                                   : "the command did not end in time";
    if (push.senderWaits) {
        showAnswer(push.id, isAccepted, why);
    } else {
        show("command", why);
    }
    return isAccepted ? Answer::Accept : Answer::Reject;
}

bool Listener::save(const Push& push) {
    if (m_options.directory.empty()) {
        return true;
    }
    std::string error;
    const std::string name = savePush(m_options.directory, push, &error);
    if (name.empty()) {
        showFailure("push " + push.id, {quilclient::kSystemError, error});
        finish(kRefused);
        return false;
    }
    show("saved", "saved as " + m_options.directory + "/" + name + ".data");
    return true;
}

// --- Questions -----------------------------------------------------------------------------------

void Listener::askNext() {
    if (m_isInputOver) {
        while (!m_questions.empty()) {
            answerOldest(false);
        }
    } else if (!m_questions.empty()) {
        // A script that reads JSON from standard output still shows the question to its person.
        std::fprintf(stderr, "          accept push '%s'? [y/n] ",
                     visible(m_questions.front()).c_str());
        std::fflush(stderr);
    }
}

void Listener::readAnswer() {
    char buffer[256];
    const ssize_t count = read(STDIN_FILENO, buffer, sizeof buffer);
    if (count < 0 && errno == EINTR) {
        return;
    }
    if (count <= 0) {
        m_isInputOver = true;
        askNext();
        return;
    }
    m_typed.append(buffer, static_cast<std::size_t>(count));
    std::size_t end = m_typed.find('\n');
    while (end != std::string::npos && !m_questions.empty()) {
        const std::string line = m_typed.substr(0, end);
        m_typed.erase(0, end + 1);
        if (line == "y" || line == "yes" || line == "n" || line == "no") {
            answerOldest(line.front() == 'y');
        }
        askNext();
        end = m_typed.find('\n');
    }
}

void Listener::answerOldest(bool isAccepted) {
    const std::string id = m_questions.front();
    m_questions.pop_front();
    const Result result = isAccepted ? m_client.accept(id) : m_client.reject(id);
    if (result.ok()) {
        showAnswer(id, isAccepted, m_isInputOver ? "end of input" : "");
    } else {
        showFailure("push " + id, result);
    }
}

// --- Showing -------------------------------------------------------------------------------------

void Listener::show(const std::string& event, const std::string& words, const Result& result) {
    if (m_options.json) {
        nlohmann::ordered_json object = {{"event", event}, {"words", words}};
        if (!result.ok()) {
            addResult(object, result);
        }
        printJson(object);
        return;
    }
    std::printf("%s  %s\n", m_style.faint(timeOfDay()).c_str(), words.c_str());
    std::fflush(stdout);
}

void Listener::showAnswer(const std::string& id, bool isAccepted, const std::string& why) {
    const std::string word = isAccepted ? "accepted" : "rejected";
    if (m_options.json) {
        nlohmann::ordered_json object = {{"event", word}, {"id", id}};
        if (!why.empty()) {
            object["words"] = why;
        }
        printJson(object);
        return;
    }
    std::printf("          %s%s\n", (isAccepted ? m_style.good(word) : m_style.bad(word)).c_str(),
                why.empty() ? "" : (" (" + why + ")").c_str());
    std::fflush(stdout);
}

void Listener::showFailure(const std::string& what, const Result& result) {
    if (m_options.json) {
        nlohmann::ordered_json object = {{"event", "failure"}, {"what", what}};
        addResult(object, result);
        printJson(object);
    }
    printFailure(what, result);
}

void Listener::showTimeout() {
    if (!m_hadChannel && m_pushes == 0) {
        showFailure("listen", {quilclient::kTimedOut, "the time given with --timeout is over"});
        return;
    }
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%g second%s", *m_options.timeoutSeconds,
                  *m_options.timeoutSeconds == 1 ? "" : "s");
    const std::string words = m_pushes == 0 ? std::string("no push came in ") + seconds
                                            : std::to_string(m_pushes) +
                                                  (m_pushes == 1 ? " push" : " pushes") +
                                                  " came in " + seconds;
    if (m_options.json) {
        printJson({{"event", "failure"},
                   {"what", "listen"},
                   {"code", quilclient::kTimedOut},
                   {"words", words}});
    }
    std::fflush(stdout);
    std::fprintf(stderr, "%s listen: %s\n", Style(stderr).bad("quilctl:").c_str(), words.c_str());
}

}  // namespace

ExitStatus listen(const ListenOptions& options) {
    // The command may end without reading its input, and whoever reads our output may go away;
    // both show as errors of the writes concerned.
    signal(SIGPIPE, SIG_IGN);
    if (!options.directory.empty() && mkdir(options.directory.c_str(), 0755) != 0 &&
        errno != EEXIST) {
        printFailure("--save " + options.directory,
                     {quilclient::kSystemError, std::strerror(errno)});
        return kUsage;
    }
    Listener listener(options);
    return listener.run();
}
