// Any text as the object of saved sessions: what the decoder can read of it is loaded, and what is
// then saved says the same, now and after every further load.

#include <map>
#include <string>

#include "agent/sessions/saved_sim.hpp"
#include "agent/sessions/session_manager.hpp"
#include "agent/support/decoder_string.hpp"
#include "platform/pps/decoder.hpp"
#include "platform/pps/encoder.hpp"
#include "tests/fuzz/agent_folder.hpp"
#include "tests/fuzz/bytes.hpp"

namespace {

struct Saved {
    std::string ppgUrl;
    std::string launchString;
    std::string token;
    int port = -1;
    bool operator==(const Saved&) const = default;
};
using SavedSessions = std::map<std::string, Saved>;  // by application

// True when the text can be read; then the decoder stands in the object.
bool decode(const std::string& text, pps_decoder_t* decoder) {
    pps_decoder_initialize(decoder, nullptr);
    if (pps_decoder_parse_pps_str(decoder, text.c_str()) != PPS_DECODER_OK ||
        pps_decoder_length(decoder) == 0) {
        return false;
    }
    pps_decoder_push(decoder, nullptr);
    return true;
}

// As at the start of the agent.
bool load(const std::string& text) {
    QuilSessionManager::getInstance()->removeAll();
    pps_decoder_t decoder;
    if (!decode(text, &decoder)) {
        return false;
    }
    setSavedImsi(readString(&decoder, "imsi"));
    QuilSessionManager::getInstance()->load(&decoder, isSameSim());
    return true;
}

// What a text says, the last entry of an application counting.
SavedSessions sessionsIn(const std::string& text) {
    SavedSessions sessions;
    pps_decoder_t decoder;
    require(decode(text, &decoder));
    pps_decoder_push(&decoder, "dat");
    pps_decoder_push(&decoder, "sessions");
    for (int left = pps_decoder_length(&decoder); left > 0; --left) {
        pps_decoder_push(&decoder, nullptr);
        Saved saved{readString(&decoder, "ppgUrl"), readString(&decoder, "launchString"),
                    readString(&decoder, "token")};
        pps_decoder_get_int(&decoder, "port", &saved.port);
        const std::string appId = readString(&decoder, "providerApplicationId");
        if (!appId.empty()) {
            sessions[appId] = saved;
        }
        pps_decoder_pop(&decoder);
    }
    return sessions;
}

void checkLoaded(const SavedSessions& expected) {
    for (const auto& [appId, saved] : expected) {
        QuilSession* session = QuilSessionManager::getInstance()->getSessionByAppId(appId);
        require(session != nullptr && session->isRegistered());
        require(saved == Saved{session->getPpgUrl(), session->getLaunchString(),
                               session->getToken(), session->getPort().getPort()});
    }
}

std::string save() {
    pps_encoder_t encoder;
    pps_encoder_initialize(&encoder, false);
    pps_encoder_start_object(&encoder, "@quilagent");
    require(QuilSessionManager::getInstance()->save(&encoder) == 1);
    pps_encoder_end_object(&encoder);
    return {pps_encoder_buffer(&encoder), pps_encoder_length(&encoder)};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const AgentFolder folder;
    static const bool hasSim = [] {
        folder.write("/pps/services/cellular/uicc/card0/status_private", "imsi::1\n");
        return true;
    }();
    static_cast<void>(hasSim);
    const std::string text(reinterpret_cast<const char*>(data), size);
    if (!load(text)) {
        return 0;
    }
    SavedSessions expected = sessionsIn(text);
    checkLoaded(expected);
    QuilSessionManager& sessions = *QuilSessionManager::getInstance();
    std::size_t given = 0;
    sessions.processSimChange([&given](const std::string& appId, const std::string&,
                                       const std::string&, QuilSession* session) {
        require(session->getProviderAppId() == appId && session->isSimChanged());
        ++given;
    });
    require(given == (isSameSim() ? 0 : sessions.getAllPorts().size()));
    for (const QuilPort* port : sessions.getAllPorts()) {
        require(port->getSocket() == -1);
    }

    // Those without a port are not kept.
    std::erase_if(expected, [](const auto& entry) { return entry.second.port < 1; });
    const std::string saved = save();
    require(sessionsIn(saved) == expected);
    require(load(saved) && save() == saved);
    return 0;
}
