#include "pushsim/send_command.hpp"

#include <ctime>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <vector>

#include "pushsim/files.hpp"
#include "pushsim/push.hpp"
#include "pushsim/readable.hpp"
#include "pushsim/registrations.hpp"
#include "pushsim/sender.hpp"

namespace {

constexpr const char* kSendFooter =
    "Exit status: 0 accepted (or sent, without --wait); 1 rejected: closed without a byte;\n"
    "2 bad arguments; 3 could not connect, or the connection broke; 4 not answered in time;\n"
    "5 an answer that is not the acknowledgement. With --repeat, that of the first push that\n"
    "was not 0.\n"
    "Without --wait the connection is closed together with the last byte: no acknowledgement.";

struct SendArguments {
    std::string first;  // PORT, or FILE with --app
    std::string second;
    std::string application;
    std::string state;
    std::string id;
    std::vector<std::string> headers;
    bool noContentLength = false;
    double timeoutSeconds = 30;
    std::size_t pauseMilliseconds = 0;
    bool raw = false;
    unsigned repeat = 1;
    bool json = false;
    bool verbose = false;
    SendOptions options;
};

std::uint16_t parsePort(const std::string& text) {
    const bool digits = !text.empty() && text.size() <= 5 &&
                        text.find_first_not_of("0123456789") == std::string::npos;
    const unsigned long port = digits ? std::stoul(text) : 0;
    if (port == 0 || port > 65535) {
        throw CLI::ValidationError("PORT", "\"" + text + "\" is no port (1 to 65535)");
    }
    return static_cast<std::uint16_t>(port);
}

std::uint16_t registeredPort(const SendArguments& arguments) {
    const auto ports = readStateFile(arguments.state);
    const auto found = ports.find(arguments.application);
    if (found == ports.end()) {
        throw CLI::ValidationError("--app", "\"" + readable(arguments.application) +
                                                "\" is not registered in " + arguments.state);
    }
    return found->second;
}

// The port, and the file in *file ("-" when none is named).
std::uint16_t resolvePort(const SendArguments& arguments, std::string* file) {
    const bool byName = !arguments.application.empty();
    if (!byName && arguments.first.empty()) {
        throw CLI::RequiredError("PORT, or --app with --state,");
    }
    if (byName && !arguments.second.empty()) {
        throw CLI::ExtrasError({arguments.second});
    }
    *file = byName ? arguments.first : arguments.second;
    if (file->empty()) {
        *file = "-";
    }
    return byName ? registeredPort(arguments) : parsePort(arguments.first);
}

std::string checkHeader(const std::string& header) {
    if (header.find_first_of("\r\n") != std::string::npos) {
        return "a header is one line";
    }
    const std::size_t colon = header.find(':');
    return colon == std::string::npos || colon == 0 ? "a header is written \"Name: value\"" : "";
}

std::string checkId(const std::string& id) {
    return id.find_first_of("\r\n") == std::string::npos ? "" : "an id is one line";
}

std::string madeId() {
    std::random_device random;
    std::string id = "pushsim-";
    constexpr std::string_view kDigits = "0123456789abcdef";
    for (int i = 0; i < 16; ++i) {
        id += kDigits[random() % kDigits.size()];
    }
    return id;
}

std::string makePush(const SendArguments& arguments, const std::string& input, std::string* id) {
    if (arguments.raw) {
        return input;
    }
    PushHead head;
    head.contentLength = !arguments.noContentLength;
    head.headers = arguments.headers;
    if (!arguments.id.empty()) {
        head.id = arguments.id;
    } else if (arguments.options.wait) {
        head.id = madeId();
    }
    *id = head.id.value_or("");
    return buildPush(head, input);
}

nlohmann::json toJson(const SendOptions& options, const SendResult& result, const std::string& id,
                      unsigned number) {
    nlohmann::json object = {{"push", number},
                             {"host", options.host},
                             {"port", options.port},
                             {"outcome", result.word},
                             {"exit", static_cast<int>(result.outcome)},
                             {"sentBytes", result.sentBytes},
                             {"milliseconds", result.took.count()}};
    if (!id.empty()) {
        object["id"] = id;
    }
    if (!result.detail.empty()) {
        object["detail"] = result.detail;
    }
    if (!result.answer.empty()) {
        object["answer"] = readable(result.answer);
        object["answerBytes"] = result.answer.size();
    }
    if (!result.acknowledgement.date.empty() && result.acknowledgement.isValid()) {
        object["date"] = result.acknowledgement.date;
    }
    return object;
}

std::string toText(const SendOptions& options, const SendResult& result, const std::string& id) {
    std::string text = result.word + ": " + std::to_string(result.sentBytes) + " bytes to " +
                       options.host + " port " + std::to_string(options.port);
    if (!id.empty()) {
        text += ", id \"" + readable(id) + "\"";
    }
    text += ", " + std::to_string(result.took.count()) + " ms";
    if (!result.detail.empty()) {
        text += "; " + result.detail;
    }
    text += "\n";
    if (!result.answer.empty()) {
        text += std::to_string(result.answer.size()) + " bytes came back:\n" +
                readableLines(result.answer, "  ");
    }
    return text;
}

void warn(const std::string& text) {
    std::cerr << "pushsim: warning: " << text << std::endl;
}

void warnAboutDate(const SendResult& result) {
    if (result.outcome == Outcome::Accepted && !result.acknowledgement.date.empty() &&
        daysFrom(result.acknowledgement.time, std::time(nullptr)) > 1.0) {
        warn("the acknowledgement's date, " + result.acknowledgement.date +
             ", is more than a day from this machine's clock");
    }
}

int sendOne(const SendArguments& arguments, const std::string& input, unsigned number) {
    std::string id;
    const std::string push = makePush(arguments, input, &id);
    if (number == 1) {
        for (const std::string& warning : pushWarnings(push)) {
            warn(warning);
        }
    }
    const SendResult result = sendPush(arguments.options, push);
    if (arguments.verbose) {
        std::cerr << readableLines(std::string_view(push).substr(0, result.sentBytes), "> ")
                  << readableLines(result.answer, "< ") << std::flush;
    }
    warnAboutDate(result);
    if (arguments.json) {
        using Json = nlohmann::json;
        std::cout << toJson(arguments.options, result, id, number)
                         .dump(-1, ' ', false, Json::error_handler_t::replace)
                  << std::endl;
    } else {
        std::cout << toText(arguments.options, result, id) << std::flush;
    }
    return static_cast<int>(result.outcome);
}

int runSend(SendArguments arguments) {
    std::string file;
    arguments.options.port = resolvePort(arguments, &file);
    arguments.options.timeout =
        std::chrono::milliseconds(static_cast<long>(arguments.timeoutSeconds * 1000));
    arguments.options.pause = std::chrono::milliseconds(arguments.pauseMilliseconds);
    const std::string input = readInput(file);
    int status = 0;
    for (unsigned number = 1; number <= arguments.repeat; ++number) {
        const int one = sendOne(arguments, input, number);
        status = status == 0 ? one : status;
    }
    return status;
}

void addTargetOptions(CLI::App* send, SendArguments* a) {
    send->add_option("PORT", a->first, "Where the device listens; left out with --app")
        ->type_name("");
    send->add_option("FILE", a->second, "The data of the push; - or nothing is standard input")
        ->type_name("");
    send->add_option("--host", a->options.host, "Address of the device")->capture_default_str();
    auto* app = send->add_option("--app", a->application,
                                 "Send to the port of this application, found in --state");
    auto* state = send->add_option("--state", a->state, "The state file of `pushsim serve`");
    app->needs(state)->type_name("ID");
    state->needs(app)->type_name("FILE");
}

void addPushOptions(CLI::App* send, SendArguments* a) {
    auto* id = send->add_option("--id", a->id,
                                "Value of \"Push-Message-ID\"; none without --wait, made up with");
    id->type_name("ID")->check(CLI::Validator(checkId, ""));
    auto* header = send->add_option("--header", a->headers, "A further header line; repeatable");
    header->type_name("\"Name: value\"")->expected(1)->take_all();
    header->check(CLI::Validator(checkHeader, ""));
    auto* bare = send->add_flag("--no-content-length", a->noContentLength,
                                "Leave the \"Content-Length\" line out");
    send->add_flag("--raw", a->raw, "The input is the whole push, sent as it stands")
        ->excludes(id, header, bare);
}

void addDeliveryOptions(CLI::App* send, SendArguments* a) {
    auto* wait = send->add_flag("--wait", a->options.wait,
                                "Keep the connection open and wait for the acknowledgement");
    send->add_option("--timeout", a->timeoutSeconds,
                     "Longest time to connect, to write, and to wait for the answer")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.001, 86400.0))
        ->capture_default_str();
    auto* split = send->add_option("--split", a->options.pieceBytes, "Write in pieces");
    split->type_name("BYTES")->check(CLI::Range(1, 1 << 30));
    send->add_option("--pause", a->pauseMilliseconds, "Pause between two pieces")
        ->type_name("MILLISECONDS")
        ->check(CLI::Range(0, 86400000))
        ->needs(split);
    send->add_option("--truncate", a->options.truncateAt, "Stop after so many bytes of the push")
        ->type_name("BYTES")
        ->check(CLI::Range(0, 1 << 30));
    send->add_flag("--reset", a->options.reset, "End the connection with a reset (RST)")
        ->excludes(wait);
    send->add_option("--repeat", a->repeat, "Send so many pushes, one after the other")
        ->type_name("N")
        ->check(CLI::Range(1, 1000000))
        ->capture_default_str();
    send->add_flag("--json", a->json, "One JSON object per push");
    send->add_flag("-v,--verbose", a->verbose,
                   "Show the bytes of both directions on standard error");
}

}  // namespace

void addSendCommands(CLI::App* program, int* status) {
    auto arguments = std::make_shared<SendArguments>();
    CLI::App* send = program->add_subcommand("send", "Send a push to a device");
    send->footer(kSendFooter);
    addTargetOptions(send, arguments.get());
    addPushOptions(send, arguments.get());
    addDeliveryOptions(send, arguments.get());
    send->callback([arguments, status] { *status = runSend(*arguments); });
    CLI::App* example = program->add_subcommand(
        "example", "Print an example push of 65 bytes, for `pushsim send --raw PORT -`");
    example->callback([status] {
        std::cout << examplePush() << std::flush;
        *status = std::cout ? 0 : 3;
    });
}
