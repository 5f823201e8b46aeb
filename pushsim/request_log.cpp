#include "pushsim/request_log.hpp"

#include <array>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>

#include "pushsim/readable.hpp"

namespace {

using Json = nlohmann::json;

constexpr std::size_t kShownBodyBytes = 80;

// Local time with milliseconds: 2026-11-21T02:24:44.123
std::string now() {
    const auto time = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    std::tm local{};
    localtime_r(&seconds, &local);
    std::array<char, 32> date{};
    const std::size_t length = std::strftime(date.data(), date.size(), "%Y-%m-%dT%H:%M:%S", &local);
    const auto milliseconds =
        std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count() %
        1000;
    std::array<char, 8> fraction{};
    std::snprintf(fraction.data(), fraction.size(), ".%03d", static_cast<int>(milliseconds));
    return std::string(date.data(), length) + fraction.data();
}

const char* wireName(Wire wire) {
    switch (wire) {
        case Wire::Hang:
            return "hang";
        case Wire::Close:
            return "close";
        case Wire::Garbage:
            return "garbage";
        case Wire::Reply:
            break;
    }
    return "reply";
}

std::string answerText(const LogEntry& entry) {
    const Answer& answer = entry.answer;
    std::string text;
    if (answer.wire != Wire::Reply) {
        text = wireName(answer.wire);
    } else {
        text = std::to_string(answer.status) + " \"" + readableStart(answer.body, kShownBodyBytes) +
               "\"";
        if (!entry.portText.empty()) {
            text += " port " + readable(entry.portText);
        }
    }
    if (answer.delay.count() > 0) {
        text += " after " + std::to_string(answer.delay.count()) + " ms";
    }
    return text;
}

std::string humanLine(const LogEntry& entry) {
    if (entry.step == 0) {
        return now() + " unknown request " + readable(entry.target) + " -> " + answerText(entry);
    }
    return now() + " " + entry.kind + " step " + std::to_string(entry.step) + " " +
           readable(entry.application) + " -> " + answerText(entry) +
           (entry.unknownParameter ? " (the parameter is not that of the first answer)" : "");
}

Json jsonObject(const LogEntry& entry) {
    Json object = {{"event", "request"},
                   {"time", now()},
                   {"kind", entry.kind},
                   {"step", entry.step},
                   {"application", entry.application},
                   {"target", entry.target},
                   {"answer", wireName(entry.answer.wire)},
                   {"delayMilliseconds", entry.answer.delay.count()}};
    if (entry.answer.wire == Wire::Reply) {
        object["status"] = entry.answer.status;
        object["body"] = readableStart(entry.answer.body, kShownBodyBytes);
        object["portHeader"] = entry.portText;
    }
    if (entry.step == 2) {
        object["knownParameter"] = !entry.unknownParameter;
    }
    return object;
}

std::string dump(const Json& object) {
    return object.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace

void RequestLog::listening(const std::string& address, std::uint16_t port) {
    if (m_form == LogForm::Json) {
        write(dump({{"event", "listening"}, {"address", address}, {"port", port}}));
    } else {
        write("listening on " + address + " port " + std::to_string(port));
    }
}

void RequestLog::request(const LogEntry& entry) {
    if (m_form != LogForm::None) {
        write(m_form == LogForm::Json ? dump(jsonObject(entry)) : humanLine(entry));
    }
}

void RequestLog::write(const std::string& line) {
    const std::lock_guard lock(m_mutex);
    *m_stream << line << std::endl;
}
