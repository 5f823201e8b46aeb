// Queues of a served object, without a file system.

#include "ppsd/store/channel.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <vector>

#include "ppsd/store/limits.hpp"

namespace {

class Recorder : public ReadinessListener {
  public:
    void readinessChanged(OpenFile& file) override { told.push_back(&file); }
    std::vector<OpenFile*> told;
};

class ChannelTest : public ::testing::Test {
  protected:
    ChannelTest()
        : server(std::make_unique<ServerFile>(channel, OpenOptions{}, [this] { ++closed; })) {}

    std::unique_ptr<ClientFile> client(std::uint64_t id, bool reads = true) {
        return std::make_unique<ClientFile>(channel, OpenOptions{}, id, reads);
    }

    // What a read gives: the bytes, "nothing" or "end".
    static std::string read(OpenFile& file, std::size_t size = 1U << 20) {
        std::string bytes;
        const ReadOutcome outcome = file.read(size, bytes);
        return outcome == ReadOutcome::kBytes ? bytes
               : outcome == ReadOutcome::kEnd ? "end"
                                              : "nothing";
    }

    Recorder listener;
    int closed = 0;
    std::shared_ptr<Channel> channel = std::make_shared<Channel>("ipc", listener);
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
    first->write("a::1\n");
    server->write("@ipc.2\nb::2\n");
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
    EXPECT_EQ(one->write("a::1\n"), EPIPE);
}

TEST_F(ChannelTest, ServerHasLeftTheTreeWhileItsClientsKnowNothingYet) {
    server.reset();
    const auto served = std::make_shared<Channel>("ipc", listener);
    std::unique_ptr<ClientFile> one;
    std::string atClose;
    server = std::make_unique<ServerFile>(served, OpenOptions{}, [&] { atClose = read(*one); });
    one = std::make_unique<ClientFile>(served, OpenOptions{}, 1, true);
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
    one->write("a::1\n");
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
    while (server->write(line(10000)) == 0) {
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
    const std::size_t quarter = kClientQueueMaxBytes / 4;
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(server->write(line(quarter - objectLine)), 0);
    }
    EXPECT_EQ(server->write("@ipc.1\n"), ENOBUFS);
}

TEST_F(ChannelTest, ExactlyTheBoundOfOneClientFitsIntoTheServersQueue) {
    const auto one = client(1);
    const std::size_t tag = std::string("@ipc.1\n").size();
    const std::size_t quarter = kServerQueuePerClientMaxBytes / 4;
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(one->write(line(quarter - tag)), 0);
    }
    EXPECT_EQ(one->write("@ipc\n"), ENOBUFS);
}

TEST_F(ChannelTest, HalfReadMessageStillTakesItsRoom) {
    const auto one = client(1);
    while (server->write(line(100000)) == 0) {
    }
    read(*one, 50000);
    EXPECT_EQ(server->write(line(100000)), ENOBUFS);
    read(*one);
    EXPECT_EQ(server->write(line(100000)), 0);
}

TEST_F(ChannelTest, RoomOfADepartedClientComesBackWhenTheServerReads) {
    auto one = client(1);
    while (one->write(line(100000)) == 0) {
    }
    one.reset();
    while (read(*server) != "nothing") {
    }
    auto two = client(2);
    EXPECT_EQ(two->write(line(kMessageMaxBytes)), 0);
}

TEST_F(ChannelTest, SizeIsCheckedBeforeAnythingElse) {
    const auto one = client(1);
    EXPECT_EQ(server->write(std::string(kMessageMaxBytes + 1, 'x')), EMSGSIZE);
    EXPECT_EQ(one->write(std::string(kMessageMaxBytes + 1, 'x')), EMSGSIZE);
}

TEST_F(ChannelTest, MessageWithoutAttributesIsDeliveredAsItsObjectLine) {
    const auto one = client(1);
    EXPECT_EQ(read(*server), "+@ipc.1\n");
    one->write("@anything\n");
    EXPECT_EQ(read(*server), "@ipc.1\n");
    server->write("@ipc\n");
    EXPECT_EQ(read(*one), "@ipc\n");
}
