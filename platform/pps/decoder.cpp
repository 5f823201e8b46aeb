// Text becomes a tree of values once, at the parse; a stack of frames then walks the tree. A frame
// without a value stands for a push that failed, so pushes and pops always pair up, whatever the
// text holds. JSON is parsed by nlohmann's event parser into our own tree, which keeps order and
// equal keys.

#include "platform/pps/decoder.hpp"

#include <charconv>
#include <climits>
#include <nlohmann/json.hpp>
#include <optional>

#include "platform/pps/ppsparse.hpp"
#include "platform/pps/text.hpp"

struct pps_value_t {
    enum Kind { Null, Bool, Integer, Real, String, Object, Array } kind = Null;
    std::string name;          // key within the parent
    std::string text;          // a string's bytes, a number or boolean as written
    std::int64_t integer = 0;  // of an Integer; 0 or 1 for a Bool
    std::vector<pps_value_t> children;
};

namespace {

using Value = pps_value_t;

bool isContainer(const Value& value) {
    return value.kind == Value::Object || value.kind == Value::Array;
}

// Receives the events of the JSON parser and builds the tree. Any event that returns false stops
// the parse.
class TreeBuilder : public nlohmann::json_sax<nlohmann::json> {
  public:
    bool null() override { return add(Value::Null, "null", 0); }
    bool boolean(bool value) override {
        return add(Value::Bool, value ? "true" : "false", value ? 1 : 0);
    }
    bool number_integer(number_integer_t value) override {
        return add(Value::Integer, std::to_string(value), value);
    }
    bool number_unsigned(number_unsigned_t value) override {
        const bool fits = value <= static_cast<number_unsigned_t>(INT64_MAX);
        return add(fits ? Value::Integer : Value::Real, std::to_string(value),
                   fits ? static_cast<std::int64_t>(value) : 0);
    }
    bool number_float(number_float_t, const string_t& text) override {
        return add(Value::Real, text, 0);
    }
    bool string(string_t& value) override { return add(Value::String, value, 0); }
    bool binary(binary_t&) override { return false; }
    bool start_object(std::size_t) override { return open(Value::Object); }
    bool end_object() override { return close(); }
    bool start_array(std::size_t) override { return open(Value::Array); }
    bool end_array() override { return close(); }
    bool key(string_t& name) override {
        m_key = name;
        return true;
    }
    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override {
        return false;
    }

    std::optional<Value> takeRoot() { return std::move(m_root); }

  private:
    bool add(Value::Kind kind, std::string text, std::int64_t integer) {
        Value value;
        value.kind = kind;
        value.text = std::move(text);
        value.integer = integer;
        return attach(std::move(value));
    }

    bool attach(Value value) {
        if (m_open.empty()) {
            m_root = std::move(value);
            return true;
        }
        value.name = m_open.back().kind == Value::Object ? m_key : "";
        m_open.back().children.push_back(std::move(value));
        return true;
    }

    bool open(Value::Kind kind) {
        if (m_open.size() == PPS_MAX_DEPTH) {
            return false;
        }
        Value value;
        value.kind = kind;
        value.name = m_key;
        m_open.push_back(std::move(value));
        return true;
    }

    bool close() {
        Value value = std::move(m_open.back());
        m_open.pop_back();
        m_key = std::move(value.name);
        return attach(std::move(value));
    }

    std::string m_key;
    std::vector<Value> m_open;
    std::optional<Value> m_root;
};

std::optional<Value> parseJson(std::string_view text) {
    TreeBuilder builder;
    if (!nlohmann::json::sax_parse(text.begin(), text.end(), &builder)) {
        return std::nullopt;
    }
    std::optional<Value> root = builder.takeRoot();
    return root && isContainer(*root) ? std::move(root) : std::nullopt;
}

std::optional<Value> parseNumber(std::string_view text) {
    std::optional<Value> value(std::in_place);
    value->text = text;
    const char* end = text.data() + text.size();
    const auto asInteger = std::from_chars(text.data(), end, value->integer);
    if (asInteger.ec == std::errc() && asInteger.ptr == end) {
        value->kind = Value::Integer;
        return value;
    }
    // The library would take "inf" and "nan" as well, which are no numbers of object text.
    if (text.find_first_not_of("0123456789+-.eE") != std::string_view::npos) {
        return std::nullopt;
    }
    double real = 0;
    const auto asReal = std::from_chars(text.data(), end, real);
    const bool isNumber =
        asReal.ptr == end && !text.empty() && asReal.ec != std::errc::invalid_argument;
    value->kind = Value::Real;
    return isNumber ? std::move(value) : std::nullopt;
}

std::optional<Value> parseBool(std::string_view text) {
    if (text != "true" && text != "false") {
        return std::nullopt;
    }
    std::optional<Value> value(std::in_place);
    value->kind = Value::Bool;
    value->text = text;
    value->integer = text == "true" ? 1 : 0;
    return value;
}

// The value of one attribute line; nothing when it does not fit its encoding or the encoding is
// unknown.
std::optional<Value> parseAttribute(const pps_line_t& line) {
    if (line.encoding.empty() || line.encoding == "c") {
        std::optional<Value> value(std::in_place);
        value->kind = Value::String;
        value->text = line.encoding.empty() ? std::string(line.value) : ppsUnescapeC(line.value);
        return value;
    }
    if (line.encoding == "n") {
        return parseNumber(line.value);
    }
    if (line.encoding == "b") {
        return parseBool(line.value);
    }
    return line.encoding == "json" ? parseJson(line.value) : std::nullopt;
}

const Value* findByName(const Value& object, std::string_view name) {
    for (auto child = object.children.rbegin(); child != object.children.rend(); ++child) {
        if (child->name == name) {
            return &*child;
        }
    }
    return nullptr;
}

// What a push or get with `name` means at the present level; null when there is no such thing.
const Value* find(pps_decoder_t* decoder, const char* name) {
    if (decoder->m_frames.empty()) {
        return name == nullptr && decoder->m_hasObject ? decoder->m_object.get() : nullptr;
    }
    pps_decoder_t::Frame& frame = decoder->m_frames.back();
    if (frame.value == nullptr) {
        return nullptr;
    }
    if (frame.value->kind == Value::Object) {
        return name == nullptr ? nullptr : findByName(*frame.value, name);
    }
    if (name != nullptr || frame.next >= frame.value->children.size()) {
        return nullptr;
    }
    return &frame.value->children[frame.next++];
}

// Takes in one line. Returns whether it was well-formed here.
bool takeLine(pps_decoder_t* decoder, pps_result_t result, const pps_line_t& line, bool isFirst) {
    switch (result) {
        case PPS_OBJECT:
        case PPS_OBJECT_CREATED:
        case PPS_OBJECT_DELETED:
            if (!isFirst) {
                return false;
            }
            decoder->m_name = line.name;
            decoder->m_flags = result == PPS_OBJECT_CREATED   ? PPS_FLAG_CREATED
                               : result == PPS_OBJECT_DELETED ? PPS_FLAG_DELETED
                                                              : 0U;
            decoder->m_hasObject = true;
            return true;
        case PPS_ATTRIBUTE:
        case PPS_ATTRIBUTE_CODED: {
            std::optional<Value> value = parseAttribute(line);
            if (!value) {
                return false;
            }
            value->name = line.name;
            decoder->m_object->children.push_back(std::move(*value));
            decoder->m_hasObject = true;
            return true;
        }
        case PPS_ATTRIBUTE_REMOVED:
            return true;
        default:
            return false;
    }
}

bool parseText(pps_decoder_t* decoder, std::string_view text) {
    // A last line without its line feed counts as a line here.
    std::string complete(text);
    if (!complete.empty() && complete.back() != '\n') {
        complete += '\n';
    }
    const char* cursor = complete.data();
    const char* end = cursor + complete.size();
    bool isSound = true;
    bool isFirst = true;
    for (;;) {
        pps_line_t line;
        const pps_result_t result = ppsparse(&cursor, end, &line);
        if (result == PPS_END) {
            return isSound;
        }
        isSound = takeLine(decoder, result, line, isFirst) && isSound;
        isFirst = false;
    }
}

}  // namespace

pps_decoder_t::pps_decoder_t() = default;
pps_decoder_t::~pps_decoder_t() = default;

pps_decoder_error_t pps_decoder_initialize(pps_decoder_t* decoder, const char* text) {
    return pps_decoder_parse_pps_str(decoder, text);
}

pps_decoder_error_t pps_decoder_parse_pps_str(pps_decoder_t* decoder, const char* text) {
    pps_decoder_cleanup(decoder);
    decoder->m_object = std::make_unique<Value>();
    decoder->m_object->kind = Value::Object;
    const bool isSound = parseText(decoder, text == nullptr ? "" : text);
    return isSound ? PPS_DECODER_OK : PPS_DECODER_PARSE_ERROR;
}

void pps_decoder_cleanup(pps_decoder_t* decoder) {
    decoder->m_name.clear();
    decoder->m_flags = 0;
    decoder->m_hasObject = false;
    decoder->m_frames.clear();
    decoder->m_object.reset();
}

const char* pps_decoder_name(const pps_decoder_t* decoder) {
    return decoder->m_name.c_str();
}

unsigned pps_decoder_flags(const pps_decoder_t* decoder) {
    return decoder->m_flags;
}

int pps_decoder_length(const pps_decoder_t* decoder) {
    if (decoder->m_frames.empty()) {
        return decoder->m_hasObject ? 1 : 0;
    }
    const Value* value = decoder->m_frames.back().value;
    return value == nullptr ? 0 : static_cast<int>(value->children.size());
}

pps_decoder_error_t pps_decoder_push(pps_decoder_t* decoder, const char* name) {
    const Value* value = find(decoder, name);
    const bool isEntered = value != nullptr && isContainer(*value);
    decoder->m_frames.push_back({isEntered ? value : nullptr, 0});
    if (isEntered) {
        return PPS_DECODER_OK;
    }
    return value == nullptr ? PPS_DECODER_ABSENT : PPS_DECODER_BAD_TYPE;
}

void pps_decoder_pop(pps_decoder_t* decoder) {
    if (!decoder->m_frames.empty()) {
        decoder->m_frames.pop_back();
    }
}

pps_decoder_error_t pps_decoder_get_string(pps_decoder_t* decoder, const char* name,
                                           std::string* value) {
    const Value* found = decoder->m_frames.empty() ? nullptr : find(decoder, name);
    if (found == nullptr) {
        return PPS_DECODER_ABSENT;
    }
    if (found->kind != Value::String) {
        return PPS_DECODER_BAD_TYPE;
    }
    *value = found->text;
    return PPS_DECODER_OK;
}

pps_decoder_error_t pps_decoder_get_int(pps_decoder_t* decoder, const char* name, int* value) {
    const Value* found = decoder->m_frames.empty() ? nullptr : find(decoder, name);
    if (found == nullptr) {
        return PPS_DECODER_ABSENT;
    }
    const bool fits =
        found->kind == Value::Integer && found->integer >= INT_MIN && found->integer <= INT_MAX;
    if (!fits) {
        return PPS_DECODER_BAD_TYPE;
    }
    *value = static_cast<int>(found->integer);
    return PPS_DECODER_OK;
}

pps_decoder_error_t pps_decoder_get_bool(pps_decoder_t* decoder, const char* name, bool* value) {
    const Value* found = decoder->m_frames.empty() ? nullptr : find(decoder, name);
    if (found == nullptr) {
        return PPS_DECODER_ABSENT;
    }
    if (found->kind != Value::Bool) {
        return PPS_DECODER_BAD_TYPE;
    }
    *value = found->integer != 0;
    return PPS_DECODER_OK;
}

pps_decoder_error_t pps_decoder_get_at(const pps_decoder_t* decoder, int index, std::string* name,
                                       std::string* value) {
    const Value* present = decoder->m_frames.empty() ? nullptr : decoder->m_frames.back().value;
    if (present == nullptr || index < 0 ||
        static_cast<std::size_t>(index) >= present->children.size()) {
        return PPS_DECODER_ABSENT;
    }
    const Value& child = present->children[static_cast<std::size_t>(index)];
    *name = child.name;
    if (isContainer(child)) {
        return PPS_DECODER_BAD_TYPE;
    }
    *value = child.text;
    return PPS_DECODER_OK;
}
