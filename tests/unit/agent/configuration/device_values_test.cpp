// The device values and the search for one attribute, in real object files below a scratch root.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <thread>

#include "agent/configuration/config_manager.hpp"
#include "tests/support/agent/process_fixture.hpp"
#include "tests/support/recorded_log.hpp"

namespace {

const std::string kDeviceInfo = "/pps/system/nvram/deviceinfo";
const std::string kProperties = "/pps/services/deviceproperties";
const std::string kSimObject = "/pps/services/cellular/uicc/card0/status_private";

class DeviceValue : public ::testing::Test {
  protected:
    ProcessRoot m_root;
};

using ReadAttribute = DeviceValue;

}  // namespace

TEST_F(DeviceValue, FourValuesComeFromTheirObjects) {
    m_root.makeDevice();
    QuilConfigManager& config = *QuilConfigManager::getInstance();
    EXPECT_EQ(config.getImsi(), "302720000000001");
    EXPECT_EQ(config.getDevicePin(), "2a3b");
    EXPECT_EQ(config.getOsVersion(), "10.3");
    EXPECT_EQ(config.getDeviceModel(), "Model 9");
}

TEST_F(DeviceValue, OnlyTheImsiIsReadAtConstruction) {
    m_root.makeDevice();
    QuilConfigManager::getInstance();
    EXPECT_EQ(countRecorded(5, "looking for [imsi]"), 1);
    EXPECT_EQ(countRecorded(5, "looking for [PIN]"), 0);
    EXPECT_EQ(countRecorded(5, "looking for [scmbundle]"), 0);
    EXPECT_EQ(countRecorded(5, "looking for [HardwareID]"), 0);
}

TEST_F(DeviceValue, PinWithout0xStaysAsItIs) {
    m_root.write(kDeviceInfo, "PIN::2a3b\n");
    EXPECT_EQ(QuilConfigManager::getInstance()->getDevicePin(), "2a3b");
}

TEST_F(DeviceValue, PinWith0xFurtherInsideStaysAsItIs) {
    m_root.write(kDeviceInfo, "PIN::x0x1\n");
    EXPECT_EQ(QuilConfigManager::getInstance()->getDevicePin(), "x0x1");
}

TEST_F(DeviceValue, PinWithLarge0XStaysAsItIs) {
    m_root.write(kDeviceInfo, "PIN::0X2a\n");
    EXPECT_EQ(QuilConfigManager::getInstance()->getDevicePin(), "0X2a");
}

TEST_F(DeviceValue, OnlyOne0xIsRemoved) {
    m_root.write(kDeviceInfo, "PIN::0x0x1\n");
    EXPECT_EQ(QuilConfigManager::getInstance()->getDevicePin(), "0x1");
}

TEST_F(DeviceValue, PinOfNothingBut0xCountsAsUnread) {
    m_root.write(kDeviceInfo, "PIN::0x\n");
    QuilConfigManager& config = *QuilConfigManager::getInstance();
    EXPECT_EQ(config.getDevicePin(), "");
    m_root.write(kDeviceInfo, "PIN::0x7\n");
    EXPECT_EQ(config.getDevicePin(), "7");
}

TEST_F(DeviceValue, ValueOnceReadIsNotReadAgain) {
    m_root.makeDevice();
    QuilConfigManager& config = *QuilConfigManager::getInstance();
    config.getDevicePin();
    config.getOsVersion();
    config.getDeviceModel();
    m_root.write(kDeviceInfo, "PIN::1\nHardwareID::2\n");
    m_root.write(kProperties, "scmbundle::3\n");
    clearRecordedLines();
    EXPECT_EQ(config.getDevicePin(), "2a3b");
    EXPECT_EQ(config.getOsVersion(), "10.3");
    EXPECT_EQ(config.getDeviceModel(), "Model 9");
    EXPECT_EQ(recordedText(), "");
}

TEST_F(DeviceValue, ValueThatWasMissingIsReadAgain) {
    QuilConfigManager& config = *QuilConfigManager::getInstance();
    EXPECT_EQ(config.getDevicePin(), "");
    EXPECT_EQ(config.getOsVersion(), "");
    EXPECT_EQ(config.getDeviceModel(), "");
    m_root.makeDevice();
    EXPECT_EQ(config.getDevicePin(), "2a3b");
    EXPECT_EQ(config.getOsVersion(), "10.3");
    EXPECT_EQ(config.getDeviceModel(), "Model 9");
}

TEST_F(DeviceValue, SimThatComesLaterIsNotSeen) {
    QuilConfigManager& config = *QuilConfigManager::getInstance();
    m_root.makeDevice();
    EXPECT_EQ(config.getImsi(), "");
}

TEST_F(DeviceValue, ObjectWithoutAnImsiGivesAnEmptyOne) {
    m_root.write(kSimObject, "@status_private\nstate::absent\n");
    EXPECT_EQ(QuilConfigManager::getInstance()->getImsi(), "");
}

TEST_F(ReadAttribute, FoundValueIsLoggedStepByStepAndLeavesItsDescriptorOpen) {
    m_root.write("/pps/x", "@x\na::1\nb::2\n");
    const int before = countDescriptors();
    EXPECT_EQ(QuilConfigManager::readPpsAttribute("/pps/x", "b"), "2");
    EXPECT_EQ(countDescriptors(), before + 1);
    const std::string log = recordedText();
    const std::string start = "5 Open [/pps/x] returns fd[";
    ASSERT_EQ(log.find(start), 0U) << log;
    EXPECT_GE(std::stoi(log.substr(start.size())), 0);
    const int descriptor = 256;  // where descriptors begin that the loop does not wait on
    EXPECT_NE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_EQ(fcntl(descriptor, F_GETFL) & O_ACCMODE, O_RDONLY);
    EXPECT_EQ(log.substr(log.find('\n') + 1),
              "5 looking for [b]\n5 Read [/pps/x] returns [13] bytes\n");
}

// Else an attribute that is missing for good takes the numbers that ports can be watched under.
TEST_F(ReadAttribute, DescriptorsLeftOpenAreOutOfTheWayOfListeningSockets) {
    m_root.write("/pps/x", "a::1\n");
    const int next = lowestFreeDescriptor();
    for (int i = 0; i < 300; ++i) {
        QuilConfigManager::readPpsAttribute("/pps/x", "absent");
    }
    EXPECT_EQ(lowestFreeDescriptor(), next);
}

TEST_F(ReadAttribute, EveryCallLeavesOneDescriptorOpen) {
    m_root.write("/pps/x", "a::1\n");
    const int before = countDescriptors();
    for (int i = 0; i < 3; ++i) {
        QuilConfigManager::readPpsAttribute("/pps/x", "a");
        QuilConfigManager::readPpsAttribute("/pps/x", "absent");
    }
    EXPECT_EQ(countDescriptors(), before + 6);
}

TEST_F(ReadAttribute, AbsentAttributeEndsWithTheObject) {
    m_root.write("/pps/x", "a::1\n");
    errno = 0;
    EXPECT_EQ(QuilConfigManager::readPpsAttribute("/pps/x", "b"), "");
    const std::string log = recordedText();
    EXPECT_EQ(log.substr(log.find('\n') + 1),
              "5 looking for [b]\n5 Read [/pps/x] returns [5] bytes\n"
              "5 Read [/pps/x] returns [0] bytes\n5 Read [/pps/x] errno[0] error[Success]\n");
}

TEST_F(ReadAttribute, MissingObjectIsEmptyAndLeavesNoDescriptor) {
    const int before = countDescriptors();
    EXPECT_EQ(QuilConfigManager::readPpsAttribute("/pps/none", "a"), "");
    EXPECT_EQ(countDescriptors(), before);
    EXPECT_EQ(recordedText(),
              "5 Open [/pps/none] returns fd[-1]\n"
              "5 Open [/pps/none] errno[2] error[No such file or directory]\n");
}

TEST_F(ReadAttribute, ReadThatFailsIsEmptyAndSaysWhy) {
    m_root.makeFolder("/pps/folder");
    EXPECT_EQ(QuilConfigManager::readPpsAttribute("/pps/folder", "a"), "");
    EXPECT_TRUE(wasLogged(5, "Read [/pps/folder] returns [-1] bytes")) << recordedText();
    EXPECT_TRUE(wasLogged(5, "Read [/pps/folder] errno[21] error[Is a directory]"))
        << recordedText();
}

TEST_F(ReadAttribute, EmptyObjectIsEmpty) {
    m_root.write("/pps/x", "");
    EXPECT_EQ(QuilConfigManager::readPpsAttribute("/pps/x", "a"), "");
}

TEST_F(ReadAttribute, CodedAttributesAreHandedOutAsTheyStand) {
    m_root.write("/pps/x", "n:n:17\nc:c:a\\nb\nj:json:{\"a\":1}\n");
    EXPECT_EQ(QuilConfigManager::readPpsAttribute("/pps/x", "n"), "17");
    EXPECT_EQ(QuilConfigManager::readPpsAttribute("/pps/x", "c"), "a\\nb");
    EXPECT_EQ(QuilConfigManager::readPpsAttribute("/pps/x", "j"), "{\"a\":1}");
}

TEST_F(ReadAttribute, NameHasToMatchWhole) {
    m_root.write("/pps/x", "imsi2::a\nxims::b\nIMSI::c\nims::d\n");
    EXPECT_EQ(QuilConfigManager::readPpsAttribute("/pps/x", "imsi"), "");
}

TEST_F(ReadAttribute, ObjectLinesRemovalsAndDamagedLinesAreNoAttributes) {
    m_root.write("/pps/x", "@a\n+@a\n-@a\n-a\na\na:b\n::\n\na::found\n");
    EXPECT_EQ(QuilConfigManager::readPpsAttribute("/pps/x", "a"), "found");
    EXPECT_EQ(QuilConfigManager::readPpsAttribute("/pps/x", "@a"), "");
}

TEST_F(ReadAttribute, FirstOfEqualAttributesCounts) {
    m_root.write("/pps/x", "a::1\na::2\n");
    EXPECT_EQ(QuilConfigManager::readPpsAttribute("/pps/x", "a"), "1");
}

TEST_F(ReadAttribute, EmptyValueIsAMatch) {
    m_root.write("/pps/x", "a::\na::2\n");
    EXPECT_EQ(QuilConfigManager::readPpsAttribute("/pps/x", "a"), "");
}

TEST_F(ReadAttribute, LastLineWithoutALineFeedIsNeverComplete) {
    m_root.write("/pps/x", "a::1");
    EXPECT_EQ(QuilConfigManager::readPpsAttribute("/pps/x", "a"), "");
}

// The first read takes 15359 bytes, of which 9 are the begin of the wanted line.
TEST_F(ReadAttribute, LineAcrossTheEndOfTheBufferIsPutTogether) {
    const std::string filler = "filler::" + std::string(15350 - 9, 'f') + "\n";
    ASSERT_EQ(filler.size(), 15350U);
    m_root.write("/pps/x", filler + "wanted::across the border\nrest::1\n");
    EXPECT_EQ(QuilConfigManager::readPpsAttribute("/pps/x", "wanted"), "across the border");
    EXPECT_TRUE(wasLogged(5, "Read [/pps/x] returns [15359] bytes")) << recordedText();
    EXPECT_TRUE(wasLogged(5, "Read [/pps/x] returns [25] bytes")) << recordedText();
}

TEST_F(ReadAttribute, FurtherReadsAskForWhatTheTailLeavesRoomFor) {
    const std::string filler = "filler::" + std::string(15350 - 9, 'f') + "\n";
    const std::string second = "second::" + std::string(15000, 's') + "\n";
    m_root.write("/pps/x", filler + second + "more::" + std::string(1000, 'm') + "\nwanted::1\n");
    EXPECT_EQ(QuilConfigManager::readPpsAttribute("/pps/x", "wanted"), "1");
    EXPECT_TRUE(wasLogged(5, "Read [/pps/x] returns [15350] bytes")) << recordedText();
}

TEST_F(ReadAttribute, ObjectOfManyBuffersIsSearchedToItsEnd) {
    std::string text = "@x\n";
    for (int i = 0; i < 20000; ++i) {
        text += "attribute" + std::to_string(i) + "::" + std::to_string(i) + "\n";
    }
    m_root.write("/pps/x", text + "wanted::last\n");
    EXPECT_EQ(QuilConfigManager::readPpsAttribute("/pps/x", "wanted"), "last");
    EXPECT_EQ(QuilConfigManager::readPpsAttribute("/pps/x", "attribute12345"), "12345");
}

TEST_F(ReadAttribute, LineThatFillsTheBufferToItsLastByteIsRead) {
    const std::string value(15359 - 4, 'v');
    m_root.write("/pps/x", "a::" + value + "\nb::2\n");
    EXPECT_EQ(QuilConfigManager::readPpsAttribute("/pps/x", "a"), value);
    EXPECT_EQ(QuilConfigManager::readPpsAttribute("/pps/x", "b"), "2");
}

TEST_F(ReadAttribute, LineLongerThanTheBufferEndsTheSearch) {
    m_root.write("/pps/x", "a::" + std::string(15359 - 3, 'v') + "\nb::2\n");
    EXPECT_EQ(QuilConfigManager::readPpsAttribute("/pps/x", "a"), "");
    EXPECT_EQ(QuilConfigManager::readPpsAttribute("/pps/x", "b"), "");
}

TEST_F(ReadAttribute, ObjectThatComesByteByByteIsPutTogether) {
    m_root.makeFolder("/pps");
    const std::string path = m_root.at("/pps/slow");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    std::thread writer([&path] {
        const int end = open(path.c_str(), O_WRONLY | O_CLOEXEC);
        for (const char byte : std::string("a::1\nwanted::slow\n")) {
            EXPECT_EQ(write(end, &byte, 1), 1);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        close(end);
    });
    EXPECT_EQ(QuilConfigManager::readPpsAttribute("/pps/slow", "wanted"), "slow");
    writer.join();
}
