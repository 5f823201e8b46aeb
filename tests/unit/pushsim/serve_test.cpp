// `pushsim serve`, the program itself, over real sockets.

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>

#include <cerrno>

#include <nlohmann/json.hpp>
#include <sstream>
#include <string>

#include "tests/unit/pushsim/support.hpp"

namespace {

const std::string kRegister = "/mss/PD_subReg?serviceid=com.a&osversion=10&model=m";
const std::string kDeregister = "/mss/PD_subDereg?serviceid=com.a";
const std::string kPortHeader = "vex-device-ovra-port";

std::string portOf(const std::string& answer) {
    return headerOf(answer, kPortHeader);
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// A port that was free a moment ago.
std::string freePort() {
    std::uint16_t port = 0;
    const Socket socket = listenAnywhere(&port);
    return std::to_string(port);
}

}  // namespace

TEST(Serve, RegistrationIsTheExchangeOfTheGoldenFiles) {
    const Server server({"--first-body", "param=abc&x=1", "--port-header", "4401"});
    for (const char* step : {"step1", "step2", "deregister1", "deregister2"}) {
        const std::string name = std::string("registration_") + step;
        EXPECT_EQ(server.exchange(golden(name + "_request.txt")), golden(name + "_answer.txt"))
            << name;
    }
}

TEST(Serve, TwoStepsGiveAParameterThenAPortOfTheRange) {
    const std::string port = freePort();
    const Server server({"--ports", port + "-" + port});
    const std::string first = server.get(kRegister);
    EXPECT_EQ(bodyOf(first).rfind("param=", 0), 0U) << first;
    EXPECT_EQ(portOf(first), "<none>");
    const std::string second = server.get(kRegister + "&" + bodyOf(first));
    EXPECT_EQ(statusOf(second), 200);
    EXPECT_EQ(bodyOf(second), "rc=200");
    EXPECT_EQ(portOf(second), port);
}

TEST(Serve, PrefixDoubleSlashBlanksAndRawBytesAreTolerated) {
    Server server({"--json"});
    const std::string target =
        "/some/where//mss/PD_subReg?serviceid=com a\xc3\xa9%zz&osversion=1 0&model=M+ M";
    EXPECT_EQ(bodyOf(server.getTwoSteps(target)), "rc=200");
    EXPECT_TRUE(contains(server.program().out(), "\"application\":\"com a\xc3\xa9%zz\""))
        << server.program().out();
}

TEST(Serve, LongTargetsAreTolerated) {
    const Server server;
    const std::string target = kRegister + std::string(20000, 'm');
    EXPECT_EQ(bodyOf(server.getTwoSteps(target)), "rc=200");
}

TEST(Serve, ApplicationKeepsItsPortUntilItDeregisters) {
    const std::string port = freePort();
    const Server server({"--ports", port});
    EXPECT_EQ(portOf(server.getTwoSteps(kRegister)), port);
    EXPECT_EQ(portOf(server.getTwoSteps(kRegister)), port);
    const std::string other = "/mss/PD_subReg?serviceid=com.b&osversion=1&model=m";
    EXPECT_EQ(statusOf(server.getTwoSteps(other)), 503) << "the range holds one port";
    EXPECT_EQ(bodyOf(server.getTwoSteps(kDeregister)), "rc=200");
    EXPECT_EQ(portOf(server.getTwoSteps(other)), port);
}

TEST(Serve, DeregistrationHasNoPort) {
    const Server server;
    EXPECT_EQ(portOf(server.getTwoSteps(kDeregister)), "<none>");
}

TEST(Serve, OneStepEndsWithTheFirstAnswer) {
    const std::string port = freePort();
    const Server server({"--one-step", "--ports", port});
    const std::string answer = server.get(kRegister);
    EXPECT_EQ(bodyOf(answer), "rc=200");
    EXPECT_EQ(portOf(answer), port);
    EXPECT_EQ(bodyOf(server.get(kDeregister)), "rc=200");
}

TEST(Serve, ReturnCodeEndsOnlyTheRegistration) {
    const Server server({"--rc", "10001"});
    const std::string answer = server.getTwoSteps(kRegister);
    EXPECT_EQ(bodyOf(answer), "rc=10001");
    EXPECT_EQ(portOf(answer), "<none>");
    EXPECT_EQ(bodyOf(server.getTwoSteps(kDeregister)), "rc=200");
}

TEST(Serve, AlreadyRegisteredIsASuccessWithAPort) {
    const std::string port = freePort();
    const Server server({"--rc", "10003", "--ports", port});
    EXPECT_EQ(portOf(server.getTwoSteps(kRegister)), port);
}

TEST(Serve, FailDeregisterEndsOnlyTheDeregistration) {
    const TempFolder folder;
    const Server server({"--fail-deregister", "10007", "--state", folder.path("state")});
    EXPECT_EQ(bodyOf(server.getTwoSteps(kRegister)), "rc=200");
    EXPECT_EQ(bodyOf(server.getTwoSteps(kDeregister)), "rc=10007");
    EXPECT_TRUE(contains(fileBytes(folder.path("state")), "com.a")) << "it stays registered";
}

TEST(Serve, BodiesCanBeAnyText) {
    const Server server({"--first-body", " hello param=1\n", "--second-body", "src=5"});
    EXPECT_EQ(bodyOf(server.get(kRegister)), " hello param=1\n");
    EXPECT_EQ(bodyOf(server.get(kRegister + "&hello param=1")), "src=5");
}

TEST(Serve, PortHeaderCanBeAnyTextOrNone) {
    const Server text({"--port-header", "letters -5"});
    EXPECT_EQ(portOf(text.getTwoSteps(kRegister)), "letters -5");
    const Server empty({"--port-header", ""});
    EXPECT_EQ(portOf(empty.getTwoSteps(kRegister)), "");
    const Server none({"--no-port-header"});
    EXPECT_EQ(portOf(none.getTwoSteps(kRegister)), "<none>");
}

TEST(Serve, PortThatWasAskedForIsThePortInTheState) {
    const TempFolder folder;
    const Server server({"--port-header", "4401", "--state", folder.path("state")});
    server.getTwoSteps(kRegister);
    EXPECT_EQ(nlohmann::json::parse(fileBytes(folder.path("state"))),
              nlohmann::json::parse(R"({"applications":{"com.a":4401}})"));
}

TEST(Serve, StatusIsThatOfBothStepsOrOfOne) {
    const Server both({"--status", "500"});
    EXPECT_EQ(statusOf(both.get(kRegister)), 500);
    EXPECT_EQ(statusOf(both.get(kRegister + "&param=1")), 500);
    const Server second({"--status", "404", "--at-step", "2"});
    EXPECT_EQ(statusOf(second.get(kRegister)), 200);
    EXPECT_EQ(statusOf(second.get(kRegister + "&param=1")), 404);
}

TEST(Serve, FailedAnswerRegistersNobody) {
    const TempFolder folder;
    const Server server({"--status", "500", "--at-step", "2", "--state", folder.path("state")});
    EXPECT_EQ(portOf(server.getTwoSteps(kRegister)), "<none>");
    EXPECT_FALSE(contains(fileBytes(folder.path("state")), "com.a"));
}

TEST(Serve, DelayedAnswerComesLater) {
    const Server server({"--delay", "0.3", "--at-step", "1"});
    const auto start = Clock::now();
    EXPECT_EQ(statusOf(server.get(kRegister)), 200);
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(300));
}

TEST(Serve, HangingRequestIsNeverAnsweredAndDoesNotKeepTheServerAlive) {
    Server server({"--hang", "--json"});
    const Socket socket = connectHere(server.port());
    const std::string request = "GET " + kRegister + " HTTP/1.1\r\n\r\n";
    ASSERT_EQ(send(socket.get(), request.data(), request.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(request.size()));
    ASSERT_TRUE(eventually([&] { return contains(server.program().out(), "\"hang\""); }));
    char byte = 0;
    EXPECT_EQ(recv(socket.get(), &byte, 1, MSG_DONTWAIT), -1) << "neither a byte nor the end";
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(server.stop(), 0);
    EXPECT_EQ(readUntil(socket.get(), [](const std::string&) { return false; }), "");
}

TEST(Serve, MoreHangingRequestsThanOneDoNotHoldUpTheOthers) {
    const Server server({"--hang", "--times", "8"});
    std::vector<Socket> hanging;
    const std::string request = "GET " + kRegister + " HTTP/1.1\r\n\r\n";
    for (int i = 0; i < 8; ++i) {
        hanging.push_back(connectHere(server.port()));
        ASSERT_GT(send(hanging.back().get(), request.data(), request.size(), MSG_NOSIGNAL), 0);
    }
    // Which requests are the first eight is the server's to say: this one may hang in their place,
    // but of two that hang one is answered when the next comes.
    EXPECT_TRUE(eventually([&] {
        const Socket socket = connectHere(server.port());
        return send(socket.get(), request.data(), request.size(), MSG_NOSIGNAL) > 0 &&
               waitFor(socket.get(), POLLIN, Clock::now() + std::chrono::milliseconds(200)) ==
                   Ready::Yes;
    }));
}

TEST(Serve, ClosingServerSendsNotAByte) {
    const Server server({"--close"});
    EXPECT_EQ(server.get(kRegister), "");
}

TEST(Serve, GarbageIsNoHttp) {
    const Server server({"--garbage"});
    const std::string answer = server.get(kRegister);
    EXPECT_NE(answer, "");
    EXPECT_FALSE(contains(answer, "HTTP/")) << answer;
}

TEST(Serve, BigBodyHasTheBytesThatWereAskedForAndItsSecondStepIsKnown) {
    Server server({"--big-body", "100000", "--json"});
    const std::string body = bodyOf(server.get(kRegister));
    EXPECT_EQ(body.size(), 100000U);
    const std::string second = server.get(kRegister + "&" + body.substr(0, 8191));
    EXPECT_EQ(bodyOf(second).size(), 100000U);
    EXPECT_TRUE(contains(server.program().out(), "\"knownParameter\":true"));
}

TEST(Serve, MisbehavesOnlySoManyTimes) {
    const Server server({"--close", "--times", "2"});
    EXPECT_EQ(server.get(kRegister), "");
    EXPECT_EQ(server.get(kRegister), "");
    EXPECT_EQ(bodyOf(server.getTwoSteps(kRegister)), "rc=200");
}

TEST(Serve, LogIsALinePerRequest) {
    Server server({"--log", "--port-header", "4401", "--first-body", "param=t"});
    server.get(kRegister);
    server.get(kRegister + "&param=t");
    server.get(kDeregister + "&param=wrong");
    server.get("/nothing");
    const std::string out = server.program().out();
    EXPECT_TRUE(contains(out, " register step 1 com.a -> 200 \"param=t\"\n")) << out;
    EXPECT_TRUE(contains(out, " register step 2 com.a -> 200 \"rc=200\" port 4401\n")) << out;
    EXPECT_TRUE(contains(out, " deregister step 2 com.a -> 200 \"rc=200\" (the parameter is not "))
        << out;
    EXPECT_TRUE(contains(out, " unknown request /nothing -> 404 ")) << out;
}

TEST(Serve, WithoutLogOnlyThePortIsPrinted) {
    Server server;
    server.get(kRegister);
    EXPECT_EQ(server.stop(), 0);
    EXPECT_EQ(server.program().out(),
              "listening on 127.0.0.1 port " + std::to_string(server.port()) + "\n");
}

TEST(Serve, JsonIsAnObjectPerLine) {
    Server server({"--json", "--port-header", "4401"});
    server.getTwoSteps(kRegister);
    std::istringstream lines(server.program().out());
    std::vector<nlohmann::json> objects;
    for (std::string line; std::getline(lines, line);) {
        objects.push_back(nlohmann::json::parse(line));
    }
    ASSERT_EQ(objects.size(), 3U);
    EXPECT_EQ(objects[0].at("event"), "listening");
    EXPECT_EQ(objects[0].at("port"), server.port());
    EXPECT_EQ(objects[1].at("step"), 1);
    EXPECT_EQ(objects[2].at("kind"), "register");
    EXPECT_EQ(objects[2].at("application"), "com.a");
    EXPECT_EQ(objects[2].at("portHeader"), "4401");
    EXPECT_EQ(objects[2].at("knownParameter"), true);
}

TEST(Serve, EveryChangeIsInTheStateFileBeforeTheAnswer) {
    const TempFolder folder;
    const Server server({"--state", folder.path("state")});
    const std::string port = portOf(server.getTwoSteps(kRegister));
    EXPECT_EQ(nlohmann::json::parse(fileBytes(folder.path("state"))),
              nlohmann::json::parse(R"({"applications":{"com.a":)" + port + "}}"));
    server.getTwoSteps(kDeregister);
    EXPECT_EQ(nlohmann::json::parse(fileBytes(folder.path("state"))),
              nlohmann::json::parse(R"({"applications":{}})"));
}

TEST(Serve, BothSignalsEndItWith0) {
    Server term;
    EXPECT_EQ(term.stop(), 0);
    Server interrupted;
    interrupted.program().signal(SIGINT);
    EXPECT_EQ(interrupted.program().wait(), 0);
}

TEST(Serve, ListensWhereItIsTold) {
    const std::string port = freePort();
    const Server server({"--listen", "127.0.0.1:" + port});
    EXPECT_EQ(std::to_string(server.port()), port);
    EXPECT_EQ(bodyOf(server.getTwoSteps(kRegister)), "rc=200");
}

TEST(Serve, PortOfAnotherServerEndsWith1) {
    const Server first;
    const Ran ran = run({"serve", "--listen", "127.0.0.1:" + std::to_string(first.port())});
    EXPECT_EQ(ran.status, 1);
    EXPECT_TRUE(contains(ran.err, "cannot listen on 127.0.0.1:")) << ran.err;
}

TEST(Serve, DamagedStateFileEndsWith1) {
    const TempFolder folder;
    writeFile(folder.path("state"), "{");
    const Ran ran = run({"serve", "--state", folder.path("state")});
    EXPECT_EQ(ran.status, 1);
    EXPECT_TRUE(contains(ran.err, "is no state file")) << ran.err;
}

TEST(Serve, OtherRequestsAreRefusedAndDoNotHurt) {
    const Server server;
    EXPECT_EQ(statusOf(server.get("/")), 404);
    EXPECT_EQ(statusOf(server.exchange("POST " + kRegister + " HTTP/1.1\r\n\r\n")), 405);
    EXPECT_EQ(statusOf(server.exchange("GET / HTTP/x\r\n\r\n")), 400);
    EXPECT_NE(statusOf(server.exchange("nonsense\r\n\r\n")), 200);
    EXPECT_EQ(server.exchange(std::string(100000, 'x')).rfind("HTTP/1.1 200", 0),
              std::string::npos);
    EXPECT_EQ(bodyOf(server.getTwoSteps(kRegister)), "rc=200");
}

TEST(Serve, BadArgumentsEndWith2AndSayWhy) {
    const std::vector<std::vector<std::string>> all = {
        {"--listen", "127.0.0.1"},
        {"--listen", ":1"},
        {"--listen", "a:70000"},
        {"--ports", "5-4"},
        {"--ports", "x"},
        {"--rc", "x"},
        {"--status", "99"},
        {"--delay", "-1"},
        {"--at-step", "3"},
        {"--times", "-1"},
        {"--hang", "--close"},
        {"--port-header", "1", "--no-port-header"},
        {"--port-header", "a\r\nb"},
        {"--what"},
        {"stray"},
    };
    for (std::vector<std::string> arguments : all) {
        arguments.insert(arguments.begin(), "serve");
        const Ran ran = run(arguments);
        EXPECT_EQ(ran.status, 2) << arguments[1];
        EXPECT_NE(ran.err, "") << arguments[1];
    }
}

TEST(Serve, HelpTellsTheExitStatuses) {
    const Ran ran = run({"serve", "--help"});
    EXPECT_EQ(ran.status, 0);
    EXPECT_TRUE(contains(ran.out, "Exit status: 0 ended by")) << ran.out;
}

TEST(Serve, SendFindsThePortOfAnApplication) {
    const TempFolder folder;
    const std::string port = freePort();
    const Server server({"--ports", port, "--state", folder.path("state")});
    server.getTwoSteps(kRegister);
    const Ran ran =
        run({"send", "--app", "com.a", "--state", folder.path("state"), "--json"}, "hello");
    EXPECT_EQ(nlohmann::json::parse(ran.out).at("port"), std::stoi(port));
}
