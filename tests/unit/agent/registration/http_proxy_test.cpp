// Requests through a proxy: a real one where it is installed, and one that only looks at what it is
// asked.

#include <curl/curl.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>

#include "agent/registration/http.hpp"
#include "tests/support/agent/server_fixture.hpp"
#include "tests/support/recorded_log.hpp"

namespace {

constexpr const char* kProxyProgram = "/usr/bin/tinyproxy";
constexpr const char* kProxyName = "quil-test-proxy";
constexpr const char* kHost = "127.0.0.1";

// The proxy as a process of its own; ends with the object.
class RealProxy {
  public:
    explicit RealProxy(const ServerRoot& root) : m_log(root.at("/proxy.log")) {
        const std::string file = root.at("/proxy.conf");
        root.write("/proxy.conf", "Port " + std::to_string(port()) +
                                      "\nListen 127.0.0.1\nAllow 127.0.0.1\nTimeout 10\n"
                                      "MaxClients 10\nLogLevel Connect\nViaProxyName \"" +
                                      kProxyName + "\"\nLogFile \"" + m_log.string() + "\"\n");
        m_process = fork();
        if (m_process == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            const int output = open("/dev/null", O_WRONLY | O_CLOEXEC);
            dup2(output, STDOUT_FILENO);
            dup2(output, STDERR_FILENO);
            execl(kProxyProgram, kProxyProgram, "-d", "-c", file.c_str(), nullptr);
            _exit(127);
        }
    }
    ~RealProxy() {
        kill(m_process, SIGTERM);
        waitpid(m_process, nullptr, 0);
    }
    RealProxy(const RealProxy&) = delete;
    RealProxy& operator=(const RealProxy&) = delete;

    int port() const { return m_port.number(); }
    bool waitForStart() const {
        return waitUntil([this] { return Peer(port()).isConnected(); });
    }
    std::string log() const {
        std::ifstream file(m_log);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }

  private:
    ReservedPort m_port;
    std::filesystem::path m_log;
    pid_t m_process = -1;
};

class HttpProxy : public ::testing::Test {
  protected:
    HttpProxy() {
        m_server.Get("/.*", [this](const httplib::Request& request, httplib::Response& response) {
            const std::lock_guard lock(m_lock);
            m_via += "[" + request.get_header_value("Via") + "]";
            response.set_content("rc=200", "text/plain");
        });
        m_port = m_server.bind_to_any_port(kHost);
        m_thread = std::thread([this] { m_server.listen_after_bind(); });
        waitUntil([this] { return m_server.is_running(); });
    }
    ~HttpProxy() override {
        m_server.stop();
        m_thread.join();
    }

    int get() { return get("http://127.0.0.1:" + std::to_string(m_port) + "/x"); }
    int get(const std::string& url) {
        HttpResponse* response = nullptr;
        const int result = httpGet(url.c_str(), &m_status, &response);
        m_response.reset(response);
        return result;
    }

    // The "Via" of each request that reached the server itself.
    std::string via() const {
        const std::lock_guard lock(m_lock);
        return m_via;
    }

    ServerRoot m_root;
    httplib::Server m_server;
    std::thread m_thread;
    int m_port = -1;
    mutable std::mutex m_lock;
    std::string m_via;  // under m_lock
    long m_status = -1;
    HttpResponsePointer m_response;
};

// Answers every request like a proxy and keeps what was asked.
class LookingProxy {
  public:
    int port() const { return m_server.port(); }
    std::string firstLine() const {
        const std::lock_guard lock(m_lock);
        return m_request.substr(0, m_request.find("\r\n"));
    }

  private:
    mutable std::mutex m_lock;
    std::string m_request;
    RawServer m_server{[this](int connection) {
        const std::string request = readRequest(connection);
        {
            const std::lock_guard lock(m_lock);
            m_request = request;
        }
        sendBytes(connection, "HTTP/1.0 200 OK\r\n\r\nby proxy");
    }};
};

}  // namespace

TEST_F(HttpProxy, RequestGoesThroughARealProxy) {
    if (access(kProxyProgram, X_OK) != 0) {
        GTEST_SKIP() << kProxyProgram << " is not installed: no request was sent through a proxy";
    }
    const RealProxy proxy(m_root);
    ASSERT_TRUE(proxy.waitForStart()) << proxy.log();
    httpSetProxy(kHost, proxy.port());
    ASSERT_EQ(get(), 0);
    EXPECT_EQ(m_status, 200);
    EXPECT_EQ(std::string(m_response->body, m_response->bodyLength), "rc=200");
    EXPECT_NE(via().find(kProxyName), std::string::npos) << via();
    EXPECT_NE(proxy.log().find("GET http://127.0.0.1:" + std::to_string(m_port) + "/x"),
              std::string::npos)
        << proxy.log();
}

TEST_F(HttpProxy, FailureBehindARealProxyIsAStatusOfTheProxys) {
    if (access(kProxyProgram, X_OK) != 0) {
        GTEST_SKIP() << kProxyProgram << " is not installed: no request was sent through a proxy";
    }
    const RealProxy proxy(m_root);
    ASSERT_TRUE(proxy.waitForStart()) << proxy.log();
    const ReservedPort nobody;
    httpSetProxy(kHost, proxy.port());
    EXPECT_EQ(get("http://127.0.0.1:" + std::to_string(nobody.number()) + "/"), 0);
    EXPECT_EQ(m_status, 500);
}

TEST_F(HttpProxy, SettingItIsLoggedAndUsingItTold) {
    const LookingProxy proxy;
    httpSetProxy(kHost, proxy.port());
    ASSERT_EQ(get(), 0);
    const std::string port = std::to_string(proxy.port());
    EXPECT_EQ(recordedText(), "6 host is [127.0.0.1]\n6 port is " + port +
                                  "\n5 Proxy used [Host: 127.0.0.1][Port: " + port + "]\n");
}

TEST_F(HttpProxy, ProxyIsAskedForTheWholeUrl) {
    const LookingProxy proxy;
    httpSetProxy(kHost, proxy.port());
    ASSERT_EQ(get("http://host.invalid/y?z=1"), 0);
    EXPECT_EQ(proxy.firstLine(), "GET http://host.invalid/y?z=1 HTTP/1.1");
}

TEST_F(HttpProxy, WithoutAnyTheConnectionIsDirect) {
    ASSERT_EQ(get(), 0);
    EXPECT_EQ(via(), "[]");
    EXPECT_EQ(recordedText(), "");
}

TEST_F(HttpProxy, EmptyHostMeansADirectConnection) {
    const LookingProxy proxy;
    httpSetProxy("", proxy.port());
    ASSERT_EQ(get(), 0);
    EXPECT_EQ(via(), "[]");
    EXPECT_EQ(linesOf("http.cpp"),
              "6 host is []\n6 port is " + std::to_string(proxy.port()) + "\n");
}

TEST_F(HttpProxy, PortOfZeroOrBelowMeansADirectConnection) {
    for (const int port : {0, -1}) {
        clearRecordedLines();
        httpSetProxy(kHost, port);
        ASSERT_EQ(get(), 0);
        EXPECT_EQ(linesOf("http.cpp"),
                  "6 host is [127.0.0.1]\n6 port is " + std::to_string(port) + "\n");
    }
    EXPECT_EQ(via(), "[][]");
}

TEST_F(HttpProxy, NullHostKeepsTheHostAndReplacesThePort) {
    const LookingProxy proxy;
    httpSetProxy(kHost, 1);
    clearRecordedLines();
    httpSetProxy(nullptr, proxy.port());
    EXPECT_EQ(linesOf("http.cpp"), "6 port is " + std::to_string(proxy.port()) + "\n");
    ASSERT_EQ(get(), 0);
    EXPECT_NE(proxy.firstLine(), "");
    EXPECT_EQ(via(), "");
}

TEST_F(HttpProxy, NullHostAloneMeansADirectConnection) {
    const LookingProxy proxy;
    httpSetProxy(nullptr, proxy.port());
    ASSERT_EQ(get(), 0);
    EXPECT_EQ(via(), "[]");
}

TEST_F(HttpProxy, HostIsBorrowedNotCopied) {
    const LookingProxy proxy;
    std::string host = "999.0.0.1";
    httpSetProxy(host.c_str(), proxy.port());
    host.replace(0, 3, "127");
    ASSERT_EQ(get(), 0);
    EXPECT_NE(proxy.firstLine(), "");
}

TEST_F(HttpProxy, ProxyThatIsNotThereIsAFailure) {
    const ReservedPort nobody;
    httpSetProxy(kHost, nobody.number());
    EXPECT_EQ(get(), CURLE_COULDNT_CONNECT);
    EXPECT_EQ(via(), "");
}
