#include "tools/quilctl/output.hpp"

#include <cmath>
#include <cstdio>
#include <ctime>

#include "tools/common/terminal.hpp"

using quilclient::Result;

ExitStatus exitStatusOf(const Result& result) {
    switch (result.code) {
        case quilclient::kOk:
            return kDone;
        case quilclient::kNoObjectService:
        case quilclient::kNoAgent:
        case quilclient::kObjectInTheWay:
        case quilclient::kConnectionLost:
        case quilclient::kNoPermission:
        case quilclient::kNotConnected:
            return kNotThere;
        case quilclient::kTimedOut:
            return kTimeout;
        case quilclient::kBadArgument:
            return kUsage;
        default:
            return kRefused;
    }
}

void printJson(const nlohmann::ordered_json& object) {
    const std::string line =
        object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

void printFailure(const std::string& subject, const Result& result) {
    std::fflush(stdout);
    const Style style(stderr);
    const std::string words =
        subject + ": " + result.words + " (code " + std::to_string(result.code) + ")";
    std::fprintf(stderr, "%s %s\n", style.bad("quilctl:").c_str(),
                 wrapped(visible(words), 9, 9).c_str());
    std::fprintf(stderr, "   next: %s\n",
                 wrapped(quilclient::explain(result.code).nextStep, 9, 9).c_str());
}

void printTrouble(const std::string& words, const std::string& next) {
    const Style style(stderr);
    std::fprintf(stderr, "%s %s\n   next: %s\n", style.bad("quilctl:").c_str(),
                 visible(words).c_str(), next.c_str());
}

void addResult(nlohmann::ordered_json& object, const Result& result) {
    object["code"] = result.code;
    if (!result.ok()) {
        const quilclient::CodeInfo info = quilclient::explain(result.code);
        object["words"] = result.words;
        object["origin"] = info.origin;
        object["next"] = info.nextStep;
    }
}

std::string clockText(const std::optional<double>& seconds) {
    constexpr double kDay = 86400;
    if (!seconds) {
        return "--:--:--.---";
    }
    const auto milliseconds = static_cast<long>(std::floor(std::fmod(*seconds, kDay) * 1000 + 0.5));
    char text[32];
    std::snprintf(text, sizeof text, "%02ld:%02ld:%02ld.%03ld", milliseconds / 3600000 % 24,
                  milliseconds / 60000 % 60, milliseconds / 1000 % 60, milliseconds % 1000);
    return text;
}

std::string timeOfDay() {
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    localtime_r(&now, &parts);
    char text[16];
    std::strftime(text, sizeof text, "%H:%M:%S", &parts);
    return text;
}

std::chrono::milliseconds asMilliseconds(double seconds) {
    constexpr double kMilliseconds = 1000;
    return std::chrono::milliseconds(static_cast<std::int64_t>(std::ceil(seconds * kMilliseconds)));
}
