// Two notations, one walk: directly below a top-level object each attribute is a line of its own;
// deeper down everything is JSON, which ends with the line of the attribute that it began in. A
// level records which of the two it is in and whether a comma is due; nothing else is remembered.

#include "platform/pps/encoder.hpp"

#include "platform/pps/text.hpp"

namespace {

using Level = pps_encoder_t::Level;

bool isPlain(std::string_view name) {
    return !ppsNeedsEscapes(name);
}

// Names that would read back as something else than this attribute: one with the separator, one
// that looks like an object line or a removal.
bool isAttributeName(std::string_view name) {
    return !name.empty() && isPlain(name) && name.find(':') == std::string_view::npos &&
           name.front() != '@' && name.front() != '-' && name.front() != '+';
}

bool inLines(const pps_encoder_t* encoder) {
    return !encoder->m_levels.empty() && encoder->m_levels.back().kind == Level::Top;
}

bool isRefused(const pps_encoder_t* encoder) {
    return encoder->m_levels.empty() || encoder->m_levels.back().kind == Level::Refused;
}

// Writes what stands before a value: "name:encoding:", or a comma and the JSON key.
bool beginValue(pps_encoder_t* encoder, std::string_view name, std::string_view encoding) {
    if (isRefused(encoder)) {
        return false;
    }
    Level& level = encoder->m_levels.back();
    if (level.kind == Level::Top) {
        if (!isAttributeName(name)) {
            return false;
        }
        encoder->m_text.append(name).append(":").append(encoding).append(":");
        return true;
    }
    if (!level.empty) {
        encoder->m_text += ',';
    }
    level.empty = false;
    if (level.kind == Level::Object) {
        ppsAppendJsonString(encoder->m_text, name);
        encoder->m_text += ':';
    }
    return true;
}

void endValue(pps_encoder_t* encoder) {
    if (inLines(encoder)) {
        encoder->m_text += '\n';
    }
}

pps_encoder_error_t refuse(pps_encoder_t* encoder) {
    encoder->m_levels.push_back({Level::Refused, true, false});
    return PPS_ENCODER_ERROR;
}

pps_encoder_error_t startNested(pps_encoder_t* encoder, const char* name, Level::Kind kind,
                                char bracket) {
    const bool endsLine = inLines(encoder);
    if (!beginValue(encoder, name == nullptr ? "" : name, "json")) {
        return refuse(encoder);
    }
    encoder->m_text += bracket;
    encoder->m_levels.push_back({kind, true, endsLine});
    return PPS_ENCODER_OK;
}

pps_encoder_error_t startTop(pps_encoder_t* encoder, std::string_view name) {
    if (encoder->m_json) {
        encoder->m_text += '{';
        encoder->m_levels.push_back({Level::Object, true, true});
        return PPS_ENCODER_OK;
    }
    if (!isPlain(name)) {
        return refuse(encoder);
    }
    if (!name.empty()) {
        encoder->m_text.append(name.front() == '@' ? "" : "@").append(name).append("\n");
    }
    encoder->m_levels.push_back({Level::Top, true, false});
    return PPS_ENCODER_OK;
}

pps_encoder_error_t endLevel(pps_encoder_t* encoder, bool isArray) {
    if (encoder->m_levels.empty()) {
        return PPS_ENCODER_ERROR;
    }
    const Level level = encoder->m_levels.back();
    if (level.kind != Level::Refused && (level.kind == Level::Array) != isArray) {
        return PPS_ENCODER_ERROR;
    }
    encoder->m_levels.pop_back();
    if (level.kind == Level::Object || level.kind == Level::Array) {
        encoder->m_text += isArray ? ']' : '}';
    }
    if (level.endsLine) {
        encoder->m_text += '\n';
    }
    return PPS_ENCODER_OK;
}

pps_encoder_error_t addBare(pps_encoder_t* encoder, std::string_view name,
                            std::string_view encoding, std::string_view value) {
    if (!beginValue(encoder, name, encoding)) {
        return PPS_ENCODER_ERROR;
    }
    encoder->m_text.append(value);
    endValue(encoder);
    return PPS_ENCODER_OK;
}

}  // namespace

void pps_encoder_initialize(pps_encoder_t* encoder, bool json) {
    pps_encoder_reset(encoder);
    encoder->m_json = json;
}

void pps_encoder_reset(pps_encoder_t* encoder) {
    encoder->m_text.clear();
    encoder->m_levels.clear();
}

void pps_encoder_cleanup(pps_encoder_t* encoder) {
    std::string().swap(encoder->m_text);
    std::vector<Level>().swap(encoder->m_levels);
}

pps_encoder_error_t pps_encoder_start_object(pps_encoder_t* encoder, const char* name) {
    if (encoder->m_levels.empty()) {
        return startTop(encoder, name == nullptr ? "" : name);
    }
    return startNested(encoder, name, Level::Object, '{');
}

pps_encoder_error_t pps_encoder_end_object(pps_encoder_t* encoder) {
    return endLevel(encoder, false);
}

pps_encoder_error_t pps_encoder_start_array(pps_encoder_t* encoder, const char* name) {
    return startNested(encoder, name, Level::Array, '[');
}

pps_encoder_error_t pps_encoder_end_array(pps_encoder_t* encoder) {
    return endLevel(encoder, true);
}

pps_encoder_error_t pps_encoder_add_string(pps_encoder_t* encoder, std::string_view name,
                                           std::string_view value) {
    if (!inLines(encoder)) {
        if (!beginValue(encoder, name, "")) {
            return PPS_ENCODER_ERROR;
        }
        ppsAppendJsonString(encoder->m_text, value);
        return PPS_ENCODER_OK;
    }
    return ppsNeedsEscapes(value) ? addBare(encoder, name, "c", ppsEscapeC(value))
                                  : addBare(encoder, name, "", value);
}

pps_encoder_error_t pps_encoder_add_int(pps_encoder_t* encoder, std::string_view name,
                                        std::int64_t value) {
    return addBare(encoder, name, "n", std::to_string(value));
}

pps_encoder_error_t pps_encoder_add_bool(pps_encoder_t* encoder, std::string_view name,
                                         bool value) {
    return addBare(encoder, name, "b", value ? "true" : "false");
}

const char* pps_encoder_buffer(const pps_encoder_t* encoder) {
    return encoder->m_text.c_str();
}

std::size_t pps_encoder_length(const pps_encoder_t* encoder) {
    return encoder->m_text.size();
}
