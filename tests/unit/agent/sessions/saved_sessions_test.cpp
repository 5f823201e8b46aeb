// The data manager: opening the object, what a save writes, what a load reads, whose SIM it was.

#include "agent/sessions/saved_sessions.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>

#include "agent/configuration/config_manager.hpp"
#include "agent/sessions/session_manager.hpp"
#include "agent/sessions/states/session_states.hpp"
#include "tests/support/agent/sessions_fixture.hpp"
#include "tests/support/recorded_log.hpp"
#include "tests/support/scarce_memory.hpp"

namespace {

constexpr const char* kFolder = "/pps/services/push";
constexpr const char* kObject = "/pps/services/push/quilagent";
constexpr std::size_t kLoadBytes = 15359;

class DataManager : public SessionsTest {
  protected:
    DataManager() { umask(0); }

    // Made after the configuration, as at start-up.
    static QuilDataManager& manager() {
        QuilConfigManager::getInstance();
        return *QuilDataManager::getInstance();
    }

    mode_t modeOf(const std::string& path) const {
        struct stat status {};
        EXPECT_EQ(stat(m_platform.real(path).c_str(), &status), 0) << path;
        return status.st_mode & 07777;
    }

    // A registered session with a port number, not listening.
    static QuilSession& add(const std::string& appId, int port) {
        auto session = std::make_unique<QuilSession>(appId, "@ipc.1");
        QuilSessionManager::getInstance()->addSession(session);
        QuilSession& added = *QuilSessionManager::getInstance()->getSessionByAppId(appId);
        putIntoState(added, STATE_REGISTER);
        added.getPort().setPort(port);
        return added;
    }

    // Loads an object that stores `imsi`. The object has to be a FIFO or not read yet.
    void loadImsi(const std::string& imsi) {
        m_platform.write(kObject, "@quilagent\nversion::1\nimsi::" + imsi + "\n");
        manager().load();
    }

    // What is logged when the object is opened, with `errno` cleared before.
    static std::string openingLines() {
        QuilConfigManager::getInstance();
        clearRecordedLines();
        errno = 0;
        QuilDataManager::getInstance();
        return recordedText();
    }
};

// The text of an object of exactly `size` bytes: one session whose launch string fills it up.
std::string objectOfSize(std::size_t size) {
    const std::string head =
        "@quilagent\nversion::5.0.0\nimsi::\ndat:json:{\"sessions\":[{\"providerApplicationId\":"
        "\"app\",\"ppgUrl\":\"\",\"launchString\":\"";
    const std::string tail = "\",\"token\":\"\",\"port\":4711}]}\n";
    return head + std::string(size - head.size() - tail.size(), 'l') + tail;
}

}  // namespace

TEST_F(DataManager, IsOneObjectWithAVirtualDestructorAlone) {
    m_platform.makeFolders(kFolder);
    EXPECT_EQ(QuilDataManager::getInstance(), &manager());
    EXPECT_TRUE(std::has_virtual_destructor_v<QuilDataManager>);
}

TEST_F(DataManager, CreatesTheObjectForOwnerAndGroup) {
    m_platform.makeFolders(kFolder);
    const std::string text = openingLines();
    EXPECT_EQ(modeOf(kObject), 0660U);
    EXPECT_EQ(text.find("5 QuilDataManager::setupPpsHandle: open PPS file"
                        "[/pps/services/push/quilagent] errno[0] handle["),
              0U)
        << text;
    EXPECT_EQ(text.find("handle[-1]"), std::string::npos) << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
}

TEST_F(DataManager, OpensAnObjectThatIsThereAndLeavesItAlone) {
    m_platform.write(kObject, "@quilagent\n");
    chmod(m_platform.real(kObject).c_str(), 0600);
    openingLines();
    EXPECT_EQ(m_platform.read(kObject), "@quilagent\n");
    EXPECT_EQ(modeOf(kObject), 0600U);
}

TEST_F(DataManager, MakesTheFolderAndThenTheObjectForEverybody) {
    m_platform.makeFolders("/pps/services");
    EXPECT_EQ(openingLines(),
              "5 QuilDataManager::setupPpsHandle: open PPS file[/pps/services/push/quilagent] "
              "errno[2] handle[-1]\n"
              "3 Could not open PPS file [/pps/services/push/quilagent], errno=2\n");
    EXPECT_EQ(modeOf(kFolder), 0755U);
    EXPECT_EQ(modeOf(kObject), 0666U);
    clearRecordedLines();
    EXPECT_EQ(manager().save(), 1);
    EXPECT_NE(m_platform.read(kObject), "");
}

TEST_F(DataManager, FolderThatCannotBeMadeLeavesNoHandle) {
    EXPECT_EQ(openingLines(),
              "5 QuilDataManager::setupPpsHandle: open PPS file[/pps/services/push/quilagent] "
              "errno[2] handle[-1]\n"
              "3 Could not open PPS file [/pps/services/push/quilagent], errno=2\n"
              "3 ERROR: could not create PPS path[/pps/services/push/], errno=2 fd=-1\n");
}

TEST_F(DataManager, FolderThatExistsLeavesNoHandleEither) {
    m_platform.makeFolders(kObject);  // a folder where the object should be
    EXPECT_EQ(openingLines(),
              "5 QuilDataManager::setupPpsHandle: open PPS file[/pps/services/push/quilagent] "
              "errno[21] handle[-1]\n"
              "3 Could not open PPS file [/pps/services/push/quilagent], errno=21\n"
              "3 ERROR: could not create PPS path[/pps/services/push/], errno=17 fd=-1\n");
}

TEST_F(DataManager, ObjectThatStillCannotBeMadeLeavesNoHandle) {
    m_platform.makeFolders("/pps/services");
    QuilConfigManager::getInstance();
    clearRecordedLines();
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit none{0, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    QuilDataManager::getInstance();
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(recordedText(),
              "5 QuilDataManager::setupPpsHandle: open PPS file[/pps/services/push/quilagent] "
              "errno[24] handle[-1]\n"
              "3 Could not open PPS file [/pps/services/push/quilagent], errno=24\n"
              "3 ERROR: Could not create PPS  file [/pps/services/push/quilagent], errno=24 "
              "fd=-1\n");
}

TEST_F(DataManager, WithoutAHandleLoadFindsNothingAndSaveOnlyCounts) {
    openingLines();
    EXPECT_EQ(manager().load(), 1);
    clearRecordedLines();
    EXPECT_EQ(manager().save(), 1);
    EXPECT_TRUE(wasLogged(5, "Save: Wrote -1 bytes to pps.")) << recordedText();
}

TEST_F(DataManager, ReopeningSavesIntoTheObjectThatIsThereNow) {
    m_platform.makeFolders(kFolder);
    manager();
    std::filesystem::remove(m_platform.real(kObject));  // what is open now is nobody's any more
    EXPECT_EQ(manager().reopenAndSave(), 1);
    EXPECT_NE(m_platform.read(kObject), "");
}

// The object service came back and went again, or had no descriptor left, in that moment.
TEST_F(DataManager, ReopeningThatFailedIsTriedAgainAtEachSave) {
    m_platform.makeFolders(kFolder);
    manager();
    const std::string object = m_platform.real(kObject);
    std::filesystem::remove(object);
    std::filesystem::create_directory(object);  // which cannot be opened for writing
    clearRecordedLines();
    EXPECT_EQ(manager().reopenAndSave(), 0);
    const std::string failed =
        "Could not open PPS file [/pps/services/push/quilagent], errno=" + std::to_string(EISDIR);
    EXPECT_EQ(countRecorded(3, failed), 1) << recordedText();
    manager().save();
    EXPECT_EQ(countRecorded(3, failed), 2) << recordedText();
    std::filesystem::remove(object);
    EXPECT_EQ(manager().save(), 1);
    EXPECT_NE(m_platform.read(kObject), "") << "saved to an object that is gone";
    EXPECT_EQ(countRecorded(3, failed), 2);
    // And then it is left open.
    std::filesystem::remove(object);
    EXPECT_EQ(manager().save(), 1);
    EXPECT_FALSE(std::filesystem::exists(object));
}

TEST_F(DataManager, FirstStartLoadsNothing) {
    m_platform.makeFolders(kFolder);
    m_platform.setImsi("123");
    manager();
    clearRecordedLines();
    EXPECT_EQ(manager().load(), 1);
    EXPECT_EQ(recordedText(),
              "6 m_imsi[] current imsi [123]\n"
              "6 load: is_same_sim [1]\n"
              "6 Load: n_sessions [0]\n"
              "6 Load: session manager.load returns 1\n");
    EXPECT_EQ(m_platform.read(kObject), "");
}

TEST_F(DataManager, LoadLogsWhatItRead) {
    const std::string text = "@quilagent\nversion::4.9\nimsi::123\ndat:json:{\"sessions\":[]}\n";
    m_platform.setImsi("123");
    m_platform.write(kObject, text);
    manager();
    clearRecordedLines();
    EXPECT_EQ(manager().load(), 1);
    EXPECT_EQ(recordedText(), "6 Read: " + text +
                                  "\n6 QuilDataManager: imsi [123] version[4.9]\n"
                                  "6 m_imsi[123] current imsi [123]\n"
                                  "6 load: is_same_sim [1]\n"
                                  "6 Load: n_sessions [0]\n"
                                  "6 Load: session manager.load returns 1\n");
}

TEST_F(DataManager, OrderOfTheAttributesDoesNotMatter) {
    m_platform.setImsi("123");
    m_platform.write(kObject,
                     "@quilagent\ndat:json:{\"sessions\":[{\"providerApplicationId\":\"a\"}]}\n"
                     "other:n:5\nimsi::999\nversion::4.9\n");
    EXPECT_EQ(manager().load(), 1);
    EXPECT_TRUE(wasLogged(6, "QuilDataManager: imsi [999] version[4.9]")) << recordedText();
    EXPECT_EQ(stateOf(*QuilSessionManager::getInstance()->getSessionByAppId("a")),
              STATE_SIM_CHANGE);
}

TEST_F(DataManager, UnparsableObjectRestoresNothing) {
    m_platform.write(kObject,
                     "@quilagent\nimsi::1\ndat:json:{\"sessions\":[{\"providerApplicationId\":"
                     "\"a\"}}\n");
    manager();
    clearRecordedLines();
    EXPECT_EQ(manager().load(), 0);
    EXPECT_EQ(recordedText().find("n_sessions"), std::string::npos) << recordedText();
    EXPECT_EQ(QuilSessionManager::getInstance()->getSessionByAppId("a"), nullptr);
}

TEST_F(DataManager, ObjectOfNothingButZeroBytesRestoresNothing) {
    m_platform.write(kObject, std::string(10, '\0'));
    EXPECT_EQ(manager().load(), 0);
}

TEST_F(DataManager, SaveWritesVersionImsiAndSessions) {
    m_platform.makeFolders(kFolder);
    m_platform.setImsi("310150123456789");
    m_platform.configure("version 7.1\n");
    add("app", 4711).setToken("2FFF");
    manager();
    clearRecordedLines();
    EXPECT_EQ(manager().save(), 1);
    const std::string text =
        "@quilagent\nversion::7.1\nimsi::310150123456789\n"
        "dat:json:{\"sessions\":[{\"providerApplicationId\":\"app\",\"ppgUrl\":\"\","
        "\"launchString\":\"\",\"token\":\"2FFF\",\"port\":4711}]}\n";
    EXPECT_EQ(m_platform.read(kObject), text);
    EXPECT_EQ(recordedText(),
              "6 Save: adding imsi and version to the quilagent pps object 310150123456789 7.1\n"
              "6 Save: appid [app] ppgUrl []\n"
              "6 Save: session manager.save returns 1\n"
              "5 Save: Wrote " +
                  std::to_string(text.size()) + " bytes to pps.\n");
}

TEST_F(DataManager, DefaultVersionIs500) {
    m_platform.makeFolders(kFolder);
    manager().save();
    EXPECT_EQ(m_platform.read(kObject),
              "@quilagent\nversion::5.0.0\nimsi::\ndat:json:{\"sessions\":[]}\n");
}

TEST_F(DataManager, SaveWritesTheRunningVersionAndImsiWhateverWasStored) {
    m_platform.setImsi("456");
    loadImsi("123");
    manager().save();
    const std::string text = m_platform.read(kObject);
    EXPECT_NE(text.find("@quilagent\nversion::5.0.0\nimsi::456\n"), std::string::npos) << text;
}

TEST_F(DataManager, EachSaveIsOneWholeObjectWrittenInOnePiece) {
    const int fifo = m_platform.makeFifo(kObject);
    add("app", 4711);
    manager().save();
    const std::string first = readAvailable(fifo);
    manager().save();
    EXPECT_EQ(readAvailable(fifo), first);
}

TEST_F(DataManager, SaveNeitherSeeksNorTruncates) {
    m_platform.write(kObject, "@quilagent\nimsi::1\nversion::1\nother::stays\n");
    const std::string before = m_platform.read(kObject);
    manager().load();
    manager().save();
    EXPECT_EQ(m_platform.read(kObject).substr(0, before.size()), before);
    EXPECT_GT(m_platform.read(kObject).size(), before.size());
}

TEST_F(DataManager, WithoutConfigurationNothingIsSaved) {
    m_platform.makeFolders(kFolder);
    const std::string host(200, 'h');
    m_platform.configure("proxy-host " + host + "\n");
    {
        const ScarceMemory memory(host.size() + 1);
        ASSERT_EQ(QuilConfigManager::getInstance(), nullptr);
    }
    manager();
    clearRecordedLines();
    EXPECT_EQ(manager().save(), 0);
    EXPECT_EQ(recordedText(), "5 QuilDataManager::initEncoder: config_mgr is NULL\n");
    EXPECT_EQ(m_platform.read(kObject), "");
}

TEST_F(DataManager, WithoutSessionManagerNothingIsSavedOrLoaded) {
    m_platform.makeFolders(kFolder);
    manager();
    {
        const NoNothrowMemory none;
        ASSERT_EQ(QuilSessionManager::getInstance(), nullptr);
    }
    clearRecordedLines();
    EXPECT_EQ(manager().save(), 0);
    EXPECT_TRUE(wasLogged(5, "QuilDataManager::save: session manager is NULL")) << recordedText();
    EXPECT_EQ(manager().load(), 0);
    EXPECT_TRUE(wasLogged(5, "QuilDataManager::load: session manager is NULL")) << recordedText();
    EXPECT_EQ(m_platform.read(kObject), "");
}

TEST_F(DataManager, SaveThatFailedInTheSessionManagerWritesNothing) {
    m_platform.makeFolders(kFolder);
    add(longText('a'), 4711);
    manager();
    clearRecordedLines();
    const ScarceMemory memory(kLongTextBytes);
    EXPECT_EQ(manager().save(), 0);
    EXPECT_TRUE(memory.hasFailed());
    EXPECT_TRUE(wasLogged(6, "Save: session manager.save returns 0")) << recordedText();
    EXPECT_EQ(recordedText().find("Wrote"), std::string::npos) << recordedText();
    EXPECT_EQ(m_platform.read(kObject), "");
}

TEST_F(DataManager, OutOfMemoryWhileSavingGives0AndTheNextSaveIsWhole) {
    m_platform.makeFolders(kFolder);
    m_platform.setImsi(longText('i'));
    manager();
    {
        const ScarceMemory memory(kLongTextBytes);
        EXPECT_EQ(manager().save(), 0);
        EXPECT_TRUE(memory.hasFailed());
    }
    EXPECT_TRUE(wasLogged(3, "QuilDataManager::save: exception occurred when saving the sessions"))
        << recordedText();
    EXPECT_EQ(m_platform.read(kObject), "");
    EXPECT_EQ(manager().save(), 1);
    EXPECT_EQ(m_platform.read(kObject), "@quilagent\nversion::5.0.0\nimsi::" + longText('i') +
                                            "\ndat:json:{\"sessions\":[]}\n");
}

TEST_F(DataManager, OutOfMemoryWhileLoadingGives0) {
    const int fifo = m_platform.makeFifo(kObject);
    const std::string text = "@quilagent\ndat:json:{\"sessions\":[{\"providerApplicationId\":\"" +
                             longText('a') + "\"}]}\n";
    manager();
    int failures = 0;
    for (int loaded = 0; loaded == 0; ++failures) {
        ASSERT_LT(failures, 50);
        ASSERT_EQ(write(fifo, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        const ScarceMemory memory(kLongTextBytes, failures);
        loaded = manager().load();
        if (loaded == 1 && memory.hasFailed()) {
            // Refused by the session manager, which has a line of its own for it.
            EXPECT_NE(recordedText().find("exception occurred when adding saved session"),
                      std::string::npos);
            loaded = 0;
        }
    }
    EXPECT_GT(failures, 1);
    EXPECT_TRUE(
        wasLogged(3, "QuilDataManager::load: exception occurred when loading the sessions"));
    EXPECT_NE(QuilSessionManager::getInstance()->getSessionByAppId(longText('a')), nullptr);
}

TEST_F(DataManager, SimIsTheSameWhenNoneWasStored) {
    m_platform.setImsi("123");
    loadImsi("");
    clearRecordedLines();
    EXPECT_EQ(manager().is_same_sim(), 1);
    EXPECT_EQ(recordedText(), "6 m_imsi[] current imsi [123]\n");
}

TEST_F(DataManager, SimIsTheSameWhenNoneIsInserted) {
    loadImsi("123");
    clearRecordedLines();
    EXPECT_EQ(manager().is_same_sim(), 1);
    EXPECT_EQ(recordedText(), "6 m_imsi[123] current imsi []\n");
}

TEST_F(DataManager, SimIsTheSameWhenBothAreEqual) {
    m_platform.setImsi("123");
    loadImsi("123");
    EXPECT_EQ(manager().is_same_sim(), 1);
}

TEST_F(DataManager, SimIsAnotherWhenTheyDifferInAnyByte) {
    m_platform.setImsi("123");
    const int fifo = m_platform.makeFifo(kObject);
    manager();
    for (const std::string stored : {"124", "12", "1234", "0123", " 123", "123 "}) {
        const std::string text = "@quilagent\nimsi::" + stored + "\n";
        ASSERT_EQ(write(fifo, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        manager().load();
        EXPECT_EQ(manager().is_same_sim(), 0) << "[" << stored << "]";
    }
}

TEST_F(DataManager, ImsiThatIsNoStringCountsAsNone) {
    m_platform.setImsi("123");
    m_platform.write(kObject, "@quilagent\nimsi:n:456\n");
    EXPECT_EQ(manager().load(), 1);
    EXPECT_EQ(manager().is_same_sim(), 1);
}

TEST_F(DataManager, ReadStringGivesStringsAndElseNothing) {
    pps_decoder_t decoder;
    pps_decoder_initialize(&decoder, "@o\ns::text\nn:n:5\nj:json:{}\n");
    pps_decoder_push(&decoder, nullptr);
    EXPECT_EQ(QuilDataManager::readString(&decoder, "s"), "text");
    EXPECT_EQ(QuilDataManager::readString(&decoder, "n"), "");
    EXPECT_EQ(QuilDataManager::readString(&decoder, "j"), "");
    EXPECT_EQ(QuilDataManager::readString(&decoder, "absent"), "");
}

TEST_F(DataManager, LargestObjectThatCanBeLoadedIsLoaded) {
    m_platform.write(kObject, objectOfSize(kLoadBytes));
    EXPECT_EQ(manager().load(), 1);
    const QuilSession* session = QuilSessionManager::getInstance()->getSessionByAppId("app");
    ASSERT_NE(session, nullptr);
    EXPECT_EQ(session->getPort().getPort(), 4711);
}

TEST_F(DataManager, ObjectTooLargeByMoreThanItsLineFeedRestoresNothing) {
    m_platform.write(kObject, objectOfSize(kLoadBytes + 2));
    EXPECT_EQ(manager().load(), 0);
    EXPECT_EQ(QuilSessionManager::getInstance()->getSessionByAppId("app"), nullptr);
}

TEST_F(DataManager, OfALargerObjectTheFirst15359BytesAreRead) {
    std::string text = "@quilagent\nimsi::123\nfiller::";
    text += std::string(kLoadBytes - text.size(), 'f') + "\nversion::9\n";
    m_platform.write(kObject, text);
    m_platform.setImsi("456");
    EXPECT_EQ(manager().load(), 1);
    EXPECT_TRUE(wasLogged(6, "QuilDataManager: imsi [123] version[]"));
}

TEST_F(DataManager, SaveOfWhatCanJustBeLoadedGivesNoWarning) {
    m_platform.makeFolders(kFolder);
    const std::string expected = objectOfSize(kLoadBytes);
    const auto filler = std::count(expected.begin(), expected.end(), 'l');
    add("app", 4711)
        .setLaunchString(
            std::string(static_cast<std::size_t>(filler) - (expected.size() - kLoadBytes), 'l'));
    manager().save();
    const std::size_t size = m_platform.read(kObject).size();
    // The letter also stands elsewhere in the text; make up for that.
    add("app", 4711)
        .setLaunchString(std::string(static_cast<std::size_t>(filler) + kLoadBytes - size, 'l'));
    clearRecordedLines();
    manager().save();
    EXPECT_TRUE(wasLogged(5, "Save: Wrote 15359 bytes to pps.")) << recordedText();
    EXPECT_EQ(recordedText().find("exceed"), std::string::npos) << recordedText();
}

TEST_F(DataManager, SaveOfMoreThanCanBeLoadedWarnsAndWritesAllOfIt) {
    m_platform.makeFolders(kFolder);
    add("app", 4711);
    manager().save();
    const std::size_t empty = m_platform.read(kObject).size();
    add("app", 4711).setLaunchString(std::string(kLoadBytes + 1 - empty, 'l'));
    clearRecordedLines();
    EXPECT_EQ(manager().save(), 1);
    EXPECT_TRUE(
        wasLogged(3, "QuilDataManager::save: 15360 bytes exceed the 15359 that can be loaded"))
        << recordedText();
    EXPECT_TRUE(wasLogged(5, "Save: Wrote 15360 bytes to pps.")) << recordedText();
    EXPECT_EQ(m_platform.read(kObject).size(), empty + 15360);
}

TEST_F(DataManager, SavesOfTwoThreadsAreAllWhole) {
    m_platform.makeFolders(kFolder);
    add("app", 4711).setToken(longText('t'));
    manager().save();
    const std::string one = m_platform.read(kObject);
    const auto saveOften = [] {
        for (int round = 0; round < 50; ++round) {
            EXPECT_EQ(QuilDataManager::getInstance()->save(), 1);
        }
    };
    std::thread first(saveOften);
    std::thread second(saveOften);
    first.join();
    second.join();
    std::string expected;
    for (int save = 0; save < 101; ++save) {
        expected += one;
    }
    EXPECT_TRUE(m_platform.read(kObject) == expected);
}

TEST_F(DataManager, HandleIsNotInheritedByPrograms) {
    m_platform.makeFolders(kFolder);
    const std::string text = openingLines();
    const std::string handle = text.substr(text.find("handle[") + 7);
    const int descriptor = std::stoi(handle);
    EXPECT_EQ(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}
