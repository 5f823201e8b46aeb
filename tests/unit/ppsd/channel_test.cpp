// Queues of a served object, without a file system.

#include "ppsd/store/channel.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "ppsd/store/limits.hpp"

namespace {

class Recorder : public ReadinessListener {
  public:
    void readinessChanged(OpenFile& file) noexcept override { told.push_back(&file); }
    std::vector<OpenFile*> told;
};

class ChannelTest : public ::testing::Test {
  protected:
    ChannelTest()
        : server(std::make_unique<ServerFile>(channel, OpenOptions{}, Charge(), 0,
                                              [this] { ++closed; })) {}

    std::unique_ptr<ClientFile> client(std::uint64_t id, bool reads = true) {
        EXPECT_EQ(channel->admit(id, {}), 0);
        return std::make_unique<ClientFile>(channel, OpenOptions{}, Charge(), id, Opener{}, reads);
    }
    std::unique_ptr<ClientFile> clientOf(Opener opener, std::uint64_t id) {
        EXPECT_EQ(channel->admit(id, opener), 0);
        return std::make_unique<ClientFile>(channel, OpenOptions{}, Charge(), id, opener, true);
    }

    // How a write ended: 0 or an errno value.
    static int put(OpenFile& file, std::string_view text, uid_t writer = 0) {
        int ended = -1;
        file.write(writer, text, [&](int error) { ended = error; });
        return ended;
    }

    // What a read gives: the bytes, "nothing" or "end".
    static std::string read(OpenFile& file, std::size_t size = 1U << 20) {
        std::string bytes;
        const ReadOutcome outcome = file.read(0, size, bytes);
        return outcome == ReadOutcome::kBytes ? bytes
               : outcome == ReadOutcome::kEnd ? "end"
                                              : "nothing";
    }

    // The next so many messages for the server, without their lines: "+1", "1", "-1".
    std::string readNext(int count) {
        std::string all;
        for (int i = 0; i < count; ++i) {
            std::string message = read(*server);
            const std::size_t name = message.find("@ipc.");
            if (name != std::string::npos) {
                message.erase(name, sizeof "@ipc." - 1);
            }
            all += (all.empty() ? "" : " ") + message.substr(0, message.find('\n'));
        }
        return all;
    }

    Recorder listener;
    int closed = 0;
    static constexpr std::size_t kShare = 4 * 1024 * 1024;  // of memory
    Accounts accounts{{kShare, 100, 100, kShare}};
    std::shared_ptr<Channel> channel = std::make_shared<Channel>("ipc", listener, accounts);
    std::unique_ptr<ServerFile> server;
};

std::string line(std::size_t size) {
    return "a::" + std::string(size - 4, 'x') + "\n";
}

}  // namespace

TEST_F(ChannelTest, ServerIsToldOfEachMessageAndClientsOfTheirs) {
    const auto first = client(1);
    const auto second = client(2);
    listener.told.clear();
    put(*first, "a::1\n");
    put(*server, "@ipc.2\nb::2\n");
    EXPECT_EQ(listener.told, (std::vector<OpenFile*>{server.get(), second.get()}));
}

TEST_F(ChannelTest, ServerThatClosesLeavesTheTreeBeforeItsClientsHearOfIt) {
    const auto one = client(1);
    listener.told.clear();
    server.reset();
    EXPECT_EQ(closed, 1);
    EXPECT_EQ(listener.told, std::vector<OpenFile*>{one.get()});
    EXPECT_EQ(read(*one), "-@ipc\n");
    EXPECT_EQ(read(*one), "end");
    EXPECT_EQ(put(*one, "a::1\n"), EPIPE);
}

TEST_F(ChannelTest, ServerHasLeftTheTreeWhileItsClientsKnowNothingYet) {
    server.reset();
    const auto served = std::make_shared<Channel>("ipc", listener, accounts);
    std::unique_ptr<ClientFile> one;
    std::string atClose;
    server = std::make_unique<ServerFile>(served, OpenOptions{}, Charge(), 0,
                                          [&] { atClose = read(*one); });
    ASSERT_EQ(served->admit(1, {}), 0);
    one = std::make_unique<ClientFile>(served, OpenOptions{}, Charge(), 1, Opener{}, true);
    server.reset();
    EXPECT_EQ(atClose, "nothing");
    EXPECT_EQ(read(*one), "-@ipc\n");
}

TEST_F(ChannelTest, ClientThatCannotReadIsHungUpAllTheSame) {
    const auto speaker = client(1, false);
    EXPECT_FALSE(speaker->readiness().hungUp);
    server.reset();
    EXPECT_TRUE(speaker->readiness().hungUp);
    EXPECT_TRUE(speaker->readiness().readable);
}

TEST_F(ChannelTest, WhatTheServerDidNotReadEndsWithIt) {
    const auto one = client(1);
    put(*one, "a::1\n");
    server.reset();
    EXPECT_FALSE(channel->hasPending());
}

TEST_F(ChannelTest, ClientMayCloseAfterItsServer) {
    auto one = client(1);
    server.reset();
    listener.told.clear();
    one.reset();
    EXPECT_TRUE(listener.told.empty());
}

TEST_F(ChannelTest, EndNoticeIsNotRefusedByAFullQueue) {
    const auto one = client(1);
    while (put(*server, "@ipc.1\n" + line(10000)) == 0) {
    }
    server.reset();
    std::string last;
    for (std::string message = read(*one); message != "end"; message = read(*one)) {
        last = message;
    }
    EXPECT_EQ(last, "-@ipc\n");
}

TEST_F(ChannelTest, ExactlyTheBoundFitsIntoAClientsQueue) {
    const auto one = client(1);
    const std::size_t objectLine = std::string("@ipc\n").size();
    const std::size_t part = kClientQueueMaxBytes / 8;
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(put(*server, "@ipc.1\n" + line(part - objectLine)), 0);
    }
    EXPECT_EQ(put(*server, "@ipc.1\n"), ENOBUFS);
}

TEST_F(ChannelTest, ExactlyTheBoundOfOneClientFitsIntoTheServersQueue) {
    const auto one = client(1);
    const std::size_t tag = std::string("@ipc.1\n").size();
    const std::size_t quarter = kServerQueuePerClientMaxBytes / 4;
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(put(*one, line(quarter - tag)), 0);
    }
    EXPECT_EQ(put(*one, "@ipc\n"), ENOBUFS);
}

TEST_F(ChannelTest, HalfReadMessageStillTakesItsRoom) {
    const auto one = client(1);
    const std::string message = "@ipc.1\n" + line(100000);
    while (put(*server, message) == 0) {
    }
    read(*one, 50000);
    EXPECT_EQ(put(*server, message), ENOBUFS);
    read(*one);
    EXPECT_EQ(put(*server, message), 0);
}

TEST_F(ChannelTest, RoomOfADepartedClientComesBackWhenTheServerReads) {
    auto one = client(1);
    while (put(*one, line(100000)) == 0) {
    }
    one.reset();
    while (read(*server) != "nothing") {
    }
    auto two = client(2);
    EXPECT_EQ(put(*two, line(kMessageMaxBytes)), 0);
}

TEST_F(ChannelTest, SizeIsCheckedBeforeAnythingElse) {
    const auto one = client(1);
    EXPECT_EQ(put(*server, std::string(kMessageMaxBytes + 1, 'x')), EMSGSIZE);
    EXPECT_EQ(put(*one, std::string(kMessageMaxBytes + 1, 'x')), EMSGSIZE);
}

TEST_F(ChannelTest, MessageWithoutAttributesIsDeliveredAsItsObjectLine) {
    const auto one = client(1);
    EXPECT_EQ(readNext(1), "+1");
    put(*one, "@anything\n");
    EXPECT_EQ(read(*server), "@ipc.1\n");
    put(*server, "@ipc\n");
    EXPECT_EQ(read(*one), "@ipc\n");
}

TEST_F(ChannelTest, ClientsAreServedInTurnAndEachInItsOrder) {
    auto one = client(1);
    const auto two = client(2);
    for (int i = 0; i < 3; ++i) {
        put(*one, "a::" + std::to_string(i) + "\n");
    }
    put(*two, "b::0\n");
    EXPECT_EQ(readNext(2), "+1 +2");
    EXPECT_EQ(read(*server), "@ipc.1\na::0\n");
    EXPECT_EQ(read(*server), "@ipc.2\nb::0\n");
    one.reset();
    put(*two, "b::1\n");
    EXPECT_EQ(read(*server), "@ipc.1\na::1\n");
    EXPECT_EQ(read(*server), "@ipc.2\nb::1\n");
    EXPECT_EQ(read(*server), "@ipc.1\na::2\n");
    EXPECT_EQ(readNext(2), "-1 nothing");
}

TEST_F(ChannelTest, WhoWritesInAStormDelaysAnotherByOneMessageAtATime) {
    const auto loud = clientOf({1, 1, 10}, 1);
    const auto quiet = clientOf({1, 1, 11}, 2);
    readNext(2);
    for (int i = 0; i < 1000; ++i) {
        put(*loud, "a::1\n");
    }
    for (int round = 0; round < 5; ++round) {
        put(*quiet, "b::1\n");
        EXPECT_EQ(readNext(2), "1 2");
    }
}

TEST_F(ChannelTest, ManyClientsOfOneProcessShareItsTurn) {
    std::vector<std::unique_ptr<ClientFile>> storm;
    for (std::uint64_t id = 100; id < 400; ++id) {
        storm.push_back(clientOf({1, 1, 10}, id));
        put(*storm.back(), "a::1\n");
    }
    const auto quiet = clientOf({1, 1, 11}, 2);
    put(*quiet, "b::1\n");
    EXPECT_EQ(readNext(4), "+100 +2 +101 2");
    storm.clear();
    EXPECT_EQ(readNext(2), "+102 +103");
}

TEST_F(ChannelTest, ManyProcessesOfOneUserShareItsTurn) {
    std::vector<std::unique_ptr<ClientFile>> storm;
    for (std::uint64_t id = 100; id < 400; ++id) {
        storm.push_back(clientOf({1, 1, static_cast<pid_t>(id)}, id));
    }
    const auto quiet = clientOf({2, 2, 5}, 2);
    put(*quiet, "b::1\n");
    EXPECT_EQ(readNext(5), "+100 +2 +101 2 +102");
}

TEST_F(ChannelTest, SilentClientThatTheServerHasNotHeardOfLeavesNoTrace) {
    const auto before = client(1);
    for (std::uint64_t id = 2; id < 1000; ++id) {
        client(id);
    }
    const auto after = client(1000);
    EXPECT_EQ(readNext(3), "+1 +1000 nothing");
    EXPECT_FALSE(channel->hasPending());
}

TEST_F(ChannelTest, ClientThatTheServerHasHeardOfLeavesItsClosing) {
    auto one = client(1);
    EXPECT_EQ(readNext(1), "+1");
    one.reset();
    EXPECT_TRUE(channel->hasPending());
    EXPECT_EQ(readNext(2), "-1 nothing");
}

TEST_F(ChannelTest, ClientThatWroteLeavesBothNotices) {
    put(*client(1), "a::1\n");
    EXPECT_EQ(readNext(4), "+1 1 -1 nothing");
}

TEST_F(ChannelTest, BroadcastHangsUpOnThoseWithoutRoomAndReachesTheOthers) {
    const auto full = client(1);
    const auto keen = client(2);
    readNext(2);
    const std::string message = line(kMessageMaxBytes - 100);
    int taken = 0;
    while (put(*server, "@ipc.1\n" + message) == 0) {
        ++taken;
    }
    listener.told.clear();
    EXPECT_EQ(put(*server, "@ipc\n" + message), 0);
    EXPECT_EQ(read(*keen), "@ipc\n" + message);
    EXPECT_EQ(std::count(listener.told.begin(), listener.told.end(), full.get()), 1);
    EXPECT_TRUE(full->readiness().hungUp);
    EXPECT_FALSE(keen->readiness().hungUp);
    EXPECT_EQ(put(*full, "a::1\n"), EPIPE);
    EXPECT_EQ(put(*server, "@ipc.1\na::1\n"), 0) << "dropped, as for a client that is gone";
    for (int i = 0; i < taken; ++i) {
        EXPECT_EQ(read(*full), "@ipc\n" + message);
    }
    EXPECT_EQ(read(*full), "end");
}

TEST_F(ChannelTest, HungUpClientHasClosedToTheServerOnceAndBehindItsMessages) {
    auto full = client(1);
    readNext(1);
    while (put(*server, "@ipc.1\n" + line(kMessageMaxBytes - 100)) == 0) {
    }
    put(*full, "a::1\n");
    put(*server, line(kMessageMaxBytes));
    EXPECT_EQ(readNext(3), "1 -1 nothing");
    full.reset();
    EXPECT_EQ(readNext(1), "nothing");
}

TEST_F(ChannelTest, HungUpClientReadsNoNoticeWhenTheServerClosesLater) {
    const auto full = client(1);
    while (put(*server, "@ipc.1\n" + line(kMessageMaxBytes - 100)) == 0) {
    }
    put(*server, line(kMessageMaxBytes));
    server.reset();
    std::string last;
    for (std::string message = read(*full); message != "end"; message = read(*full)) {
        last = message;
    }
    EXPECT_NE(last, "-@ipc\n");
    EXPECT_FALSE(last.empty());
}

TEST_F(ChannelTest, WhatOneUsersClientsLeaveTakesNoRoomOfAnother) {
    const std::string message = line(kMessageMaxBytes);
    std::uint64_t id = 1;
    int error = 0;
    for (; error == 0 && id < 1000; ++id) {
        error = put(*clientOf({1, 1, 10}, id), message, 1);
    }
    EXPECT_EQ(error, ENOBUFS);
    EXPECT_LE(id, kShare / kMessageMaxBytes + 1);
    EXPECT_EQ(put(*clientOf({2, 2, 20}, id), message, 2), 0);
    while (read(*server) != "nothing") {
    }
    EXPECT_EQ(put(*clientOf({1, 1, 10}, id + 1), message, 1), 0) << "room again";
}

TEST_F(ChannelTest, ManyDepartedClientsAreBoundedHoweverLittleTheySaid) {
    std::uint64_t id = 1;
    while (id < 1000000 && channel->admit(id, {1, 1, 10}) == 0) {
        ClientFile brief(channel, OpenOptions{}, Charge(), id, {1, 1, 10}, true);
        put(brief, "a::1\n", 1);
        ++id;
    }
    EXPECT_LE(id, kShare / kClientBytes + 1);
    EXPECT_EQ(channel->admit(id + 1, {2, 2, 20}), 0) << "another user";
    while (read(*server) != "nothing") {
    }
    EXPECT_EQ(channel->admit(id + 2, {1, 1, 10}), 0) << "room again";
    EXPECT_GT(accounts.held(1, Holding::kMemory), 0U);
    channel->dismiss(id + 2, {1, 1, 10});
    EXPECT_EQ(accounts.held(1, Holding::kMemory), 0U);
}

TEST_F(ChannelTest, QueueOfAClientCountsForItsUserUntilItIsRead) {
    auto one = clientOf({1, 1, 10}, 1);
    const std::size_t before = accounts.held(1, Holding::kMemory);
    ASSERT_EQ(put(*server, "@ipc.1\n" + line(1000)), 0);
    EXPECT_EQ(accounts.held(1, Holding::kMemory), before + 1000 + 5);
    read(*one, 500);
    EXPECT_EQ(accounts.held(1, Holding::kMemory), before + 1000 + 5) << "half of it";
    read(*one);
    EXPECT_EQ(accounts.held(1, Holding::kMemory), before);
    put(*server, "@ipc.1\n" + line(1000));
    readNext(1);
    one.reset();
    readNext(1);
    EXPECT_EQ(accounts.held(1, Holding::kMemory), 0U);
}

TEST_F(ChannelTest, ClientWhoseUserIsPastItsShareIsFull) {
    const auto full = clientOf({1, 1, 10}, 1);
    const auto other = clientOf({2, 2, 20}, 2);
    Charge rest(accounts, 1, Holding::kMemory);
    while (rest.grow(1)) {
    }
    EXPECT_EQ(put(*server, "@ipc.1\na::1\n"), ENOBUFS);
    EXPECT_EQ(put(*server, "@ipc\na::1\n"), 0);
    EXPECT_TRUE(full->readiness().hungUp);
    EXPECT_EQ(read(*other), "@ipc\na::1\n");
}

TEST_F(ChannelTest, WhatCountsIsGivenBackWhenTheServerEnds) {
    const auto one = clientOf({1, 1, 10}, 1);
    put(*one, line(5000), 1);
    put(*server, "@ipc.1\n" + line(1000));
    server.reset();
    EXPECT_LT(accounts.held(1, Holding::kMemory), 2000U) << "only what the client may still read";
    while (read(*one) != "end") {
    }
    EXPECT_EQ(accounts.held(1, Holding::kMemory), 0U);
}

TEST_F(ChannelTest, ListOfClientsNamesWhoIsConnected) {
    const auto one = clientOf({1, 2, 10}, 7);
    auto gone = clientOf({3, 3, 30}, 8);
    gone.reset();
    const auto two = clientOf({4, 5, 40}, 9);
    std::string text = channel->listClients();
    Charge charge(accounts, 1, Holding::kMemory);
    ASSERT_TRUE(charge.grow(text.size()));
    ClientListFile list(std::move(text), OpenOptions{}, Charge(), std::move(charge));
    EXPECT_TRUE(list.readiness().readable);
    EXPECT_EQ(read(list),
              "@ipc\n7:json:{\"uid\":1,\"gid\":2,\"pid\":10}\n"
              "9:json:{\"uid\":4,\"gid\":5,\"pid\":40}\n");
    EXPECT_EQ(read(list), "nothing");
    EXPECT_FALSE(list.readiness().readable);
}
