#include "pushsim/serve_command.hpp"

#include <signal.h>

#include <charconv>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>

#include "pushsim/files.hpp"
#include "pushsim/http_server.hpp"

namespace {

constexpr const char* kServeFooter =
    "Without options the exchange is healthy: the first answer holds \"param=...\", the second\n"
    "\"rc=200\" and, for a registration, the header \"vex-device-ovra-port\".\n"
    "Exit status: 0 ended by SIGTERM or SIGINT; 1 could not listen, or a file could not be read\n"
    "or written; 2 bad arguments.";

struct ServeArguments {
    std::string listen = "127.0.0.1:0";
    std::string portFile;
    std::string ports = "4400-4499";
    std::string state;
    double delaySeconds = 0;
    bool hang = false;
    bool close = false;
    bool garbage = false;
    bool log = false;
    bool json = false;
    AnswerOptions answers;
};

struct Endpoint {
    std::string address;
    std::uint16_t port = 0;
};

// ADDRESS:PORT, the address of IPv6 in brackets.
bool parseEndpoint(const std::string& text, Endpoint* endpoint) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0) {
        return false;
    }
    endpoint->address = text.substr(0, colon);
    if (endpoint->address.front() == '[' && endpoint->address.back() == ']') {
        endpoint->address = endpoint->address.substr(1, endpoint->address.size() - 2);
    }
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data() + colon + 1, end, endpoint->port);
    return error == std::errc() && stop == end && !endpoint->address.empty();
}

std::string checkEndpoint(const std::string& text) {
    Endpoint endpoint;
    return parseEndpoint(text, &endpoint) ? "" : "an address is written ADDRESS:PORT";
}

std::string checkPorts(const std::string& text) {
    PortRange range;
    return parsePortRange(text, &range) ? "" : "ports are written FROM-TO, each 1 to 65535";
}

std::string checkHeaderValue(const std::string& text) {
    return text.find_first_of("\r\n") == std::string::npos ? "" : "a header is one line";
}

// The signals that end the server, held back in every thread that is started from now on: only
// sigwait takes them.
sigset_t holdEndSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

void serve(const ServeArguments& arguments) {
    const sigset_t endSignals = holdEndSignals();
    Endpoint endpoint;
    parseEndpoint(arguments.listen, &endpoint);
    PortRange range;
    parsePortRange(arguments.ports, &range);

    Registrations registrations(range, arguments.state);
    Answers answers(arguments.answers);
    const LogForm quiet = arguments.log ? LogForm::Text : LogForm::None;
    RequestLog log(arguments.json ? LogForm::Json : quiet, &std::cout);
    RegistrationService service(arguments.answers.oneStep, &answers, &registrations, &log);
    HttpServer server(&service);

    std::string error;
    const std::uint16_t port = server.bindTo(endpoint.address, endpoint.port, &error);
    if (port == 0) {
        throw std::runtime_error("cannot listen on " + arguments.listen + ": " + error);
    }
    if (!server.startServing()) {
        throw std::runtime_error("cannot serve on " + arguments.listen);
    }
    if (!arguments.portFile.empty()) {
        replaceFile(arguments.portFile, std::to_string(port) + "\n");
    }
    log.listening(endpoint.address, port);
    int received = 0;
    sigwait(&endSignals, &received);
    server.stopServing();
}

int runServe(ServeArguments* arguments) {
    AnswerOptions& answers = arguments->answers;
    answers.delay = std::chrono::milliseconds(static_cast<long>(arguments->delaySeconds * 1000));
    if (arguments->hang) {
        answers.wire = Wire::Hang;
    } else if (arguments->close) {
        answers.wire = Wire::Close;
    } else if (arguments->garbage) {
        answers.wire = Wire::Garbage;
    }
    try {
        serve(*arguments);
        return 0;
    } catch (const std::runtime_error& error) {
        std::cerr << "pushsim: " << error.what() << std::endl;
        return 1;
    }
}

void addPlaceOptions(CLI::App* app, ServeArguments* a) {
    app->add_option("--listen", a->listen, "Where to listen; port 0 lets the kernel choose")
        ->type_name("ADDRESS:PORT")
        ->check(CLI::Validator(checkEndpoint, ""))
        ->capture_default_str();
    app->add_option("--port-file", a->portFile, "Write the port of the server to this file")
        ->type_name("FILE");
    app->add_option("--ports", a->ports,
                    "The ports to hand out; one that is taken on this machine is skipped")
        ->type_name("FROM-TO")
        ->check(CLI::Validator(checkPorts, ""))
        ->capture_default_str();
    app->add_option("--state", a->state,
                    "Keep the registered applications and their ports in this file, as JSON; "
                    "those that it holds at the start stay registered")
        ->type_name("FILE");
    app->add_flag("--log", a->log, "One line per request on standard output");
    app->add_flag("--json", a->json, "The same, one JSON object per line");
}

void addAnswerOptions(CLI::App* app, AnswerOptions* a) {
    const CLI::Range anyCode(0, 999999999);
    app->add_flag("--one-step", a->oneStep, "The first answer ends the exchange");
    app->add_option("--rc", a->returnCode, "Return code that ends a registration")
        ->type_name("CODE")
        ->check(anyCode);
    app->add_option("--fail-deregister", a->deregisterCode,
                    "Return code that ends a deregistration")
        ->type_name("CODE")
        ->check(anyCode);
    app->add_option("--first-body", a->firstBody, "Body of the first answer, any text")
        ->type_name("TEXT");
    app->add_option("--second-body", a->secondBody, "Body of the second answer, any text")
        ->type_name("TEXT");
    auto* text = app->add_option("--port-header", a->portText,
                                 "Any text in the port header instead of the port");
    text->type_name("TEXT")->check(CLI::Validator(checkHeaderValue, ""));
    app->add_flag("--no-port-header", a->noPortHeader, "No port header")->excludes(text);
}

void addMisbehaviourOptions(CLI::App* app, ServeArguments* a) {
    app->add_option("--status", a->answers.status, "HTTP status instead of 200")
        ->type_name("CODE")
        ->check(CLI::Range(200, 599));
    app->add_option("--delay", a->delaySeconds, "Answer so much later")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.0, 86400.0));
    app->add_option("--big-body", a->answers.bodyBytes, "Fill the body up to so many bytes")
        ->type_name("BYTES")
        ->check(CLI::Range(1, 1 << 30));
    auto* hang = app->add_flag("--hang", a->hang, "Accept and never answer");
    auto* close = app->add_flag("--close", a->close, "Close without an answer");
    auto* garbage = app->add_flag("--garbage", a->garbage, "Answer with bytes that are no HTTP");
    hang->excludes(close, garbage);
    close->excludes(garbage);
    app->add_option("--at-step", a->answers.onlyStep,
                    "Limit --status, --delay, --big-body, --hang, --close and --garbage to the "
                    "first or the second step")
        ->type_name("1|2")
        ->check(CLI::IsMember({1, 2}));
    app->add_option("--times", a->answers.times,
                    "Misbehave at most so often; every further answer is a healthy one")
        ->type_name("N")
        ->check(CLI::Range(0, 1000000000));
}

}  // namespace

void addServeCommand(CLI::App* program, int* status) {
    auto arguments = std::make_shared<ServeArguments>();
    CLI::App* app = program->add_subcommand("serve", "Be the push data server");
    app->footer(kServeFooter);
    addPlaceOptions(app, arguments.get());
    addAnswerOptions(app, &arguments->answers);
    addMisbehaviourOptions(app, arguments.get());
    app->callback([arguments, status] { *status = runServe(arguments.get()); });
}
