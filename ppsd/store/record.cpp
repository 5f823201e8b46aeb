// The first line holds the checksum of all that follows. A file that was cut short, torn or edited
// by accident therefore never passes for an object, whatever its lines look like.

#include "ppsd/store/record.hpp"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <unordered_set>
#include <vector>

namespace {

constexpr std::string_view kMagic = "ppsd-record 1 ";
constexpr std::string_view kUnchecked = "unchecked";
constexpr long kNanosecondsPerSecond = 1000000000;

// FNV-1a, 64 bits, as 16 hexadecimal digits. It guards against accidents, not against malice:
// whoever may write to the store may write anything.
std::string checksum(std::string_view text) {
    std::uint64_t hash = 0xcbf29ce484222325U;
    for (const char byte : text) {
        hash = (hash ^ static_cast<unsigned char>(byte)) * 0x100000001b3U;
    }
    char digits[17];
    std::snprintf(digits, sizeof digits, "%016llx", static_cast<unsigned long long>(hash));
    return digits;
}

// Cuts the first line off `text`. False when no line feed is left.
bool takeLine(std::string_view& text, std::string_view& line) {
    const std::size_t feed = text.find('\n');
    if (feed == std::string_view::npos) {
        return false;
    }
    line = text.substr(0, feed);
    text.remove_prefix(feed + 1);
    return true;
}

template <typename Number>
bool parseNumber(std::string_view digits, Number& number, int base) {
    const char* end = digits.data() + digits.size();
    const auto result = std::from_chars(digits.data(), end, number, base);
    return result.ec == std::errc() && result.ptr == end;
}

// Takes the line "key number" off `text`.
template <typename Number>
bool takeNumber(std::string_view& text, std::string_view key, Number& number, int base = 10) {
    std::string_view line;
    if (!takeLine(text, line) || line.size() <= key.size() || !line.starts_with(key) ||
        line[key.size()] != ' ') {
        return false;
    }
    return parseNumber(line.substr(key.size() + 1), number, base);
}

bool takeMetadata(std::string_view& text, Metadata& metadata) {
    return takeNumber(text, "owner", metadata.owner) && takeNumber(text, "group", metadata.group) &&
           takeNumber(text, "mode", metadata.mode, 8) && (metadata.mode & ~07777U) == 0 &&
           takeNumber(text, "modified-seconds", metadata.modified.tv_sec) &&
           takeNumber(text, "modified-nanoseconds", metadata.modified.tv_nsec) &&
           metadata.modified.tv_nsec >= 0 && metadata.modified.tv_nsec < kNanosecondsPerSecond;
}

bool areAttributes(std::string_view text) {
    std::vector<AttributeChange> changes;
    if (parseChanges(text, ObjectLines::kRefused, changes) != 0) {
        return false;
    }
    std::unordered_set<std::string_view> names;
    return std::all_of(changes.begin(), changes.end(), [&](const AttributeChange& change) {
        return !change.removes && names.insert(change.name).second;
    });
}

}  // namespace

std::string encodeRecord(const Record& record) {
    const Metadata& metadata = record.metadata;
    char head[256];
    std::snprintf(head, sizeof head,
                  "owner %lu\ngroup %lu\nmode %04o\nmodified-seconds %lld\n"
                  "modified-nanoseconds %ld\n\n",
                  static_cast<unsigned long>(metadata.owner),
                  static_cast<unsigned long>(metadata.group), metadata.mode & 07777U,
                  static_cast<long long>(metadata.modified.tv_sec), metadata.modified.tv_nsec);
    const std::string body = head + record.lines;
    return std::string(kMagic).append(checksum(body)).append(1, '\n').append(body);
}

bool decodeRecord(std::string_view text, Record& record, std::string& error) {
    std::string_view line;
    if (!takeLine(text, line) || !line.starts_with(kMagic)) {
        error = "the first line is not that of a record";
        return false;
    }
    const std::string_view sum = line.substr(kMagic.size());
    if (sum != kUnchecked && sum != checksum(text)) {
        error = "the checksum is wrong";
        return false;
    }
    if (!takeMetadata(text, record.metadata) || !takeLine(text, line) || !line.empty()) {
        error = "owner, group, mode or time is missing or wrong";
        return false;
    }
    if (!areAttributes(text)) {
        error = "an attribute line is malformed or occurs twice";
        return false;
    }
    record.lines = text;
    return true;
}
