// Reading requests from the served object: one read is one request.

#include "agent/requests/request_reader.hpp"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "agent/clients/client_object.hpp"
#include "tests/support/agent/clients_fixture.hpp"

namespace {

using RequestReader = ClientsTest;

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

TEST_F(RequestReader, ReadGivesTheByteCountAndLogsWhatCame) {
    serveObject();
    EXPECT_EQ(request("@ipc.17\nx::y\n"), 13);
    EXPECT_EQ(linesOf("request_reader.cpp"),
              "5 clientIf_getMsg - Reading incoming IPC request.\n"
              "6 clientPPSMessageGet: len 13 recv: << @ipc.17\nx::y\n >>\n"
              "6 client id (connection id) @ipc.17\n"
              "6 msg []\n"
              "3 Empty message received from [@ipc.17].\n");
}

TEST_F(RequestReader, FailedReadIsLoggedAndProcessesNothing) {
    EXPECT_EQ(clientPPSMessageGet(), -1);  // nothing has been opened
    EXPECT_EQ(linesOf("request_reader.cpp"),
              "5 clientIf_getMsg - Reading incoming IPC request.\n"
              "3 clientPPSMessageGet: Unable to read push PPS object.\n");
}

TEST_F(RequestReader, EmptyReadIsProcessedLikeAnyOther) {
    serveObject();
    shutdown(m_client, SHUT_RDWR);
    EXPECT_EQ(clientPPSMessageGet(), 0);
    EXPECT_TRUE(wasLogged(6, "clientPPSMessageGet: len 0 recv: <<  >>")) << recordedText();
    EXPECT_TRUE(wasLogged(3, "Empty message received from []."));
    EXPECT_EQ(drainQueue(), "");
}

TEST_F(RequestReader, RequestOf8191BytesIsReadWhole) {
    serveObject();
    const std::string text = requestOfSize(8191);
    EXPECT_EQ(request(text), 8191);
    EXPECT_EQ(idLength(drainQueue()), text.size() - text.rfind(':') - 1);
}

TEST_F(RequestReader, RequestOf8192BytesIsReadToItsLastByteAndNoFurther) {
    serveObject();
    const std::string text = requestOfSize(8192);
    EXPECT_EQ(request(text), 8192);
    EXPECT_EQ(idLength(drainQueue()), text.size() - text.rfind(':') - 1);
}

TEST_F(RequestReader, LongerRequestIsCutAt8192Bytes) {
    serveObject();
    const std::string text = requestOfSize(9000);
    EXPECT_EQ(request(text), 8192);
    EXPECT_EQ(idLength(drainQueue()), 8192 - text.rfind(':') - 1);
}

TEST_F(RequestReader, NothingOfALongRequestIsLeftInTheNextOne) {
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

TEST_F(RequestReader, RequestsAreCarriedOutOneByOneInTheirOrder) {
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
TEST_F(RequestReader, RequestThroughAFifoIsCarriedOut) {
    writeFile("/pps/services/push/ipc", "");
    ASSERT_EQ(mkfifo(path("/pps/services/push/ipc?server").c_str(), 0666), 0);
    const int descriptor = clientIfInit();
    ASSERT_NE(descriptor, -1);
    const std::string text = golden("requests_create_session.txt");
    ASSERT_EQ(write(descriptor, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    EXPECT_EQ(clientPPSMessageGet(), static_cast<int>(text.size()));
    EXPECT_EQ(drainQueue(), "type=1 app=com.example.news id=1 client=@ipc.17 err=0\n");
}
