// Settings from a real file below a scratch root. The manager is a single instance, so each test
// builds it anew in a process of its own.

#include "agent/configuration/config_manager.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <type_traits>

#include "agent/support/log.hpp"
#include "tests/support/agent/failing_new.hpp"
#include "tests/support/agent/in_child.hpp"
#include "tests/support/agent/process_fixture.hpp"
#include "tests/support/recorded_log.hpp"

namespace {

const std::string kSimObject = "/pps/services/cellular/uicc/card0/status_private";

class Config : public ::testing::Test {
  protected:
    // The manager as a start with this file builds it.
    QuilConfigManager& with(const std::string& file) {
        m_root.write("/etc/quilagent.conf", file);
        return *QuilConfigManager::getInstance();
    }

    ProcessRoot m_root;
};

// A line of `bytes` characters that holds one setting, and its value.
std::string longValue(std::size_t bytes) {
    return std::string(bytes - std::string("guid ").size(), 'v');
}

}  // namespace

static_assert(std::has_virtual_destructor_v<QuilConfigManager>);

TEST_F(Config, WithoutAFileEveryKeyHasItsDefault) {
    QuilConfigManager& config = *QuilConfigManager::getInstance();
    EXPECT_EQ(config.getName(), "Push Agent");
    EXPECT_EQ(config.getVersion(), "5.0.0");
    EXPECT_EQ(config.getGuid(), "");
    EXPECT_STREQ(config.getProxyHost(), "127.0.0.1");
    EXPECT_EQ(config.getProxyPort(), 287);
    EXPECT_EQ(config.getTransport(), "KVTP");
    EXPECT_EQ(config.getProtocol(), "HTTP");
    EXPECT_EQ(config.getPrName(), "personal");
    EXPECT_EQ(config.getConnectionHandler(), "defaulthandler");
    EXPECT_EQ(config.getUser(), "44:44,0,320");
    EXPECT_EQ(config.getListenAddress(), "127.0.0.1");
    EXPECT_EQ(config.getPushTimeout(), 30);
    EXPECT_EQ(config.getHttpTimeout(), 0);
    EXPECT_FALSE(config.isRulesSet());
}

TEST_F(Config, RulesAreSetByAValueAndTheLastLineCounts) {
    EXPECT_TRUE(with("rules \nrules /etc/quilagent.rules\n").isRulesSet());
    EXPECT_EQ(QuilConfigManager::getInstance()->getValue("rules"), "/etc/quilagent.rules");
}

TEST_F(Config, EmptyRulesAreNone) {
    EXPECT_FALSE(with("rules /etc/quilagent.rules\nrules \n").isRulesSet());
}

TEST_F(Config, EveryKeyIsReadFromTheFile) {
    QuilConfigManager& config = with(
        "name Agent of ours\nversion 7.1\nguid g-1\nproxy-host 10.0.0.1\nproxy-port 8080\n"
        "transport T\nprotocol P\nprname N\nconnection-handler C\nuser 1:2,3\n"
        "listen-address ::1\npush-timeout 5\nhttp-timeout 6\n");
    EXPECT_EQ(config.getName(), "Agent of ours");
    EXPECT_EQ(config.getVersion(), "7.1");
    EXPECT_EQ(config.getGuid(), "g-1");
    EXPECT_STREQ(config.getProxyHost(), "10.0.0.1");
    EXPECT_EQ(config.getProxyPort(), 8080);
    EXPECT_EQ(config.getTransport(), "T");
    EXPECT_EQ(config.getProtocol(), "P");
    EXPECT_EQ(config.getPrName(), "N");
    EXPECT_EQ(config.getConnectionHandler(), "C");
    EXPECT_EQ(config.getUser(), "1:2,3");
    EXPECT_EQ(config.getListenAddress(), "::1");
    EXPECT_EQ(config.getPushTimeout(), 5);
    EXPECT_EQ(config.getHttpTimeout(), 6);
}

TEST_F(Config, StartWithoutAFileLogsItAndTheResult) {
    QuilConfigManager::getInstance();
    EXPECT_EQ(recordedText(),
              "5 Cannot open input file /etc/quilagent.conf.\n"
              "5 Open [" +
                  kSimObject +
                  "] returns fd[-1]\n"
                  "5 Open [" +
                  kSimObject +
                  "] errno[2] error[No such file or directory]\n"
                  "5 QuilConfigManager::QuilConfigManager: m_proxyHost[127.0.0.1] imsi[]\n");
}

TEST_F(Config, StartWithAFileLogsEverySettingAndTheResult) {
    m_root.write(kSimObject, "@status_private\nimsi::30272\n");
    with("proxy-host h1\n");
    const std::string text = recordedText();
    EXPECT_EQ(text.find("5 readConfigFile: name[proxy-host] value[h1]\n"), 0U) << text;
    EXPECT_TRUE(wasLogged(5, "QuilConfigManager::QuilConfigManager: m_proxyHost[h1] imsi[30272]"))
        << text;
    EXPECT_FALSE(wasLogged(5, "Cannot open input file /etc/quilagent.conf.")) << text;
}

TEST_F(Config, LinesOfThisUnitNameItsFile) {
    QuilConfigManager::getInstance();
    EXPECT_EQ(recordedLines().front().text.find("QUIL:config_manager.cpp("), 0U)
        << recordedLines().front().text;
}

TEST_F(Config, InstanceIsBuiltOnce) {
    QuilConfigManager& first = with("name one\n");
    m_root.write("/etc/quilagent.conf", "name two\n");
    EXPECT_EQ(QuilConfigManager::getInstance(), &first);
    EXPECT_EQ(first.getName(), "one");
}

TEST_F(Config, InstanceThatCannotBeBuiltIsNull) {
    t_failsNextNew = true;
    EXPECT_EQ(QuilConfigManager::getInstance(), nullptr);
}

TEST_F(Config, ProxyPortThatIsNoNumberIsZero) {
    EXPECT_EQ(with("proxy-port abc\n").getProxyPort(), 0);
}

TEST_F(Config, ProxyPortWithAnEmptyValueHasItsDefault) {
    EXPECT_EQ(with("proxy-port \n").getProxyPort(), 287);
}

TEST_F(Config, NumberEndsAtTheFirstOtherCharacter) {
    EXPECT_EQ(with("proxy-port 80x1\n").getProxyPort(), 80);
}

TEST_F(Config, NumbersMayHaveBlanksAndASignInFront) {
    QuilConfigManager& config = with("proxy-port   +81\nother -3\n");
    EXPECT_EQ(config.getProxyPort(), 81);
    EXPECT_EQ(config.getIntValue("other", 0), -3);
}

TEST_F(Config, NumbersBeyondAnIntAreTakenToTheNearestEnd) {
    QuilConfigManager& config = with("high 99999999999999999999\nlow -99999999999999999999\n");
    EXPECT_EQ(config.getIntValue("high", 0), 2147483647);
    EXPECT_EQ(config.getIntValue("low", 0), -2147483647 - 1);
}

TEST_F(Config, NumbersThatCannotBeUsedAreBoundedAndNamed) {
    QuilConfigManager& config = with("proxy-port 70000\npush-timeout -3\nhttp-timeout 3000000\n");
    EXPECT_EQ(config.getProxyPort(), 65535);
    EXPECT_EQ(config.getPushTimeout(), 0);
    EXPECT_EQ(config.getHttpTimeout(), 2147483);
    for (const char* line : {"proxy-port 70000 is out of range, 65535 is used",
                             "push-timeout -3 is out of range, 0 is used",
                             "http-timeout 3000000 is out of range, 2147483 is used"}) {
        EXPECT_TRUE(wasLogged(3, std::string("QuilConfigManager: ") + line)) << recordedText();
    }
}

TEST_F(Config, LargestUsableNumbersAreTakenWithoutALine) {
    QuilConfigManager& config =
        with("proxy-port 65535\npush-timeout 2147483\nhttp-timeout 2147483\n");
    EXPECT_EQ(config.getProxyPort(), 65535);
    EXPECT_EQ(config.getPushTimeout(), 2147483);
    EXPECT_EQ(config.getHttpTimeout(), 2147483);
    EXPECT_EQ(recordedText().find("out of range"), std::string::npos) << recordedText();
}

TEST_F(Config, HexadecimalIsNoDecimalNumber) {
    EXPECT_EQ(with("proxy-port 0x50\n").getProxyPort(), 0);
}

TEST_F(Config, EmptyValueOfAStringHasItsDefault) {
    QuilConfigManager& config = with("transport \nproxy-host \nlisten-address \n");
    EXPECT_EQ(config.getTransport(), "KVTP");
    EXPECT_STREQ(config.getProxyHost(), "127.0.0.1");
    EXPECT_EQ(config.getListenAddress(), "127.0.0.1");
}

TEST_F(Config, ListenAddressFollowsTheProxyHost) {
    EXPECT_EQ(with("proxy-host 127.0.0.2\n").getListenAddress(), "127.0.0.2");
}

TEST_F(Config, ValueKeepsEverythingBehindTheFirstSpace) {
    EXPECT_EQ(with("transport KVTP extra\n").getTransport(), "KVTP extra");
}

TEST_F(Config, ValueKeepsFurtherSpacesOnBothSides) {
    EXPECT_EQ(with("transport  a b  \n").getTransport(), " a b  ");
}

TEST_F(Config, CarriageReturnBelongsToTheValue) {
    QuilConfigManager& config = with("transport KVTP\r\nproxy-port 8080\r\n");
    EXPECT_EQ(config.getTransport(), "KVTP\r");
    EXPECT_EQ(config.getProxyPort(), 8080);
}

TEST_F(Config, EmptyValueBeforeACarriageReturnIsTheCarriageReturn) {
    EXPECT_EQ(with("transport \r\n").getTransport(), "\r");
}

TEST_F(Config, TabDoesNotSeparate) {
    EXPECT_EQ(with("transport\tT\n").getTransport(), "KVTP");
}

TEST_F(Config, LineWithoutASpaceIsIgnored) {
    EXPECT_EQ(with("transport\n\nname x\n").getName(), "x");
    EXPECT_EQ(countRecorded(5, "readConfigFile: name[transport] value[]"), 0);
}

TEST_F(Config, HashIsNoComment) {
    QuilConfigManager& config = with("#x y\n# transport T\n#transport T\n");
    EXPECT_EQ(config.getValue("#x"), "y");
    EXPECT_EQ(config.getValue("#"), "transport T");
    EXPECT_EQ(config.getTransport(), "KVTP");
}

TEST_F(Config, LaterLineReplacesAnEarlierOne) {
    EXPECT_EQ(with("transport a\ntransport b\n").getTransport(), "b");
}

TEST_F(Config, LaterEmptyLineReplacesAnEarlierOneToo) {
    EXPECT_EQ(with("transport a\ntransport \n").getTransport(), "KVTP");
}

TEST_F(Config, KeysAreCaseSensitive) {
    EXPECT_EQ(with("Transport T\n").getTransport(), "KVTP");
}

TEST_F(Config, LastLineNeedsNoLineFeed) {
    EXPECT_EQ(with("name a\ntransport T").getTransport(), "T");
}

TEST_F(Config, LineOf255CharactersIsReadAndTheNextOneToo) {
    QuilConfigManager& config = with("guid " + longValue(255) + "\nname x\n");
    EXPECT_EQ(config.getGuid(), longValue(255));
    EXPECT_EQ(config.getName(), "x");
}

TEST_F(Config, LineOf256CharactersIsCutAndReadingStops) {
    QuilConfigManager& config = with("guid " + longValue(256) + "\nname x\n");
    EXPECT_EQ(config.getGuid(), longValue(255));
    EXPECT_EQ(config.getName(), "Push Agent");
}

TEST_F(Config, LastLineOf255CharactersWithoutALineFeedIsRead) {
    EXPECT_EQ(with("guid " + longValue(255)).getGuid(), longValue(255));
}

TEST_F(Config, LongLineWithoutASpaceInItsFirst255CharactersIsIgnored) {
    QuilConfigManager& config = with(std::string(300, 'k') + " v\nname x\n");
    EXPECT_EQ(countRecorded(5, "readConfigFile: name[" + std::string(255, 'k') + "] value[]"), 0);
    EXPECT_EQ(config.getName(), "Push Agent");
}

TEST_F(Config, LineThatBeginsWithASpaceIsStoredWhereNobodyCanAskForIt) {
    QuilConfigManager& config = with(" value\n");
    EXPECT_TRUE(wasLogged(5, "readConfigFile: name[] value[value]")) << recordedText();
    EXPECT_EQ(config.getValue(""), "");
    EXPECT_TRUE(wasLogged(
        3, "QuilConfigManager::getValue -- attempt to get value for EMPTY attribute name."))
        << recordedText();
}

TEST_F(Config, FileOfBinaryGarbageDoesNoHarm) {
    std::string garbage;
    for (int i = 0; i < 100000; ++i) {
        garbage += static_cast<char>(i * 7919 >> 3);
    }
    EXPECT_EQ(with(garbage).getName(), "Push Agent");
}

TEST_F(Config, ZeroByteEndsItsLineAndNotTheFile) {
    QuilConfigManager& config = with(std::string("guid a\0b\nname x\n", 16));
    EXPECT_EQ(config.getGuid(), "a");
    EXPECT_EQ(config.getName(), "x");
}

TEST_F(Config, EmptyFileLeavesTheDefaultsWithoutAComplaint) {
    EXPECT_EQ(with("").getName(), "Push Agent");
    EXPECT_EQ(countRecorded(5, "Cannot open input file /etc/quilagent.conf."), 0);
}

TEST_F(Config, FolderInPlaceOfTheFileLeavesTheDefaults) {
    m_root.makeFolder("/etc/quilagent.conf");
    EXPECT_EQ(QuilConfigManager::getInstance()->getName(), "Push Agent");
}

TEST_F(Config, FileThatMayNotBeReadLeavesTheDefaults) {
    m_root.write("/etc/quilagent.conf", "name x\n");
    chmod(m_root.at("/etc/quilagent.conf").c_str(), 0);
    const std::string seen = asOrdinaryUser([] {
        const std::string name = QuilConfigManager::getInstance()->getName();
        return name +
               (wasLogged(5, "Cannot open input file /etc/quilagent.conf.") ? ", logged" : "");
    });
    EXPECT_EQ(seen, "Push Agent, logged");
}

TEST_F(Config, VerbosityInTheFileIsNotConsulted) {
    with("verbosity 7\n").getProxyHost();
    EXPECT_FALSE(wasLogged(6, "getProxyHost: [127.0.0.1]")) << recordedText();
}

TEST_F(Config, AbsentKeyIsEmptyWithoutALine) {
    QuilConfigManager& config = with("");
    clearRecordedLines();
    EXPECT_EQ(config.getValue("nothing"), "");
    EXPECT_EQ(config.getValueOr("nothing", "d"), "d");
    EXPECT_EQ(config.getIntValue("nothing", 4), 4);
    EXPECT_EQ(recordedText(), "");
}

TEST_F(Config, KeyWithAnEmptyValueIsEmptyWithoutALine) {
    QuilConfigManager& config = with("k \n");
    clearRecordedLines();
    EXPECT_EQ(config.getValue("k"), "");
    EXPECT_EQ(config.getValueOr("k", "d"), "d");
    EXPECT_EQ(recordedText(), "");
}

TEST_F(Config, SetValueInsertsAndReplaces) {
    QuilConfigManager& config = with("");
    config.setValue("transport", "a");
    EXPECT_EQ(config.getTransport(), "a");
    config.setValue("transport", "b");
    EXPECT_EQ(config.getTransport(), "b");
}

TEST_F(Config, ProxyHostIsTheCopyMadeAtConstruction) {
    QuilConfigManager& config = with("proxy-host a\n");
    const char* host = config.getProxyHost();
    config.setValue("proxy-host", "b");
    EXPECT_STREQ(config.getProxyHost(), "a");
    EXPECT_EQ(config.getProxyHost(), host);
}

TEST_F(Config, GetProxyHostIsLoggedAsDetail) {
    raiseVerbosity(2);
    QuilConfigManager& config = with("proxy-host a\n");
    clearRecordedLines();
    config.getProxyHost();
    EXPECT_EQ(recordedText(), "6 getProxyHost: [a]\n");
}

TEST_F(Config, ValueThatCannotBeCopiedIsEmptyAndLogged) {
    QuilConfigManager& config = with("k " + std::string(100, 'v') + "\n");
    const std::string key = "k";
    t_failsNextNew = true;
    const std::string value = config.getValue(key);
    t_failsNextNew = false;
    EXPECT_EQ(value, "");
    EXPECT_TRUE(
        wasLogged(3, "QuilConfigManager::getValue: exception occurred when get value for key [k]"))
        << recordedText();
    EXPECT_EQ(config.getValue(key).size(), 100U) << "the lock was kept, or the value lost";
}

TEST_F(Config, ValueThatCannotBeStoredLeavesTheOldOneAndIsLogged) {
    QuilConfigManager& config = with("k old\n");
    const std::string key = "k";
    const std::string value(100, 'v');
    t_failsNextNew = true;
    config.setValue(key, value);
    t_failsNextNew = false;
    EXPECT_TRUE(
        wasLogged(3, "QuilConfigManager::setValue: exception occurred when set value for key [k]"))
        << recordedText();
    EXPECT_EQ(config.getValue(key), "old");
}

TEST_F(Config, ThreadsMayReadAndWriteAtOnce) {
    QuilConfigManager& config = with("");
    std::atomic<int> wrong{0};
    std::thread writer([&config] {
        for (int i = 0; i < 2000; ++i) {
            config.setValue("k" + std::to_string(i % 50), std::string(50, 'v'));
        }
    });
    for (int i = 0; i < 2000; ++i) {
        const std::string value = config.getValue("k" + std::to_string(i % 50));
        wrong += value.empty() || value == std::string(50, 'v') ? 0 : 1;
    }
    writer.join();
    EXPECT_EQ(wrong, 0);
}
