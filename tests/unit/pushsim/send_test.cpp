// `pushsim send` and `pushsim example`, the program itself, against a device of the test.

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <ctime>

#include <nlohmann/json.hpp>
#include <string>

#include "tests/unit/pushsim/support.hpp"

namespace {

const std::string kPush = "POST /push HTTP/1.1\r\nContent-Length: 5\r\n\r\nhello";

Device::Plan answering(const std::string& answer) {
    Device::Plan plan;
    plan.pushBytes = 65;
    plan.answer = answer;
    return plan;
}

// Sends the example push with --wait to a device with the plan.
Ran waitFor(const Device::Plan& plan, std::vector<std::string> more = {}) {
    Device device(plan);
    more.insert(more.begin(), {"send", device.port(), "--raw", "--wait"});
    return run(more, golden("push_example.bin"));
}

// What arrives at a device when `pushsim send` gets these arguments; fails unless it ends with 0.
std::string arrives(std::vector<std::string> arguments, const std::string& input = "hello") {
    Device device({});
    arguments.insert(arguments.begin(), {"send", device.port()});
    const Ran ran = run(arguments, input);
    EXPECT_EQ(ran.status, 0) << ran.err;
    return device.pushes().at(0);
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

std::string freePort() {
    std::uint16_t port = 0;
    const Socket socket = listenAnywhere(&port);
    return std::to_string(port);
}

}  // namespace

TEST(Example, PrintsTheGoldenFile) {
    const Ran ran = run({"example"});
    EXPECT_EQ(ran.status, 0);
    EXPECT_EQ(ran.out, golden("push_example.bin"));
}

TEST(Send, AcceptedPushEndsWith0AndShowsTheAcknowledgement) {
    const Ran ran = waitFor(answering(golden("acknowledgement.txt")));
    EXPECT_EQ(ran.status, 0) << ran.out;
    EXPECT_TRUE(contains(ran.out, "accepted: 65 bytes")) << ran.out;
    EXPECT_TRUE(contains(ran.out,
                         "72 bytes came back:\n"
                         "  HTTP/1.0 200 OK\\n\n"
                         "  \\rX-Wap-Push-Status:400\\n\n"
                         "  \\rDate:Sat Nov 21 02:24:44 2026\\n\n"
                         "  \\n\n"
                         "  \\r\n"))
        << ran.out;
}

TEST(Send, RejectedPushEndsWith1) {
    const Ran ran = waitFor(answering(""));
    EXPECT_EQ(ran.status, 1) << ran.out;
    EXPECT_TRUE(contains(ran.out, "rejected")) << ran.out;
}

TEST(Send, SilentDeviceEndsWith4AfterTheTimeout) {
    Device::Plan plan = answering("");
    plan.keepsOpen = true;
    const Ran ran = waitFor(plan, {"--timeout", "0.05"});
    EXPECT_EQ(ran.status, 4) << ran.out;
    EXPECT_TRUE(contains(ran.out, "not answered")) << ran.out;
}

TEST(Send, AnotherAnswerEndsWith5AndNamesTheFault) {
    const Ran ran = waitFor(answering("HTTP/1.1 200 OK\r\n\r\n"));
    EXPECT_EQ(ran.status, 5) << ran.out;
    EXPECT_TRUE(contains(ran.out, "byte 7 is \"1\" and should be \"0\"")) << ran.out;
}

TEST(Send, HalfAnAcknowledgementThatNeverGoesOnEndsWith5) {
    Device::Plan plan = answering(golden("acknowledgement.txt").substr(0, 40));
    plan.keepsOpen = true;
    EXPECT_EQ(waitFor(plan, {"--timeout", "0.2"}).status, 5);
}

TEST(Send, EndlessAnswerEndsWith5) {
    Device::Plan plan = answering(golden("acknowledgement.txt") + std::string(100000, 'x'));
    plan.keepsOpen = true;
    EXPECT_EQ(waitFor(plan).status, 5);
}

TEST(Send, ResetInsteadOfAnAnswerEndsWith3) {
    Device::Plan plan = answering("");
    plan.resets = true;
    const Ran ran = waitFor(plan);
    EXPECT_EQ(ran.status, 3) << ran.out;
    EXPECT_TRUE(contains(ran.out, "Connection reset")) << ran.out;
}

TEST(Send, NobodyListeningEndsWith3) {
    const Ran ran = run({"send", freePort()}, "hello");
    EXPECT_EQ(ran.status, 3) << ran.out;
    EXPECT_TRUE(contains(ran.out, "Connection refused")) << ran.out;
}

TEST(Send, ConnectionThatStaysOpenBehindTheAcknowledgementIsAcceptedAndMentioned) {
    Device::Plan plan = answering(golden("acknowledgement.txt"));
    plan.keepsOpen = true;
    const Ran ran = waitFor(plan, {"--timeout", "0.2"});
    EXPECT_EQ(ran.status, 0) << ran.out;
    EXPECT_TRUE(contains(ran.out, "was not closed")) << ran.out;
}

TEST(Send, DateFarFromTheClockIsWarnedOf) {
    const std::string old =
        "HTTP/1.0 200 OK\n\rX-Wap-Push-Status:400\n\rDate:Sat Jan  1 00:00:00 2000\n\n\r";
    EXPECT_TRUE(contains(waitFor(answering(old)).err, "more than a day"));
    const std::time_t now = std::time(nullptr);
    char text[32] = {};
    ctime_r(&now, text);
    const std::string fresh =
        std::string("HTTP/1.0 200 OK\n\rX-Wap-Push-Status:400\n\rDate:") + text + "\n\r";
    EXPECT_EQ(waitFor(answering(fresh)).err, "");
}

TEST(Send, WithoutWaitTheConnectionIsClosedInOrderBehindThePush) {
    EXPECT_EQ(arrives({}), kPush);
}

TEST(Send, DeviceFindsTheEndTogetherWithTheLastByte) {
    std::uint16_t port = 0;
    const Socket listener = listenAnywhere(&port);
    Program program({"send", std::to_string(port)}, "hello");
    ASSERT_EQ(::waitFor(listener.get(), POLLIN, Clock::now() + kPatience), Ready::Yes);
    const Socket socket(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    char buffer[256];
    ASSERT_EQ(recv(socket.get(), buffer, sizeof buffer, 0), static_cast<ssize_t>(kPush.size()));
    EXPECT_EQ(recv(socket.get(), buffer, sizeof buffer, MSG_DONTWAIT), 0)
        << "a device that looks now has to see that nobody waits";
}

TEST(Send, WithWaitTheConnectionStaysOpenBehindThePush) {
    std::uint16_t port = 0;
    const Socket listener = listenAnywhere(&port);
    Program program({"send", std::to_string(port), "--wait", "--id", "m"}, "hello");
    ASSERT_EQ(::waitFor(listener.get(), POLLIN, Clock::now() + kPatience), Ready::Yes);
    const Socket socket(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    readUntil(socket.get(), [](const std::string& bytes) { return contains(bytes, "hello"); });
    char byte = 0;
    EXPECT_EQ(recv(socket.get(), &byte, 1, MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_TRUE(program.isRunning());
}

TEST(Send, FileIsReadAndDashIsStandardInput) {
    const TempFolder folder;
    writeFile(folder.path("data"), "world");
    EXPECT_TRUE(contains(arrives({folder.path("data")}), "\r\n\r\nworld"));
    EXPECT_TRUE(contains(arrives({"-"}), "\r\n\r\nhello"));
}

TEST(Send, DataMayHoldAnyBytes) {
    std::string all;
    for (int i = 0; i < 256; ++i) {
        all += static_cast<char>(i);
    }
    const std::string push = arrives({}, all);
    EXPECT_EQ(push.substr(push.size() - 256), all);
}

TEST(Send, IdIsWrittenAsGivenAndMadeUpOnlyToWait) {
    EXPECT_TRUE(contains(arrives({"--id", "m 1"}), "\r\nPush-Message-ID: m 1\r\n"));
    EXPECT_FALSE(contains(arrives({}), "Push-Message-ID"));
    Device::Plan plan;
    plan.pushBytes = 80;
    Device device(plan);
    run({"send", device.port(), "--wait"}, "hello");
    EXPECT_TRUE(contains(device.pushes().at(0), "\r\nPush-Message-ID: pushsim-"));
}

TEST(Send, HeadersAreRepeatable) {
    EXPECT_TRUE(contains(arrives({"--header", "A: 1", "--header", "B:2"}), "\r\nA: 1\r\nB:2\r\n"));
}

TEST(Send, ContentLengthCanBeLeftOut) {
    EXPECT_EQ(arrives({"--no-content-length"}), "POST /push HTTP/1.1\r\n\r\nhello");
}

TEST(Send, RawInputIsSentAsItStands) {
    EXPECT_EQ(arrives({"--raw", "-"}, golden("push_example.bin")), golden("push_example.bin"));
    EXPECT_EQ(arrives({"--raw"}, ""), "");
}

TEST(Send, TruncatedPushStopsAfterSoManyBytes) {
    EXPECT_EQ(arrives({"--truncate", "10"}), kPush.substr(0, 10));
    EXPECT_EQ(arrives({"--truncate", "0"}), "");
    EXPECT_EQ(arrives({"--truncate", "1000"}), kPush);
}

TEST(Send, ResetEndsTheConnectionWithAReset) {
    const std::string arrived = arrives({"--reset"});
    EXPECT_EQ(arrived.substr(arrived.size() - 7), "<reset>");
}

TEST(Send, PiecesArriveApartAndWhole) {
    std::uint16_t port = 0;
    const Socket listener = listenAnywhere(&port);
    const auto start = Clock::now();
    Program program({"send", std::to_string(port), "--split", "20", "--pause", "50"}, "hello");
    ASSERT_EQ(::waitFor(listener.get(), POLLIN, Clock::now() + kPatience), Ready::Yes);
    const Socket socket(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    std::vector<std::size_t> enough = {20, 40, kPush.size()};
    std::string all;
    for (const std::size_t bytes : enough) {
        all += readUntil(socket.get(), [&](const std::string& part) {
            return all.size() + part.size() >= bytes;
        });
    }
    EXPECT_EQ(all, kPush);
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(100)) << "two pauses of 50 ms";
    EXPECT_EQ(program.wait(), 0);
}

TEST(Send, FirstPieceIsNoLongerThanAsked) {
    std::uint16_t port = 0;
    const Socket listener = listenAnywhere(&port);
    Program program({"send", std::to_string(port), "--split", "7", "--pause", "60000"}, "hello");
    ASSERT_EQ(::waitFor(listener.get(), POLLIN, Clock::now() + kPatience), Ready::Yes);
    const Socket socket(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    EXPECT_EQ(readUntil(socket.get(), [](const std::string& part) { return !part.empty(); }),
              "POST /p");
}

TEST(Send, RepeatedPushesUseAConnectionAndAnIdEach) {
    Device::Plan plan = answering(golden("acknowledgement.txt"));
    plan.connections = 3;
    Device device(plan);
    const Ran ran = run({"send", device.port(), "--wait", "--repeat", "3"}, "hello");
    EXPECT_EQ(ran.status, 0) << ran.out;
    const auto pushes = device.pushes();
    ASSERT_EQ(pushes.size(), 3U);
    EXPECT_NE(pushes[0], pushes[1]);
    EXPECT_NE(pushes[1], pushes[2]);
}

TEST(Send, RepeatedPushesEndWithTheFirstFailure) {
    Device device(answering(golden("acknowledgement.txt")));
    const Ran ran =
        run({"send", device.port(), "--wait", "--timeout", "0.2", "--repeat", "2"}, "hello");
    // The device takes one connection; the second push waits in its queue or is reset.
    EXPECT_TRUE(ran.status == 3 || ran.status == 4) << ran.status << ran.out;
    EXPECT_TRUE(contains(ran.out, "accepted")) << ran.out;
}

TEST(Send, JsonIsOneObjectPerPush) {
    Device device(answering(golden("acknowledgement.txt")));
    const Ran ran = run({"send", device.port(), "--wait", "--id", "m1", "--json"}, "hello");
    const auto object = nlohmann::json::parse(ran.out);
    EXPECT_EQ(object.at("outcome"), "accepted");
    EXPECT_EQ(object.at("exit"), 0);
    EXPECT_EQ(object.at("id"), "m1");
    EXPECT_EQ(object.at("answerBytes"), 72);
    EXPECT_EQ(object.at("date"), "Sat Nov 21 02:24:44 2026");
    EXPECT_EQ(std::to_string(object.at("port").get<int>()), device.port());
}

TEST(Send, VerboseShowsTheBytesOfBothDirections) {
    const Ran ran = waitFor(answering("no\n"), {"-v"});
    EXPECT_TRUE(contains(ran.err, "> POST /x HTTP/1.1\\r\\n\n")) << ran.err;
    EXPECT_TRUE(contains(ran.err, "> hello\n")) << ran.err;
    EXPECT_TRUE(contains(ran.err, "< no\\n\n")) << ran.err;
}

TEST(Send, PushThatADeviceWillNotTakeIsSentWithAWarning) {
    Device device({});
    const Ran ran = run({"send", device.port()}, std::string(11518, 'x'));
    EXPECT_EQ(ran.status, 0);
    EXPECT_TRUE(contains(ran.err, "at most 11517")) << ran.err;
    EXPECT_GT(device.pushes().at(0).size(), 11518U);
}

TEST(Send, ApplicationIsFoundInTheStateFile) {
    const TempFolder folder;
    Device device({});
    writeFile(folder.path("state"), R"({"applications":{"com.a":)" + device.port() + "}}");
    const Ran ran = run({"send", "--app", "com.a", "--state", folder.path("state"), "-"}, "hello");
    EXPECT_EQ(ran.status, 0) << ran.err;
    EXPECT_EQ(device.pushes().at(0), kPush);
}

TEST(Send, HostIsWhereItConnects) {
    std::uint16_t port = 0;
    const Socket listener = listenAnywhere(&port);
    EXPECT_EQ(run({"send", std::to_string(port), "--host", "127.0.0.2"}, "hello").status, 3)
        << "the device listens on 127.0.0.1 only";
    EXPECT_EQ(run({"send", std::to_string(port), "--host", "localhost"}, "hello").status, 0);
}

TEST(Send, BadArgumentsEndWith2AndSayWhy) {
    const TempFolder folder;
    writeFile(folder.path("state"), R"({"applications":{}})");
    const std::vector<std::vector<std::string>> all = {
        {"send"},
        {"send", "0"},
        {"send", "65536"},
        {"send", "port"},
        {"send", "1", "a", "b"},
        {"send", "1", folder.path("no-file")},
        {"send", "--app", "a"},
        {"send", "--app", "a", "--state", folder.path("state")},
        {"send", "--app", "a", "--state", folder.path("no-state")},
        {"send", "1", "--header", "no colon"},
        {"send", "1", "--header", "A: 1\r\nB: 2"},
        {"send", "1", "--id", "a\nb"},
        {"send", "1", "--raw", "--id", "a"},
        {"send", "1", "--raw", "--no-content-length"},
        {"send", "1", "--wait", "--reset"},
        {"send", "1", "--pause", "5"},
        {"send", "1", "--split", "0"},
        {"send", "1", "--timeout", "0"},
        {"send", "1", "--repeat", "0"},
        {"send", "1", "--what"},
        {},
        {"what"},
    };
    for (const auto& arguments : all) {
        const Ran ran = run(arguments);
        const std::string last = arguments.empty() ? "" : arguments.back();
        EXPECT_EQ(ran.status, 2) << last;
        EXPECT_NE(ran.err, "") << last;
    }
}

TEST(Send, HelpTellsTheExitStatuses) {
    const Ran ran = run({"send", "--help"});
    EXPECT_EQ(ran.status, 0);
    EXPECT_TRUE(contains(ran.out, "Exit status: 0 accepted")) << ran.out;
}
