// Opening the served object, and reading requests from it.

#include "agent/client_if.hpp"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "agent/client_reply.hpp"
#include "agent/messages/reply_messages.hpp"
#include "tests/unit/agent/clients_fixture.hpp"

namespace {

class ClientIf : public ClientsTest {
  protected:
    unsigned modeOf(const std::string& inRoot) const {
        struct stat status {};
        EXPECT_EQ(stat(path(inRoot).c_str(), &status), 0) << inRoot;
        return status.st_mode & 07777U;
    }
};

// A request of `size` bytes whose last line is its id.
std::string requestOfSize(std::size_t size) {
    std::string text =
        "@ipc.17\nmsg::createSession\ndat:json:{\"providerApplicationId\":\"app\"}\nid::";
    text.append(size - text.size(), 'x');
    return text;
}

std::size_t idLength(const std::string& queued) {
    const std::size_t begin = queued.find(" id=") + 4;
    return queued.find(" client=") - begin;
}

}  // namespace

TEST_F(ClientIf, OpeningLogsEachStep) {
    prepareObject();
    const int descriptor = clientIfInit();
    EXPECT_GE(descriptor, 0);
    EXPECT_EQ(clientDescriptor(), descriptor);
    EXPECT_EQ(linesOf("client_if.cpp"),
              "5 clientIfInit - Opening PPS file as server.\n"
              "6 chmod /pps/services/push/ done\n"
              "6 chmod [/pps/services/push/ipc] done\n"
              "6 clientIfInit - Done.\n");
}

TEST_F(ClientIf, DescriptorIsMinusOneBeforeOpening) {
    EXPECT_EQ(clientDescriptor(), -1);
}

TEST_F(ClientIf, OpensTheServerNameForReadingAndWritingAndCloseOnExec) {
    prepareObject();
    const int descriptor = clientIfInit();
    char name[4096] = {};
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    ASSERT_GT(readlink(link.c_str(), name, sizeof name - 1), 0);
    EXPECT_EQ(name, std::filesystem::canonical(path("/pps/services/push/ipc?server")).string());
    EXPECT_EQ(fcntl(descriptor, F_GETFL) & O_ACCMODE, O_RDWR);
    EXPECT_EQ(fcntl(descriptor, F_GETFD), FD_CLOEXEC);
}

TEST_F(ClientIf, CreatesTheServerNameWhereItIsMissing) {
    writeFile("/pps/services/push/ipc", "");
    umask(0);
    EXPECT_NE(clientIfInit(), -1);
    EXPECT_EQ(modeOf("/pps/services/push/ipc?server"), 0666U);
}

TEST_F(ClientIf, MakesTheFolderWithItsModeWhateverTheUmask) {
    std::filesystem::remove_all(path("/pps/services/push"));
    umask(077);
    clientIfInit();
    EXPECT_EQ(modeOf("/pps/services/push"), 0755U);
    EXPECT_TRUE(wasLogged(6, "chmod /pps/services/push/ done")) << recordedText();
}

TEST_F(ClientIf, ExistingFolderGetsTheMode) {
    prepareObject();
    chmod(path("/pps/services/push").c_str(), 0700);
    clientIfInit();
    EXPECT_EQ(modeOf("/pps/services/push"), 0755U);
}

TEST_F(ClientIf, EveryApplicationMayUseTheObjectAfterwards) {
    prepareObject();
    chmod(path("/pps/services/push/ipc").c_str(), 0600);
    clientIfInit();
    EXPECT_EQ(modeOf("/pps/services/push/ipc"), 0666U);
}

TEST_F(ClientIf, FolderThatCannotBeMadeIsLoggedAndOpeningIsTriedAllTheSame) {
    std::filesystem::remove_all(path("/pps"));
    testing::internal::CaptureStderr();
    EXPECT_EQ(clientIfInit(), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "/pps/services/push/ipc: No such file or directory\n");
    EXPECT_EQ(clientDescriptor(), -1);
    EXPECT_EQ(linesOf("client_if.cpp"),
              "5 clientIfInit - Opening PPS file as server.\n"
              "2 Error chmod /pps/services/push/ errno[2] error[No such file or directory]\n"
              "2 Error opening /pps/services/push/ipc for RW errno[2] error[No such file or "
              "directory].\n");
}

TEST_F(ClientIf, ObjectThatCannotBeOpenedGivesMinusOne) {
    std::filesystem::create_directory(path("/pps/services/push/ipc?server"));
    EXPECT_EQ(clientIfInit(), -1);
    EXPECT_EQ(clientDescriptor(), -1);
    EXPECT_TRUE(wasLogged(
        2, "Error opening /pps/services/push/ipc for RW errno[21] error[Is a directory]."))
        << recordedText();
}

TEST_F(ClientIf, FailedSecondOpeningForgetsTheDescriptorOfTheFirst) {
    prepareObject();
    ASSERT_NE(clientIfInit(), -1);
    std::filesystem::remove(path("/pps/services/push/ipc?server"));
    std::filesystem::create_directory(path("/pps/services/push/ipc?server"));
    EXPECT_EQ(clientIfInit(), -1);
    EXPECT_EQ(clientDescriptor(), -1);
}

// Kept on purpose: without its mode the object is reported as not opened, but replies still go out.
TEST_F(ClientIf, FailedModeChangeGivesMinusOneButKeepsTheDescriptorForReplies) {
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

TEST_F(ClientIf, ReadGivesTheByteCountAndLogsWhatCame) {
    serveObject();
    EXPECT_EQ(request("@ipc.17\nx::y\n"), 13);
    EXPECT_EQ(linesOf("client_if.cpp"),
              "5 clientIf_getMsg - Reading incoming IPC request.\n"
              "6 clientPPSMessageGet: len 13 recv: << @ipc.17\nx::y\n >>\n"
              "6 client id (connection id) @ipc.17\n"
              "6 msg []\n"
              "3 Empty message received from [@ipc.17].\n");
}

TEST_F(ClientIf, FailedReadIsLoggedAndProcessesNothing) {
    EXPECT_EQ(clientPPSMessageGet(), -1);  // nothing has been opened
    EXPECT_EQ(linesOf("client_if.cpp"),
              "5 clientIf_getMsg - Reading incoming IPC request.\n"
              "3 clientPPSMessageGet: Unable to read push PPS object.\n");
}

TEST_F(ClientIf, EmptyReadIsProcessedLikeAnyOther) {
    serveObject();
    shutdown(m_client, SHUT_RDWR);
    EXPECT_EQ(clientPPSMessageGet(), 0);
    EXPECT_TRUE(wasLogged(6, "clientPPSMessageGet: len 0 recv: <<  >>")) << recordedText();
    EXPECT_TRUE(wasLogged(3, "Empty message received from []."));
    EXPECT_EQ(drainQueue(), "");
}

TEST_F(ClientIf, RequestOf8191BytesIsReadWhole) {
    serveObject();
    const std::string text = requestOfSize(8191);
    EXPECT_EQ(request(text), 8191);
    EXPECT_EQ(idLength(drainQueue()), text.size() - text.rfind(':') - 1);
}

TEST_F(ClientIf, RequestOf8192BytesIsReadToItsLastByteAndNoFurther) {
    serveObject();
    const std::string text = requestOfSize(8192);
    EXPECT_EQ(request(text), 8192);
    EXPECT_EQ(idLength(drainQueue()), text.size() - text.rfind(':') - 1);
}

TEST_F(ClientIf, LongerRequestIsCutAt8192Bytes) {
    serveObject();
    const std::string text = requestOfSize(9000);
    EXPECT_EQ(request(text), 8192);
    EXPECT_EQ(idLength(drainQueue()), 8192 - text.rfind(':') - 1);
}

TEST_F(ClientIf, NothingOfALongRequestIsLeftInTheNextOne) {
    serveObject();
    request(requestOfSize(8192));
    drainQueue();
    clearRecordedLines();
    request("@ipc.18\nmsg::");
    EXPECT_TRUE(wasLogged(6, "clientPPSMessageGet: len 13 recv: << @ipc.18\nmsg:: >>"))
        << recordedText();
    EXPECT_TRUE(wasLogged(3, "Empty message received from [@ipc.18]."));
    EXPECT_EQ(drainQueue(), "");
}

TEST_F(ClientIf, RequestsAreCarriedOutOneByOneInTheirOrder) {
    serveObject();
    for (const char* id : {"1", "2", "3"}) {
        sendRequest("@ipc.17\nmsg::createSession\nid::" + std::string(id) +
                    "\ndat:json:{\"providerApplicationId\":\"app\"}\n");
    }
    clientPPSMessageGet();
    EXPECT_EQ(drainQueue(), "type=1 app=app id=1 client=@ipc.17 err=0\n");
    clientPPSMessageGet();
    clientPPSMessageGet();
    EXPECT_EQ(drainQueue(),
              "type=1 app=app id=2 client=@ipc.17 err=0\n"
              "type=1 app=app id=3 client=@ipc.17 err=0\n");
}

// The object as the agent opens it, without anything put in its place.
TEST_F(ClientIf, RequestThroughAFifoIsCarriedOut) {
    writeFile("/pps/services/push/ipc", "");
    ASSERT_EQ(mkfifo(path("/pps/services/push/ipc?server").c_str(), 0666), 0);
    const int descriptor = clientIfInit();
    ASSERT_NE(descriptor, -1);
    const std::string text = golden("requests_create_session.txt");
    ASSERT_EQ(write(descriptor, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    EXPECT_EQ(clientPPSMessageGet(), static_cast<int>(text.size()));
    EXPECT_EQ(drainQueue(), "type=1 app=com.example.news id=1 client=@ipc.17 err=0\n");
}
