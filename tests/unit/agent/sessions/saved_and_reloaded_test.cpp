// The saved object as files: what a save writes is kept in tests/data byte for byte, and so is what
// a start has to cope with.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "agent/sessions/saved_sessions.hpp"
#include "agent/sessions/session_manager.hpp"
#include "agent/sessions/states/session_states.hpp"
#include "tests/support/agent/sessions_fixture.hpp"
#include "tests/support/recorded_log.hpp"

namespace {

struct Fields {
    std::string appId;
    std::string ppgUrl;
    std::string launchString;
    std::string token;
    int port;
};

const std::vector<Fields> kOne = {
    {"weather", "http://ppg.example", "weather://open", "2FFFFFFF", 40101}};
const std::vector<Fields> kSeveral = {
    {"1000-a\"b\\c", "http://ppg.example/?a=b&c=d", "line one\nline two", "2FFFFFFF", 40101},
    {"news", "", "", "", 65535},
    {"wetter-m\xc3\xbcller", "https://ppg.example:8443", "x", "2FFFFFFF", 1}};

// The object is a FIFO here, so that one process can load many texts.
class SavedSessions : public SessionsTest {
  protected:
    SavedSessions() : m_object(m_platform.makeFifo("/pps/services/push/quilagent")) {
        m_platform.setImsi("310150123456789");
        // Nobody's address: ports are remembered but never opened.
        m_platform.configure("listen-address 192.0.2.1\n");
        QuilDataManager::getInstance();
    }

    static std::string file(const std::string& name) {
        const char* source = std::getenv("QUIL_SOURCE");
        const std::string path = std::string(source == nullptr ? "." : source) +
                                 "/tests/data/saved_sessions_" + name + ".txt";
        std::ifstream stream(path, std::ios::binary);
        EXPECT_TRUE(stream.good()) << path;
        return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
    }

    static std::string state(QuilSession& session) {
        return session.isTerminated() ? "Terminate" : session.isSimChanged() ? "SimChange" : "?";
    }

    // The result of a load into an empty registry.
    int load(const std::string& text) const {
        manager().removeAll();
        clearRecordedLines();
        EXPECT_EQ(write(m_object, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        return QuilDataManager::getInstance()->load();
    }

    std::string saved() const {
        EXPECT_EQ(QuilDataManager::getInstance()->save(), 1);
        return readAvailable(m_object);
    }

    // The application ids of the registered sessions that have a port, each with a blank behind it.
    static std::string registered() {
        std::string all;
        for (const QuilPort* port : manager().getAllPorts()) {
            all += port->getName() + " ";
        }
        return all;
    }

    static void add(const std::vector<Fields>& sessions) {
        for (const Fields& fields : sessions) {
            auto session = std::make_unique<QuilSession>(fields.appId, "@ipc.1");
            session->setPpgUrl(fields.ppgUrl);
            session->setLaunchString(fields.launchString);
            session->setToken(fields.token);
            session->getPort().setPort(fields.port);
            putIntoState(*session, STATE_REGISTER);
            manager().addSavedSession(std::move(session));
        }
    }

    static void expectLoaded(const std::vector<Fields>& sessions) {
        for (const Fields& fields : sessions) {
            QuilSession* session = manager().getSessionByAppId(fields.appId);
            ASSERT_NE(session, nullptr) << fields.appId;
            EXPECT_EQ(session->getPpgUrl(), fields.ppgUrl) << fields.appId;
            EXPECT_EQ(session->getLaunchString(), fields.launchString) << fields.appId;
            EXPECT_EQ(session->getToken(), fields.token) << fields.appId;
            EXPECT_EQ(session->getPort().getPort(), fields.port) << fields.appId;
            EXPECT_EQ(session->getClientObjectId(), "") << fields.appId;
            EXPECT_EQ(state(*session), "Terminate") << fields.appId;
        }
        EXPECT_EQ(manager().getAllPorts().size(), sessions.size());
    }

    static QuilSessionManager& manager() { return *QuilSessionManager::getInstance(); }

    int m_object;
};

class WholeFile : public SavedSessions, public ::testing::WithParamInterface<const char*> {};

}  // namespace

TEST_F(SavedSessions, NoneAreSavedAsInTheFile) {
    EXPECT_EQ(saved(), file("none"));
}

TEST_F(SavedSessions, OneIsSavedAsInTheFile) {
    add(kOne);
    EXPECT_EQ(saved(), file("one"));
}

TEST_F(SavedSessions, SeveralAreSavedAsInTheFile) {
    add(kSeveral);
    EXPECT_EQ(saved(), file("several"));
}

TEST_F(SavedSessions, NoneAreLoadedFromTheFile) {
    EXPECT_EQ(load(file("none")), 1);
    expectLoaded({});
}

TEST_F(SavedSessions, OneIsLoadedFromTheFile) {
    EXPECT_EQ(load(file("one")), 1);
    expectLoaded(kOne);
}

TEST_F(SavedSessions, SeveralAreLoadedFromTheFile) {
    EXPECT_EQ(load(file("several")), 1);
    expectLoaded(kSeveral);
}

TEST_F(SavedSessions, OfAnotherSimWaitInSimChange) {
    std::string text = file("one");
    text.replace(text.find("310150"), 6, "262010");
    EXPECT_EQ(load(text), 1);
    EXPECT_EQ(state(*manager().getSessionByAppId("weather")), "SimChange");
}

TEST_F(SavedSessions, DamagedElementsArePassedOver) {
    EXPECT_EQ(load(file("damaged_element")), 1);
    QuilSession* session = manager().getSessionByAppId("weather");
    ASSERT_NE(session, nullptr);
    EXPECT_EQ(session->getPpgUrl(), "");
    EXPECT_EQ(session->getLaunchString(), "");
    EXPECT_EQ(session->getToken(), "");
    EXPECT_EQ(session->getPort().getPort(), -1);
    EXPECT_TRUE(wasLogged(6, "Load: n_sessions [5]")) << recordedText();
    EXPECT_EQ(countRecorded(3,
                            "QuilSessionManager::addSavedSession -- attempt to add session for "
                            "EMPTY provider app id"),
              4);
}

TEST_F(SavedSessions, DamagedJsonRestoresNothing) {
    EXPECT_EQ(load(file("damaged_json")), 0);
    EXPECT_EQ(registered(), "");
}

TEST_F(SavedSessions, DamagedLineRestoresNothing) {
    EXPECT_EQ(load(file("damaged_line")), 0);
    EXPECT_EQ(registered(), "");
}

TEST_F(SavedSessions, ObjectWhereTheArrayShouldBeRestoresNothing) {
    EXPECT_EQ(load(file("damaged_object")), 1);
    EXPECT_EQ(registered(), "");
}

TEST_P(WholeFile, SurvivesALoadAndASaveUnchanged) {
    const std::string text = file(GetParam());
    ASSERT_EQ(load(text), 1);
    EXPECT_EQ(saved(), text);
}

TEST_P(WholeFile, CutAtAnyByteGivesAllSessionsOrNone) {
    const std::string text = file(GetParam());
    ASSERT_EQ(load(text), 1);
    const std::string all = registered();
    const std::size_t dat = text.find("dat:json:{");
    // Without its last line feed the object is still whole.
    const std::size_t whole = text.size() - 1;
    for (std::size_t size = 1; size < text.size(); ++size) {
        const int result = load(text.substr(0, size));
        ASSERT_EQ(registered(), size < whole ? "" : all) << "cut after byte " << size;
        // A line cut in its name or encoding, or in its JSON, is damage; one cut in a plain value
        // cannot be told from a whole one.
        const bool isInsideDat = size > dat && size < whole;
        const bool isAtLineEnd = text[size - 1] == '\n';
        if (isInsideDat) {
            ASSERT_EQ(result, 0) << "cut after byte " << size;
        } else if (isAtLineEnd || size >= whole) {
            ASSERT_EQ(result, 1) << "cut after byte " << size;
        }
    }
}

TEST_P(WholeFile, WithAnyByteReplacedNeverBringsUpASessionWithoutAnAppId) {
    const std::string text = file(GetParam());
    const std::string replacements("\0\n\":{}[],\\x\x80\xff", 12);
    for (std::size_t at = 0; at < text.size(); ++at) {
        for (const char byte : replacements) {
            std::string damaged = text;
            damaged[at] = byte;
            const int result = load(damaged);
            ASSERT_TRUE(result == 0 || result == 1);
            for (const QuilPort* port : manager().getAllPorts()) {
                ASSERT_NE(port->getName(), "") << damaged;
                ASSERT_GT(port->getPort(), 0) << damaged;
            }
            ASSERT_TRUE(result == 1 || manager().getAllPorts().empty()) << damaged;
            // Whatever came up can be saved and comes up again.
            const std::string before = registered();
            ASSERT_EQ(load(saved()), 1) << damaged;
            ASSERT_EQ(registered(), before) << damaged;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Files, WholeFile, ::testing::Values("none", "one", "several"),
                         [](const auto& file) { return std::string(file.param); });

TEST_F(SavedSessions, TwoOfOneApplicationLeaveTheLast) {
    EXPECT_EQ(load("@quilagent\ndat:json:{\"sessions\":["
                   "{\"providerApplicationId\":\"a\",\"token\":\"1\",\"port\":4711},"
                   "{\"providerApplicationId\":\"a\",\"token\":\"2\",\"port\":4712}]}\n"),
              1);
    EXPECT_EQ(manager().getSessionByAppId("a")->getToken(), "2");
    EXPECT_EQ(manager().getSessionByAppId("a")->getPort().getPort(), 4712);
}

TEST_F(SavedSessions, TextWithoutTheObjectLineIsLoaded) {
    EXPECT_EQ(load("dat:json:{\"sessions\":[{\"providerApplicationId\":\"a\",\"port\":1}]}\n"), 1);
    EXPECT_EQ(registered(), "a ");
}

TEST_F(SavedSessions, DeepNestingIsDamage) {
    EXPECT_EQ(load("@quilagent\ndat:json:" + std::string(5000, '[') + "\n"), 0);
    EXPECT_EQ(registered(), "");
}

TEST_F(SavedSessions, UnknownAttributesAndFieldsAreIgnored) {
    EXPECT_EQ(load("@quilagent\nnew:b:true\ndat:json:{\"more\":1,\"sessions\":["
                   "{\"x\":{},\"providerApplicationId\":\"a\",\"port\":1}]}\n"),
              1);
    EXPECT_EQ(registered(), "a ");
}

TEST_F(SavedSessions, PortsOutOfRangeOfNumbersCountAsNone) {
    for (const char* port : {"99999999999", "-99999999999", "1.5", "1e400", "true", "null"}) {
        load(std::string("@quilagent\ndat:json:{\"sessions\":["
                         "{\"providerApplicationId\":\"a\",\"port\":") +
             port + "}]}\n");
        EXPECT_EQ(registered(), "") << port;
    }
}
