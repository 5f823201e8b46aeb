// An application with the client library: prints each push and accepts it, unless
// it came short. Session and channel come back by themselves when the agent or the object service
// was restarted, and with them the pushes that came meanwhile.
//
// Usage: example_listen APP PPG-URL

#include <csignal>
#include <cstdlib>
#include <iostream>

#include "quilclient/push_client.hpp"

namespace {

quilclient::PushClient* g_client = nullptr;

void onSignal(int) {
    g_client->stop();
}

// How much data the push ought to have; 0 when its sender does not say.
unsigned long long announced(const quilclient::Push& push) {
    unsigned long long bytes = 0;
    for (const quilclient::Header& header : push.headers) {
        if (header.name == "Content-Length") {
            bytes = std::strtoull(header.value.c_str(), nullptr, 10);
        }
    }
    return bytes;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::cerr << "Usage: example_listen APP PPG-URL\n";
        return 2;
    }
    quilclient::Config config;
    config.appId = argv[1];
    config.ppgUrl = argv[2];

    quilclient::Handlers handlers;
    handlers.onChannel = [](const quilclient::Result& result, const std::string& token) {
        std::cout << (result.ok() ? "channel " + token : "no channel: " + result.words)
                  << std::endl;
    };
    handlers.onPush = [](const quilclient::Push& push) {
        if (push.data.size() < announced(push)) {  // it broke off
            std::cout << "short push" << push.id << ": " << push.data.size() << " of "
                      << announced(push) << " bytes" << std::endl;
            return quilclient::Answer::Reject;
        }
        std::cout << "push" << push.id << ": " << push.data << std::endl;
        // One that was handed over before is accepted again: its sender missed the first answer.
        return quilclient::Answer::Accept;
    };

    handlers.onConnection = [](const quilclient::Result& result) {
        if (!result.ok()) {
            std::cerr << "waiting for the agent: " << result.words << std::endl;
        }
    };
    handlers.onSimChange = [] { std::cout << "another SIM" << std::endl; };

    quilclient::PushClient client(config, handlers);
    g_client = &client;
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
    const quilclient::Result result = client.run();
    if (!result.ok()) {
        std::cerr << result.words << std::endl;
    }
    return result.ok() ? 0 : 1;
}
