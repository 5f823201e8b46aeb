// Two threads at once, as in the running agent. The assertions are few; the thread sanitizer is
// what looks on.

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "agent/sessions/session_manager.hpp"
#include "agent/sessions/states/session_states.hpp"
#include "tests/support/agent/sessions_fixture.hpp"
#include "tests/support/recorded_log.hpp"

namespace {

constexpr int kRounds = 200;

// Runs both, each in a thread of its own, and waits for them.
template <typename First, typename Second>
void atOnce(First first, Second second) {
    std::thread one([first] {
        for (int round = 0; round < kRounds; ++round) {
            first(round);
        }
    });
    std::thread two([second] {
        for (int round = 0; round < kRounds; ++round) {
            second(round);
        }
    });
    one.join();
    two.join();
}

class TwoThreads : public SessionsTest {
  protected:
    QuilSessionManager& manager() { return *QuilSessionManager::getInstance(); }
};

}  // namespace

TEST_F(TwoThreads, OneChangesTheFieldsThatTheOtherReads) {
    QuilSession session("app", "");
    atOnce(
        [&](int round) {
            const std::string text = longText('a') + std::to_string(round);
            session.setClientObjectId(text);
            session.setPpgUrl(text);
            session.setLaunchString(text);
            session.setToken(text);
        },
        [&](int /*round*/) {
            for (const std::string& text : {session.getClientObjectId(), session.getPpgUrl(),
                                            session.getLaunchString(), session.getToken()}) {
                ASSERT_TRUE(text.empty() || text.starts_with("axx")) << text;
            }
            pps_encoder_t encoder;
            pps_encoder_initialize(&encoder, true);
            pps_encoder_start_object(&encoder, nullptr);
            session.save(&encoder);
        });
}

TEST_F(TwoThreads, OneMovesTheStateThatTheOtherAsksFor) {
    QuilSession session("app", "");
    atOnce(
        [&](int round) {
            session.enterState(std::make_unique<QuilRegisterState>());
            session.processEvent(1 + round % 4);
        },
        [&](int round) {
            session.isCreated();
            session.isDeleted();
            session.isRegistered();
            session.isTerminated();
            session.isSimChanged();
            session.processEvent(1 + round % 4);
        });
    EXPECT_NE(stateOf(session), -1);
}

TEST_F(TwoThreads, OneListensAndStopsWhileTheOtherLooks) {
    const int before = countDescriptors();
    QuilSession session("app", "");
    const int port = freePort();
    atOnce(
        [&](int /*round*/) {
            session.getPort().setPort(port);
            session.listenOnPort();
            session.stopListenOnPort();
        },
        [&](int /*round*/) {
            session.listenOnPort();
            session.hasPort();
            session.getPort().getSocket();
            session.stopListenOnPort();
        });
    session.stopListenOnPort();
    EXPECT_EQ(countDescriptors(), before);
}

TEST_F(TwoThreads, OneKeepsConnectionsThatTheOtherAnswersWhilePortsStop) {
    const int before = countDescriptors();
    QuilSession session("app", "");
    atOnce(
        [&](int round) {
            Connected connection;
            session.addPushSocket(std::to_string(round), connection.here);
            connection.here = -1;
            session.stopListenOnPort();  // starts the push-socket lock anew
        },
        [&](int round) {
            session.acknowledgePush(std::to_string(round), round % 2 == 0);
            session.deletePushSocket(std::to_string(round / 2));
        });
    for (int round = 0; round < kRounds; ++round) {
        session.deletePushSocket(std::to_string(round));
    }
    EXPECT_EQ(countDescriptors(), before);
}

TEST_F(TwoThreads, BothAnswerTheSamePushAndTheConnectionIsClosedOnce) {
    QuilSession session("app", "");
    for (int round = 0; round < 50; ++round) {
        Connected connection;
        session.addPushSocket("p", connection.here);
        connection.here = -1;
        std::thread other([&] { session.acknowledgePush("p", true); });
        session.acknowledgePush("p", true);
        other.join();
        const std::string bytes = connection.readUntilClosed();
        ASSERT_TRUE(bytes.size() == 72 || bytes.size() == 144) << bytes;
    }
    EXPECT_EQ(recordedText().find("Error closing socket"), std::string::npos) << recordedText();
}

TEST_F(TwoThreads, BothAddAndLookUpAndSaveSessions) {
    atOnce(
        [&](int round) {
            auto session =
                std::make_unique<QuilSession>("app" + std::to_string(round % 20), "@ipc.1");
            ASSERT_EQ(manager().addSession(session), 1);
            manager().getAllPorts();
        },
        [&](int round) {
            auto session =
                std::make_unique<QuilSession>("app" + std::to_string(round % 25), "@ipc.2");
            ASSERT_EQ(manager().addSession(session), 1);
            QuilSession* found = manager().getSessionByAppId("app" + std::to_string(round % 25));
            ASSERT_NE(found, nullptr);
            found->enterState(std::make_unique<QuilRegisterState>());
            found->getPort().setPort(4711);
            manager().sendEventByClientId("@ipc.1", EVENT_CREATE);
            pps_encoder_t encoder;
            pps_encoder_initialize(&encoder, false);
            pps_encoder_start_object(&encoder, "@o");
            ASSERT_EQ(manager().save(&encoder), 1);
        });
    EXPECT_EQ(manager().getAllPorts().size(), 25U);
}
