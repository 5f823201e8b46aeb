// What a message is, is told by its "msg". That of a reply belongs to the verb that it answers; an
// answer about a launch string has none, only an "id".

#include "client/messages.hpp"

#include <algorithm>
#include <iterator>

#include "client/base64.hpp"
#include "platform/pps/decoder.hpp"
#include "platform/pps/encoder.hpp"

namespace quilclient {

namespace {

constexpr std::string_view kReplacementCharacter = "\xEF\xBF\xBD";

const char* argumentName(Verb verb) {
    switch (verb) {
        case Verb::CreateChannel:
            return "ppgUrl";
        case Verb::RegisterToLaunch:
            return "launchString";
        default:
            return nullptr;
    }
}

constexpr Verb kVerbs[] = {Verb::CreateSession,    Verb::CreateChannel,        Verb::DestroyChannel,
                           Verb::RegisterToLaunch, Verb::UnregisterFromLaunch, Verb::AcceptPush,
                           Verb::RejectPush,       Verb::QueryChannel};

constexpr const char* kQueryReply = "onQueryChannelComplete";

// "msg" of the reply to a verb.
std::string_view replyName(Verb verb) {
    switch (verb) {
        case Verb::CreateSession:
            return "onCreateSessionComplete";
        case Verb::CreateChannel:
            return "onCreateChannelComplete";
        case Verb::DestroyChannel:
            return "onDestroyChannelComplete";
        case Verb::QueryChannel:
            return kQueryReply;
        default:
            return "";
    }
}

bool isAboutPush(Verb verb) {
    return verb == Verb::AcceptPush || verb == Verb::RejectPush;
}

std::size_t countReplacements(std::string_view text) {
    std::size_t count = 0;
    for (std::size_t at = text.find(kReplacementCharacter); at != std::string_view::npos;
         at = text.find(kReplacementCharacter, at + kReplacementCharacter.size())) {
        ++count;
    }
    return count;
}

// True when `value` reaches the agent byte by byte: in JSON a byte that is not valid UTF-8 would be
// replaced.
bool travelsInJson(std::string_view value) {
    pps_encoder_t encoder;
    pps_encoder_initialize(&encoder, true);
    pps_encoder_start_object(&encoder, nullptr);
    pps_encoder_add_string(&encoder, "v", value);
    return countReplacements({pps_encoder_buffer(&encoder), pps_encoder_length(&encoder)}) ==
           countReplacements(value);
}

Result checkRequest(const Request& request) {
    if (request.appId.empty()) {
        return {kBadArgument, "the application id is empty"};
    }
    if (!travelsInJson(request.appId)) {
        return {kBadArgument, "the application id is not valid UTF-8"};
    }
    if (isAboutPush(request.verb) && request.argument.empty()) {
        return {kBadArgument, "the push id is empty"};
    }
    const char* name = argumentName(request.verb);
    if (name != nullptr && request.argument.empty()) {
        return {kBadArgument, std::string(name) + " is empty"};
    }
    if (name != nullptr && !travelsInJson(request.argument)) {
        return {kBadArgument, std::string(name) + " is not valid UTF-8"};
    }
    return {};
}

std::string getString(pps_decoder_t* decoder, const char* name) {
    std::string value;
    pps_decoder_get_string(decoder, name, &value);
    return value;
}

void readHeaders(pps_decoder_t* decoder, Push* push) {
    pps_decoder_push(decoder, "httpHeaders");
    const int count = pps_decoder_length(decoder);
    for (int i = 0; i < count; ++i) {
        Header header;
        if (pps_decoder_get_at(decoder, i, &header.name, &header.value) == PPS_DECODER_OK) {
            push->headers.push_back(std::move(header));
        }
    }
    pps_decoder_pop(decoder);
}

// Reads "dat" of a push, which the decoder has entered.
void readPush(pps_decoder_t* decoder, Incoming* incoming) {
    int appLevelAck = 0;
    pps_decoder_get_int(decoder, "appLevelAck", &appLevelAck);
    incoming->push.id = incoming->id;
    incoming->push.senderWaits = appLevelAck == 1;
    readHeaders(decoder, &incoming->push);
    std::string encoded;
    const bool isThere = pps_decoder_get_string(decoder, "data", &encoded) == PPS_DECODER_OK;
    std::optional<std::string> data = decodeBase64(encoded);
    if (!isThere || !data) {
        incoming->damage = "push '" + incoming->id + "' came without readable data";
        return;
    }
    incoming->push.data = std::move(*data);
}

// Reads "dat" of the answer to QueryChannel, which the decoder has entered.
ChannelState readChannel(pps_decoder_t* decoder) {
    int registered = 0;
    int listening = 0;
    ChannelState channel;
    pps_decoder_get_int(decoder, "registered", &registered);
    pps_decoder_get_int(decoder, "listening", &listening);
    pps_decoder_get_int(decoder, "port", &channel.port);
    channel.isRegistered = registered == 1;
    channel.isListening = listening == 1;
    channel.token = getString(decoder, "token");
    channel.ppgUrl = getString(decoder, "ppgUrl");
    return channel;
}

// Where the line that begins behind `from` and starts a new message (or the end) is.
std::size_t findNextMessage(const std::string& text, std::size_t from) {
    const std::size_t plain = text.find("\n@", from);
    const std::size_t end = text.find("\n-@", from);
    const std::size_t first = std::min(plain, end);
    return first == std::string::npos ? first : first + 1;
}

}  // namespace

const char* verbName(Verb verb) {
    switch (verb) {
        case Verb::CreateSession:
            return "createSession";
        case Verb::CreateChannel:
            return "createChannel";
        case Verb::DestroyChannel:
            return "destroyChannel";
        case Verb::QueryChannel:
            return "queryChannel";
        case Verb::RegisterToLaunch:
            return "registerToLaunch";
        case Verb::UnregisterFromLaunch:
            return "unregisterFromLaunch";
        case Verb::AcceptPush:
            return "acceptPush";
        case Verb::RejectPush:
            return "rejectPush";
    }
    return "";
}

bool isAnswered(Verb verb) {
    return !isAboutPush(verb);
}

Result encodeRequest(const Request& request, const std::string& id, std::string* text) {
    Result check = checkRequest(request);
    if (!check.ok()) {
        return check;
    }
    pps_encoder_t encoder;
    pps_encoder_initialize(&encoder, false);
    pps_encoder_start_object(&encoder, nullptr);
    pps_encoder_add_string(&encoder, "msg", verbName(request.verb));
    pps_encoder_add_string(&encoder, "id", isAboutPush(request.verb) ? request.argument : id);
    pps_encoder_start_object(&encoder, "dat");
    pps_encoder_add_string(&encoder, "providerApplicationId", request.appId);
    if (const char* name = argumentName(request.verb)) {
        pps_encoder_add_string(&encoder, name, request.argument);
    }
    pps_encoder_end_object(&encoder);
    pps_encoder_end_object(&encoder);
    if (pps_encoder_length(&encoder) > kMaxRequestBytes) {
        return {kBadArgument, "the request has " + std::to_string(pps_encoder_length(&encoder)) +
                                  " bytes; the agent takes " + std::to_string(kMaxRequestBytes)};
    }
    text->assign(pps_encoder_buffer(&encoder), pps_encoder_length(&encoder));
    return {};
}

Incoming decodeMessage(const std::string& text) {
    Incoming incoming;
    pps_decoder_t decoder;
    if (pps_decoder_initialize(&decoder, text.c_str()) != PPS_DECODER_OK) {
        incoming.damage = "a message of the agent is damaged";
    }
    pps_decoder_push(&decoder, nullptr);
    incoming.message = getString(&decoder, "msg");
    incoming.id = getString(&decoder, "id");
    pps_decoder_get_int(&decoder, "err", &incoming.error);
    pps_decoder_push(&decoder, "dat");
    if (incoming.message == "pushNotification") {
        incoming.kind = Incoming::PushArrived;
        readPush(&decoder, &incoming);
    } else if (incoming.message == "onSimChange") {
        incoming.kind = Incoming::SimChange;
    } else if (incoming.message == kQueryReply) {
        incoming.channel = readChannel(&decoder);
    } else {
        incoming.token = getString(&decoder, "token");
    }
    return incoming;
}

bool isReplyTo(Verb verb, const Incoming& incoming) {
    return isAnswered(verb) &&
           (incoming.message == replyName(verb) ||
            (verb == Verb::DestroyChannel && incoming.kind == Incoming::SimChange));
}

bool isEcho(const Incoming& incoming) {
    return std::any_of(std::begin(kVerbs), std::end(kVerbs),
                       [&](Verb verb) { return incoming.message == verbName(verb); });
}

Result outcomeOf(Verb verb, const Incoming& reply) {
    if (reply.error != 0) {
        return resultOf(reply.error);
    }
    return verb == Verb::CreateChannel && reply.token.empty() ? resultOf(kEmptyToken) : Result{};
}

bool MessageSplitter::take(bool isDrained, std::vector<std::string>* messages) {
    std::size_t begin = 0;
    bool isServed = true;
    while (begin < m_text.size() && isServed) {
        std::size_t end = findNextMessage(m_text, begin);
        if (end == std::string::npos) {
            const bool isComplete = m_text.back() == '\n';
            const bool isEnd = isComplete && m_text.compare(begin, 2, "-@") == 0;
            if (!isEnd && !(isComplete && isDrained)) {
                break;
            }
            end = m_text.size();
        }
        if (m_text.compare(begin, 2, "-@") == 0) {
            isServed = false;
        } else {
            messages->push_back(m_text.substr(begin, end - begin));
        }
        begin = end;
    }
    m_text.erase(0, begin);
    return isServed;
}

}  // namespace quilclient
