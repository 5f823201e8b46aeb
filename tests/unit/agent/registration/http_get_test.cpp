// httpGet against real servers: a well-behaved one, and one that sends whatever a test wants.

#include <curl/curl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <string>
#include <thread>

#include "agent/registration/http.hpp"
#include "tests/support/agent/server_fixture.hpp"
#include "tests/support/recorded_log.hpp"

namespace {

constexpr std::uint32_t kOneMiB = 1024 * 1024;

class HttpGet : public ::testing::Test {
  protected:
    // Gets a URL and keeps what came of it.
    int get(const std::string& url) {
        HttpResponse* response = nullptr;
        const int result = httpGet(url.c_str(), &m_status, &response);
        m_response.reset(response);
        return result;
    }
    // Gets from a server that answers with exactly these bytes and closes.
    int getBytes(const std::string& answer) {
        const RawServer server([&answer](int connection) {
            readRequest(connection);
            sendBytes(connection, answer);
        });
        return get(server.url());
    }
    std::string body() const { return {m_response->body, m_response->bodyLength}; }
    std::string header(const char* name) const {
        const HttpHeaderField* field =
            httpFindHeader(name, m_response->headers, m_response->headerCount);
        return field == nullptr ? "none" : field->value;
    }

    ServerRoot m_root;
    long m_status = -1;
    HttpResponsePointer m_response;
};

}  // namespace

TEST_F(HttpGet, AsksWithAPlainGetOfTheWholeUrl) {
    std::string request;
    std::string port;
    {
        const RawServer server([&request](int connection) {
            request = readRequest(connection);
            sendBytes(connection, "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
        });
        port = std::to_string(server.port());
        ASSERT_EQ(get(server.url("/a//b?c=d&e=%20f")), 0);
    }
    EXPECT_TRUE(
        request.starts_with("GET /a//b?c=d&e=%20f HTTP/1.1\r\nHost: 127.0.0.1:" + port + "\r\n"))
        << request;
    EXPECT_EQ(request.find("User-Agent"), std::string::npos) << request;
}

TEST_F(HttpGet, BringsStatusHeadersAndBody) {
    ASSERT_EQ(getBytes("HTTP/1.1 200 OK\r\nA:  one \r\nContent-Length: 5\r\n\r\nhello"), 0);
    EXPECT_EQ(m_status, 200);
    ASSERT_NE(m_response, nullptr);
    EXPECT_EQ(body(), "hello");
    EXPECT_EQ(m_response->headerCount, 2U);
    EXPECT_EQ(header("a"), "one");
    EXPECT_EQ(header("content-length"), "5");
}

TEST_F(HttpGet, EmptyBodyIsANullBodyInARecord) {
    ASSERT_EQ(getBytes("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"), 0);
    ASSERT_NE(m_response, nullptr);
    EXPECT_EQ(m_response->body, nullptr);
    EXPECT_EQ(m_response->bodyLength, 0U);
}

TEST_F(HttpGet, AnswerWithoutHeadersIsANullListInARecord) {
    ASSERT_EQ(getBytes("HTTP/1.0 200 OK\r\n\r\nx"), 0);
    ASSERT_NE(m_response, nullptr);
    EXPECT_EQ(m_response->headers, nullptr);
    EXPECT_EQ(m_response->headerCount, 0U);
    EXPECT_EQ(body(), "x");
}

TEST_F(HttpGet, BodyMayHoldZeroBytes) {
    ASSERT_EQ(getBytes(std::string("HTTP/1.0 200 OK\r\n\r\na\0b", 22)), 0);
    EXPECT_EQ(body(), std::string("a\0b", 3));
}

TEST_F(HttpGet, EveryStatusIsASuccessfulTransfer) {
    for (const int status : {204, 302, 404, 500, 999}) {
        m_status = -1;
        EXPECT_EQ(getBytes("HTTP/1.1 " + std::to_string(status) +
                           " x\r\nContent-Length: 0\r\nLocation: http://127.0.0.1:1/\r\n\r\n"),
                  0);
        EXPECT_EQ(m_status, status);
        EXPECT_NE(m_response, nullptr);
    }
}

TEST_F(HttpGet, RedirectIsNotFollowed) {
    int requests = 0;
    {
        const RawServer server([&requests](int connection) {
            readRequest(connection);
            ++requests;
            sendBytes(connection,
                      "HTTP/1.1 302 Found\r\nLocation: /other\r\nContent-Length: 0\r\n"
                      "Connection: close\r\n\r\n");
        });
        ASSERT_EQ(get(server.url()), 0);
    }
    EXPECT_EQ(m_status, 302);
    EXPECT_EQ(requests, 1);
}

TEST_F(HttpGet, ChunkedBodyIsPutTogether) {
    ASSERT_EQ(getBytes("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
                       "3\r\nrc=\r\n3\r\n200\r\n0\r\n\r\n"),
              0);
    EXPECT_EQ(body(), "rc=200");
}

TEST_F(HttpGet, BodyOf2MiBIsCutAt1MiB) {
    ASSERT_EQ(getBytes("HTTP/1.1 200 OK\r\nContent-Length: 2097152\r\n\r\n" +
                       std::string(kOneMiB, 'a') + std::string(kOneMiB, 'b')),
              0);
    EXPECT_EQ(m_status, 200);
    EXPECT_EQ(m_response->bodyLength, kOneMiB);
    EXPECT_EQ(body().find('b'), std::string::npos);
}

TEST_F(HttpGet, Of5000HeaderLines1000AreKept) {
    std::string answer = "HTTP/1.1 200 OK\r\n";
    for (int i = 0; i < 5000; ++i) {
        answer += "h:" + std::to_string(i) + "\r\n";
    }
    ASSERT_EQ(getBytes(answer + "Content-Length: 2\r\n\r\nok"), 0);
    EXPECT_EQ(m_response->headerCount, 1000U);
    EXPECT_STREQ(m_response->headers[999].value, "999");
    EXPECT_EQ(body(), "ok");
}

TEST_F(HttpGet, EndlessHeadersEndInAFailureOrTheTimeLimit) {
    httpSetTimeout(5);
    const Stopwatch watch;
    const RawServer server([](int connection) {
        readRequest(connection);
        std::string lines;
        for (int i = 0; i < 500; ++i) {
            lines += "name-of-a-header: and its value, over and over again\r\n";
        }
        sendBytes(connection, "HTTP/1.1 200 OK\r\n");
        while (sendBytes(connection, lines)) {
        }
    });
    EXPECT_NE(get(server.url()), 0);
    EXPECT_EQ(m_status, -1);
    EXPECT_EQ(m_response, nullptr);
    EXPECT_LT(watch.seconds(), 60);
}

TEST_F(HttpGet, AnswerWithoutStatusLineIsAFailure) {
    EXPECT_NE(getBytes("rc=200\r\n"), 0);
    EXPECT_EQ(m_status, -1);
    EXPECT_EQ(m_response, nullptr);
}

TEST_F(HttpGet, CloseInTheMiddleOfTheBodyHandsNothingBack) {
    EXPECT_EQ(getBytes("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nrc=200"), CURLE_PARTIAL_FILE);
    EXPECT_EQ(m_status, -1);
    EXPECT_EQ(m_response, nullptr);
}

TEST_F(HttpGet, CloseWithoutAnAnswerIsAFailure) {
    EXPECT_EQ(getBytes(""), CURLE_GOT_NOTHING);
    EXPECT_EQ(m_status, -1);
}

TEST_F(HttpGet, RefusedConnectionIsAFailure) {
    const ReservedPort nobody;
    EXPECT_EQ(get("http://127.0.0.1:" + std::to_string(nobody.number()) + "/"),
              CURLE_COULDNT_CONNECT);
    EXPECT_EQ(m_status, -1);
    EXPECT_EQ(m_response, nullptr);
}

TEST_F(HttpGet, SilentServerIsGivenUpAfterTheTimeLimit) {
    httpSetTimeout(1);
    const RawServer server(waitForClose);
    const Stopwatch watch;
    EXPECT_EQ(get(server.url()), CURLE_OPERATION_TIMEDOUT);
    EXPECT_GE(watch.seconds(), 0.9);
    EXPECT_LT(watch.seconds(), 30);
    EXPECT_EQ(m_status, -1);
}

TEST_F(HttpGet, ServerThatDripsIsGivenUpAfterTheTimeLimit) {
    httpSetTimeout(1);
    const RawServer server([](int connection) {
        readRequest(connection);
        sendBytes(connection, "HTTP/1.0 200 OK\r\n\r\n");
        while (sendBytes(connection, "x")) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    });
    EXPECT_EQ(get(server.url()), CURLE_OPERATION_TIMEDOUT);
    EXPECT_EQ(m_response, nullptr);
}

TEST_F(HttpGet, TimeLimitOfZeroIsNone) {
    httpSetTimeout(1);
    httpSetTimeout(0);
    const RawServer server([](int connection) {
        readRequest(connection);
        std::this_thread::sleep_for(std::chrono::milliseconds(1300));
        sendBytes(connection, "HTTP/1.0 200 OK\r\n\r\nlate");
    });
    ASSERT_EQ(get(server.url()), 0);
    EXPECT_EQ(body(), "late");
}

TEST_F(HttpGet, OtherSchemesThanHttpAreRefusedAsUnsupported) {
    m_root.write("/secret", "rc=200");
    EXPECT_EQ(get("file://" + m_root.at("/secret")), CURLE_UNSUPPORTED_PROTOCOL);
    EXPECT_EQ(get("FILE://" + m_root.at("/secret")), CURLE_UNSUPPORTED_PROTOCOL);
    EXPECT_EQ(m_response, nullptr);
    EXPECT_EQ(m_status, -1);
}

TEST_F(HttpGet, NoConnectionIsMadeForAnotherScheme) {
    std::atomic<int> connections = 0;
    {
        const RawServer server([&connections](int) { ++connections; });
        for (const char* scheme : {"ftp", "gopher", "telnet", "dict", "ldap", "rtsp", "made-up"}) {
            EXPECT_EQ(get(scheme + server.url().substr(4)), CURLE_UNSUPPORTED_PROTOCOL) << scheme;
        }
    }
    EXPECT_EQ(connections, 0);
}

TEST_F(HttpGet, HostFromWhichAnotherSchemeIsGuessedIsRefused) {
    EXPECT_EQ(get("ftp.invalid/x"), CURLE_UNSUPPORTED_PROTOCOL);
}

TEST_F(HttpGet, SchemeMayBeLeftOutOrBeInCapitals) {
    const RawServer server([](int connection) {
        readRequest(connection);
        sendBytes(connection, "HTTP/1.0 200 OK\r\n\r\nok");
    });
    EXPECT_EQ(get(server.url().substr(7)), 0);
    EXPECT_EQ(get("HTTP" + server.url().substr(4)), 0);
}

TEST_F(HttpGet, HttpsIsSpoken) {
    // The peer is no TLS server; that TLS was tried shows in the first byte, a handshake's.
    char first = 0;
    {
        const RawServer server(
            [&first](int connection) { static_cast<void>(recv(connection, &first, 1, 0)); });
        EXPECT_NE(get("https" + server.url().substr(4)), CURLE_UNSUPPORTED_PROTOCOL);
    }
    EXPECT_EQ(first, '\x16');
}

TEST_F(HttpGet, MalformedUrlsAreLibcurlsToRefuse) {
    EXPECT_EQ(get("http://"), CURLE_URL_MALFORMAT);
    EXPECT_EQ(get("http://127.0.0.1/a b"), CURLE_URL_MALFORMAT);
    EXPECT_NE(get(""), 0);
    EXPECT_EQ(m_response, nullptr);
}

TEST_F(HttpGet, LeavesNoDescriptorOpen) {
    const int before = lowestFreeDescriptor();
    EXPECT_EQ(getBytes("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok"), 0);
    EXPECT_EQ(getBytes("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nok"), CURLE_PARTIAL_FILE);
    EXPECT_EQ(lowestFreeDescriptor(), before);
}

TEST_F(HttpGet, LogsNothingWithoutAProxy) {
    EXPECT_EQ(getBytes("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok"), 0);
    EXPECT_EQ(getBytes(""), CURLE_GOT_NOTHING);
    EXPECT_EQ(recordedText(), "");
}

// libcurl counts in milliseconds and refuses more of them than an int holds; it would then wait for
// ever.
TEST_F(HttpGet, RefusedSettingIsLoggedAndNothingIsSent) {
    std::atomic<int> requests{0};
    const RawServer server([&requests](int connection) {
        ++requests;
        sendBytes(connection, "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
    });
    httpSetTimeout(3000000);
    EXPECT_EQ(get(server.url()), CURLE_BAD_FUNCTION_ARGUMENT);
    EXPECT_EQ(requests, 0);
    EXPECT_TRUE(wasLogged(3,
                          "httpGet: option [13] refused [A libcurl function was given a bad "
                          "argument]"))
        << recordedText();
    httpSetTimeout(2147483);
    EXPECT_EQ(get(server.url()), CURLE_OK);
    EXPECT_EQ(requests, 1);
}
