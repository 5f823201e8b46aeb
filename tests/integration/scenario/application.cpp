// An application with the client library in C++ that does what it is told on its standard input, a
// line each, and tells on its standard output what its handlers were told. application.py is the
// same in Python.
//
// Usage: scenario_application APP PPG-URL
//        scenario_application          (tells the codes that the library knows)
//
//     answer accept|reject|later|throw     how to answer pushes from now on; at first "accept"
//     accept ID, reject ID                 the blank of an id that begins with one is there twice
//     launch TEXT, unlaunch, destroy, create
//     stop
//
// Here each command ends run() by stop() from another thread, is carried out, and run() goes on.

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <deque>
#include <iostream>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>

#include "quilclient/push_client.hpp"

namespace {

using namespace quilclient;

PushClient* g_client = nullptr;
std::atomic<bool> g_isTerminated{false};

void onTerminate(int) {
    g_isTerminated = true;
    g_client->stop();
}

// Lines of the standard input, as they come.
class Commands {
  public:
    void readAll() {
        for (std::string line; std::getline(std::cin, line);) {
            const std::lock_guard<std::mutex> guard(m_lock);
            m_lines.push_back(line);
            g_client->stop();
        }
    }
    bool take(std::string* line) {
        const std::lock_guard<std::mutex> guard(m_lock);
        if (m_lines.empty()) {
            return false;
        }
        *line = m_lines.front();
        m_lines.pop_front();
        return true;
    }

  private:
    std::mutex m_lock;
    std::deque<std::string> m_lines;
};

void tell(const std::string& line) {
    std::cout << line << std::endl;
}

std::string numbered(const std::string& word, const Result& result) {
    return word + " " + std::to_string(result.code);
}

Handlers makeHandlers(const std::string& answer) {
    Handlers handlers;
    handlers.onPush = [&answer](const Push& push) {
        std::string line = "push " + push.id + (push.senderWaits ? " waits" : "") +
                           (push.isDuplicate ? " duplicate" : "") + " [" + push.data + "]";
        for (const Header& header : push.headers) {
            line += " " + header.name + "=" + header.value;
        }
        tell(line);
        if (answer == "throw") {
            throw std::runtime_error("no disk");
        }
        return answer == "accept"   ? Answer::Accept
               : answer == "reject" ? Answer::Reject
                                    : Answer::Later;
    };
    handlers.onChannel = [](const Result& result, const std::string& token) {
        tell(numbered("channel", result) + " " + token);
    };
    handlers.onConnection = [](const Result& result) { tell(numbered("connection", result)); };
    handlers.onSimChange = [] { tell("sim change"); };
    handlers.onLaunch = [](const Result& result) { tell(numbered("launch", result)); };
    handlers.onChannelDestroyed = [](const Result& result) { tell(numbered("destroyed", result)); };
    handlers.onNotice = [](const std::string& words) { tell("notice " + words); };
    return handlers;
}

// What the words before and behind the first blank ask for. False for "stop".
bool carryOut(PushClient& client, const std::string& line, std::string* answer) {
    const std::string verb = line.substr(0, line.find(' '));
    const std::string argument = line.size() > verb.size() ? line.substr(verb.size() + 1) : "";
    Result result;
    if (verb == "answer") {
        *answer = argument;
    } else if (verb == "accept") {
        result = client.accept(argument);
    } else if (verb == "reject") {
        result = client.reject(argument);
    } else if (verb == "launch") {
        result = client.setLaunchString(argument);
    } else if (verb == "unlaunch") {
        result = client.clearLaunchString();
    } else if (verb == "destroy") {
        result = client.destroyChannel();
    } else if (verb == "create") {
        result = client.createChannel();
    }
    tell(result.ok() ? "done " + verb : numbered("refused", result));
    return verb != "stop";
}

int live(PushClient& client, Commands& commands, std::string* answer) {
    while (!g_isTerminated) {
        const Result result = client.run();
        if (result.code == kHandlerThrew) {
            tell("thrown " + result.words);
        } else if (!result.ok()) {
            tell(numbered("ended", result) + " " + result.words);
            return 1;
        }
        for (std::string line; commands.take(&line);) {
            if (!carryOut(client, line, answer)) {
                return 0;
            }
        }
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        for (const CodeInfo& info : knownCodes()) {
            tell(std::to_string(info.code) + " " + std::string(info.meaning));
        }
        return 0;
    }
    Config config;
    config.appId = argv[1];
    config.ppgUrl = argv[2];
    std::string answer = "accept";
    PushClient client(config, makeHandlers(answer));
    g_client = &client;
    std::signal(SIGTERM, onTerminate);
    Commands commands;
    std::thread([&commands] { commands.readAll(); }).detach();
    // Not by return: the thread waits for a line that may never come.
    std::_Exit(live(client, commands, &answer));
}
