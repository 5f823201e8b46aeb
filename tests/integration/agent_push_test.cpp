// Pushes of every size and shape through the whole stack.

#include <csignal>

#include "tests/integration/device.hpp"

namespace {

class AgentPush : public Device {
  protected:
    void SetUp() override {
        Device::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        configure("push-timeout 2");
        startServer();
        ASSERT_TRUE(startAgent({}));
        m_client = connect();
        m_port = createChannel(*m_client);
    }

    // A push of `total` bytes with a data part of `data` bytes.
    static std::string sized(std::size_t total, std::size_t data, bool withLength) {
        std::string head = "POST / HTTP/1.1\r\nPush-Message-ID:big\r\n";
        if (withLength) {
            head += "Content-Length:" + std::to_string(data) + "\r\n";
        }
        const std::size_t fill = total - head.size() - data - 6;  // "X:" and two line ends
        return head + "X:" + std::string(fill, 'x') + "\r\n\r\n" + std::string(data, 'd');
    }

    // Sends a push that must be refused: closed, and not a word to the application.
    void expectRefused(const std::string& bytes) {
        const PushSender sender(m_port);
        sender.send(bytes);
        const std::string end = sender.readToEnd();
        EXPECT_TRUE(end.empty() || end == "(reset)") << end;
        EXPECT_TRUE(m_client->isSilent(0.1));
    }

    std::unique_ptr<ClientConnection> m_client;
    int m_port = 0;
};

const std::string kExample =
    "POST /x HTTP/1.1\r\nContent-Length: 5\r\nPush-Message-ID: m1\r\n\r\nhello";

}  // namespace

TEST_F(AgentPush, ExampleSplitInItsDataAtEveryByteArrivesWhole) {
    // The first read must hold a data byte for the agent to know that more is due.
    for (std::size_t cut = 61; cut < kExample.size(); ++cut) {
        const PushSender sender(m_port);
        sender.send(kExample.substr(0, cut));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));  // a segment of its own
        sender.send(kExample.substr(cut));
        const Reply push = m_client->next();
        EXPECT_EQ(push.data, "aGVsbG8=") << cut;
        EXPECT_EQ(push.id, " m1") << cut;
        m_client->request("acceptPush", " m1", kApp);
        EXPECT_TRUE(isAcknowledgement(sender.readToEnd())) << cut;
    }
}

TEST_F(AgentPush, HeaderBlockThatDoesNotComeInOneReadIsRefused) {
    for (std::size_t cut = 1; cut < 60; cut += 7) {
        const PushSender sender(m_port);
        sender.send(kExample.substr(0, cut));
        const std::string end = sender.readToEnd(5);
        EXPECT_EQ(end, "") << cut;
    }
    EXPECT_TRUE(m_client->isSilent(0.1));
}

TEST_F(AgentPush, PushOf15360BytesWithItsLengthArrives) {
    const PushSender sender(m_port);
    sender.send(sized(15360, 11000, true));
    EXPECT_EQ(m_client->next().data.size(), 14668U);
    m_client->request("acceptPush", "big", kApp);
    EXPECT_TRUE(isAcknowledgement(sender.readToEnd()));
}

TEST_F(AgentPush, PushOf15361BytesIsRefused) {
    expectRefused(sized(15361, 11000, true));
}

TEST_F(AgentPush, PushFarBeyondTheLimitIsRefusedAndTheAgentGoesOn) {
    expectRefused("POST / HTTP/1.1\r\nContent-Length: 1000000\r\n\r\n" + std::string(1000000, 'x'));
    const PushSender sender(m_port);
    sender.send(kExample);
    EXPECT_EQ(m_client->next().data, "aGVsbG8=");
}

TEST_F(AgentPush, DataOf11517BytesFitsAndOneMoreIsRefused) {
    {
        const PushSender sender(m_port);
        sender.send(makePush("fits", std::string(11517, 'd')));
        const Reply push = m_client->next();
        EXPECT_EQ(push.id, "fits");
        EXPECT_EQ(push.data.size(), 15356U);
        m_client->request("rejectPush", "fits", kApp);
        EXPECT_EQ(sender.readToEnd(), "");
    }
    expectRefused(makePush("large", std::string(11518, 'd')));
}

TEST_F(AgentPush, PushesOfAnyBytesNeverHurt) {
    expectRefused(std::string(100, '\0'));
    expectRefused("\r\n");
    expectRefused("no line end at all");
    expectRefused(std::string(15360, ':'));
    std::string all;
    for (int i = 0; i < 2560; ++i) {
        all += static_cast<char>(i * 7);
    }
    expectRefused(all);
    const PushSender sender(m_port);
    sender.send(kExample);
    EXPECT_EQ(m_client->next().data, "aGVsbG8=");
}

TEST_F(AgentPush, ConnectionWithoutAByteIsClosedWithoutAWord) {
    PushSender sender(m_port);
    sender.finishSending();
    EXPECT_EQ(sender.readToEnd(), "");
    EXPECT_TRUE(m_client->isSilent(0.1));
}

TEST_F(AgentPush, SenderThatSendsNothingIsClosedAfterThePushTimeout) {
    const PushSender sender(m_port);
    EXPECT_EQ(sender.readToEnd(10), "");
    EXPECT_TRUE(
        waitForLog("serverIfProcessData: push for app id [com.example.app] not complete "
                   "after 2 seconds"));
    EXPECT_TRUE(m_client->isSilent(0.1));
}

TEST_F(AgentPush, SenderThatDripsIsClosedAfterThePushTimeout) {
    const PushSender sender(m_port);
    sender.send("POST / HTTP/1.1\r\nContent-Length: 1000\r\n\r\n.");
    const auto start = std::chrono::steady_clock::now();
    while (sender.readToEnd(0.05) == "(still open)") {
        sender.send(".");
        ASSERT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(15));
    }
    EXPECT_TRUE(m_client->isSilent(0.1)) << "never delivered short";
}

// Its bytes have come in time; that nobody could read them is not its sender's fault.
TEST_F(AgentPush, PushThatIsNotInYetOutlastsAnObjectServiceThatStops) {
    const PushSender slow(m_port);
    slow.send(kExample.substr(0, 61));
    ASSERT_TRUE(waitUntil([this] { return agentLog().find("recved [61]") != std::string::npos; }));
    const PushSender other(m_port);
    kill(m_ppsd->pid(), SIGSTOP);
    other.send("POST /x HTTP/1.1\r\nContent-Length: 1\r\nPush-Message-ID: m2\r\n\r\nx");
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    slow.send(kExample.substr(61));
    std::this_thread::sleep_for(std::chrono::milliseconds(3000));
    kill(m_ppsd->pid(), SIGCONT);
    EXPECT_EQ(m_client->next().id, " m2");
    EXPECT_EQ(m_client->next().id, " m1");
    m_client->request("acceptPush", " m1", kApp);
    EXPECT_TRUE(isAcknowledgement(slow.readToEnd()));
}

TEST_F(AgentPush, HeadersWithQuotesAndControlBytesReachTheApplicationAsTheyAre) {
    const PushSender sender(m_port);
    sender.send(
        "POST / "
        "HTTP/1.1\r\nPush-Message-ID:q\r\nX-\"Quote\\:a\tb\"c\\d\r\nVia:1\r\nVia:2\r\n\r\nx");
    EXPECT_EQ(m_client->next().headers,
              "[Push-Message-ID=q][X-\"Quote\\=a\tb\"c\\d][Via=1][Via=2]");
}

TEST_F(AgentPush, SecondPushUnderAnIdThatIsHeldLosesItsConnection) {
    const PushSender first(m_port);
    first.send(makePush("same", "1"));
    EXPECT_EQ(m_client->next().data, "MQ==");
    const PushSender second(m_port);
    second.send(makePush("same", "2"));
    EXPECT_EQ(m_client->next().data, "Mg==");
    EXPECT_EQ(second.readToEnd(), "");
    m_client->request("acceptPush", "same", kApp);
    EXPECT_TRUE(isAcknowledgement(first.readToEnd()));
}

TEST_F(AgentPush, ResetInTheMiddleLeavesTheAgentRunning) {
    PushSender sender(m_port);
    sender.send("POST / HTTP/1.1\r\nContent-Length: 1000\r\n\r\n.");
    sender.reset();
    const PushSender next(m_port);
    next.send(kExample);
    Reply push = m_client->next();
    if (push.id != " m1") {
        push = m_client->next();  // the first may have been handed on, as far as it came
    }
    EXPECT_EQ(push.data, "aGVsbG8=");
}
