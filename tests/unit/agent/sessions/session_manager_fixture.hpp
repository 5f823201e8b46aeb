// The registry of sessions, with what its tests add to it and see of it.

#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "agent/sessions/saved_sessions.hpp"
#include "agent/sessions/session_manager.hpp"
#include "tests/support/agent/sessions_fixture.hpp"
#include "tests/support/recorded_log.hpp"

class SessionManager : public SessionsTest {
  protected:
    static constexpr const char* kObject = "/pps/services/push/quilagent";

    SessionManager() : m_manager(*QuilSessionManager::getInstance()) {}
    ~SessionManager() override { m_manager.removeAll(); }

    static std::string number(int value) { return std::to_string(value); }

    // Adds a session, puts it into a state and gives it a port number; no trace in the log.
    QuilSession& add(const std::string& appId, const std::string& clientId, int state,
                     int port = -1) {
        auto session = std::make_unique<QuilSession>(appId, clientId);
        m_manager.addSession(session);
        QuilSession& added = *m_manager.getSessionByAppId(appId);
        putIntoState(added, state);
        added.getPort().setPort(port);
        clearRecordedLines();
        return added;
    }

    // What save writes.
    std::string saved(int* result = nullptr) {
        pps_encoder_t encoder;
        pps_encoder_initialize(&encoder, false);
        pps_encoder_start_object(&encoder, "@o");
        const int saved = m_manager.save(&encoder);
        if (result != nullptr) {
            *result = saved;
        }
        // Only an encoder that is back at the top level writes this as a line.
        pps_encoder_add_string(&encoder, "behind", "1");
        return pps_encoder_buffer(&encoder);
    }

    int load(const std::string& dat, bool sameSim) {
        pps_decoder_initialize(&m_decoder, ("@o\n" + dat + "behind::1\n").c_str());
        pps_decoder_push(&m_decoder, nullptr);
        return m_manager.load(&m_decoder, sameSim);
    }

    // Whether the decoder stands where it stood before the load.
    bool isDecoderBack() {
        std::string value;
        return pps_decoder_get_string(&m_decoder, "behind", &value) == PPS_DECODER_OK;
    }

    // App ids with the ports that getAllPorts gives.
    std::string ports() {
        std::string all;
        for (const QuilPort* port : m_manager.getAllPorts()) {
            all += port->getName() + ":" + number(port->getPort()) + " ";
        }
        return all;
    }

    // The SIM is `current`, and the sessions were saved with `stored`.
    void changeSim(const std::string& stored, const std::string& current) {
        m_platform.setImsi(current);
        m_platform.write(kObject, "@quilagent\nversion::1\nimsi::" + stored + "\n");
        QuilDataManager::getInstance()->load();
        clearRecordedLines();
    }

    QuilSessionManager& m_manager;
    pps_decoder_t m_decoder;
};
