#include "tools/quilctl/push_view.hpp"

#include <algorithm>
#include <cstdio>

#include "tools/quilctl/output.hpp"
#include "tools/quilctl/push_length.hpp"

namespace {

constexpr std::size_t kTextLines = 20;
constexpr std::size_t kDumpRows = 8;
constexpr std::size_t kRowBytes = 16;
constexpr const char* kIndent = "          ";  // as wide as the time in front of an event

std::string countOf(std::size_t count, const std::string& noun) {
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

// "5 bytes", or "2 of 5 bytes" of a push that came short.
std::string sizeOf(const quilclient::Push& push, const Style& style) {
    if (!isShort(push)) {
        return countOf(push.data.size(), "byte");
    }
    return style.bad(std::to_string(push.data.size()) + " of " +
                     std::to_string(*announcedBytes(push)) + " bytes");
}

std::string textLines(const std::string& data) {
    std::string out;
    std::size_t at = 0;
    for (std::size_t line = 0; at < data.size() && line < kTextLines; ++line) {
        const std::size_t end = std::min(data.find('\n', at), data.size());
        std::string text = data.substr(at, end - at);
        if (!text.empty() && text.back() == '\r') {
            text.pop_back();
        }
        out += std::string(kIndent) + "| " + visible(text) + "\n";
        at = end + 1;
    }
    if (at < data.size()) {
        out += kIndent + ("... " + countOf(data.size() - at, "more byte")) + "\n";
    }
    return out;
}

std::string dumpRow(const std::string& data, std::size_t at) {
    char number[32];
    std::snprintf(number, sizeof number, "%04zx ", at);
    std::string row = kIndent + std::string(number);
    std::string letters;
    for (std::size_t i = at; i < at + kRowBytes; ++i) {
        char hex[8] = "   ";
        if (i < data.size()) {
            const auto code = static_cast<unsigned char>(data[i]);
            std::snprintf(hex, sizeof hex, " %02x", static_cast<unsigned>(code));
            letters += code >= 0x20 && code < 0x7F ? data[i] : '.';
        }
        row += hex;
    }
    return row + "  " + letters + "\n";
}

std::string dump(const std::string& data) {
    std::string out;
    const std::size_t shown = std::min(data.size(), kDumpRows * kRowBytes);
    for (std::size_t at = 0; at < shown; at += kRowBytes) {
        out += dumpRow(data, at);
    }
    if (shown < data.size()) {
        out += kIndent + ("... " + countOf(data.size() - shown, "more byte")) + "\n";
    }
    return out;
}

}  // namespace

std::string describePush(const quilclient::Push& push, const Style& style) {
    std::string out = style.faint(timeOfDay()) + "  push '" + style.strong(visible(push.id)) +
                      "', " + sizeOf(push, style) +
                      (push.senderWaits ? ", sender waits" : ", nobody waits") + "\n";
    if (push.isDuplicate) {
        out += kIndent + style.warning("a push with this id came before") + "\n";
    }
    for (const quilclient::Header& header : push.headers) {
        out += kIndent + style.faint(visible(header.name) + ":") + visible(header.value) + "\n";
    }
    return out + (isReadable(push.data) ? textLines(push.data) : dump(push.data));
}

nlohmann::ordered_json pushAsJson(const quilclient::Push& push) {
    nlohmann::ordered_json headers = nlohmann::ordered_json::array();
    for (const quilclient::Header& header : push.headers) {
        headers.push_back({header.name, header.value});
    }
    nlohmann::ordered_json object = {{"event", "push"},
                                     {"id", push.id},
                                     {"senderWaits", push.senderWaits},
                                     {"duplicate", push.isDuplicate},
                                     {"headers", headers},
                                     {"bytes", push.data.size()}};
    if (const std::optional<std::uint64_t> announced = announcedBytes(push)) {
        object["announced"] = *announced;
    }
    object["short"] = isShort(push);
    object["data"] = encodeBase64(push.data);
    if (isReadable(push.data)) {
        object["text"] = push.data;
    }
    return object;
}
