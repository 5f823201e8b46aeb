// Opening the served object.

#include "agent/clients/client_object.hpp"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "agent/clients/client_reply.hpp"
#include "agent/messages/reply_messages.hpp"
#include "tests/support/agent/clients_fixture.hpp"

namespace {

class ClientObject : public ClientsTest {
  protected:
    unsigned modeOf(const std::string& inRoot) const {
        struct stat status {};
        EXPECT_EQ(stat(path(inRoot).c_str(), &status), 0) << inRoot;
        return status.st_mode & 07777U;
    }
};

}  // namespace

TEST_F(ClientObject, OpeningLogsEachStep) {
    prepareObject();
    const int descriptor = clientIfInit();
    EXPECT_GE(descriptor, 0);
    EXPECT_EQ(clientDescriptor(), descriptor);
    EXPECT_EQ(linesOf("client_object.cpp"),
              "5 clientIfInit - Opening PPS file as server.\n"
              "6 chmod /pps/services/push/ done\n"
              "6 chmod [/pps/services/push/ipc] done\n"
              "6 clientIfInit - Done.\n");
}

TEST_F(ClientObject, DescriptorIsMinusOneBeforeOpening) {
    EXPECT_EQ(clientDescriptor(), -1);
}

TEST_F(ClientObject, OpensTheServerNameForReadingAndWritingAndCloseOnExec) {
    prepareObject();
    const int descriptor = clientIfInit();
    char name[4096] = {};
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    ASSERT_GT(readlink(link.c_str(), name, sizeof name - 1), 0);
    EXPECT_EQ(name, std::filesystem::canonical(path("/pps/services/push/ipc?server")).string());
    EXPECT_EQ(fcntl(descriptor, F_GETFL) & O_ACCMODE, O_RDWR);
    EXPECT_EQ(fcntl(descriptor, F_GETFD), FD_CLOEXEC);
}

TEST_F(ClientObject, CreatesTheServerNameWhereItIsMissing) {
    writeFile("/pps/services/push/ipc", "");
    umask(0);
    EXPECT_NE(clientIfInit(), -1);
    EXPECT_EQ(modeOf("/pps/services/push/ipc?server"), 0666U);
}

TEST_F(ClientObject, MakesTheFolderWithItsModeWhateverTheUmask) {
    std::filesystem::remove_all(path("/pps/services/push"));
    umask(077);
    clientIfInit();
    EXPECT_EQ(modeOf("/pps/services/push"), 0755U);
    EXPECT_TRUE(wasLogged(6, "chmod /pps/services/push/ done")) << recordedText();
}

TEST_F(ClientObject, ExistingFolderGetsTheMode) {
    prepareObject();
    chmod(path("/pps/services/push").c_str(), 0700);
    clientIfInit();
    EXPECT_EQ(modeOf("/pps/services/push"), 0755U);
}

TEST_F(ClientObject, EveryApplicationMayUseTheObjectAfterwards) {
    prepareObject();
    chmod(path("/pps/services/push/ipc").c_str(), 0600);
    clientIfInit();
    EXPECT_EQ(modeOf("/pps/services/push/ipc"), 0666U);
}

TEST_F(ClientObject, FolderThatCannotBeMadeIsLoggedAndOpeningIsTriedAllTheSame) {
    std::filesystem::remove_all(path("/pps"));
    testing::internal::CaptureStderr();
    EXPECT_EQ(clientIfInit(), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "/pps/services/push/ipc: No such file or directory\n");
    EXPECT_EQ(clientDescriptor(), -1);
    EXPECT_EQ(linesOf("client_object.cpp"),
              "5 clientIfInit - Opening PPS file as server.\n"
              "2 Error chmod /pps/services/push/ errno[2] error[No such file or directory]\n"
              "2 Error opening /pps/services/push/ipc for RW errno[2] error[No such file or "
              "directory].\n");
}

TEST_F(ClientObject, ObjectThatCannotBeOpenedGivesMinusOne) {
    std::filesystem::create_directory(path("/pps/services/push/ipc?server"));
    EXPECT_EQ(clientIfInit(), -1);
    EXPECT_EQ(clientDescriptor(), -1);
    EXPECT_TRUE(wasLogged(
        2, "Error opening /pps/services/push/ipc for RW errno[21] error[Is a directory]."))
        << recordedText();
}

TEST_F(ClientObject, FailedSecondOpeningForgetsTheDescriptorOfTheFirst) {
    prepareObject();
    ASSERT_NE(clientIfInit(), -1);
    std::filesystem::remove(path("/pps/services/push/ipc?server"));
    std::filesystem::create_directory(path("/pps/services/push/ipc?server"));
    EXPECT_EQ(clientIfInit(), -1);
    EXPECT_EQ(clientDescriptor(), -1);
}

// Kept on purpose: without its mode the object is reported as not opened, but replies still go out.
TEST_F(ClientObject, FailedModeChangeGivesMinusOneButKeepsTheDescriptorForReplies) {
    EXPECT_EQ(clientIfInit(), -1);  // there is no "ipc" whose mode could be set
    EXPECT_TRUE(wasLogged(
        2, "Error chmod [/pps/services/push/ipc] errno[2] error[No such file or directory]"))
        << recordedText();
    EXPECT_FALSE(wasLogged(6, "clientIfInit - Done."));
    ASSERT_NE(clientDescriptor(), -1);
    replaceDescriptor();
    sendMessage(std::make_unique<QuilResponseMessage>("app", "7", "@ipc.17"));
    EXPECT_EQ(nextReply(), "@ipc.17\nid::7\n");
}
