// The bounds of served objects: message sizes and queues.

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/uio.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "tests/integration/other_user.hpp"
#include "tests/integration/pps_files.hpp"
#include "tests/support/ppsd_mount.hpp"

namespace {

constexpr int kServer = O_RDWR | O_CREAT;
constexpr std::size_t kMessageBytes = 256 * 1024;
constexpr std::size_t kQueueBytes = 1024 * 1024;

// An attribute line of exactly `size` bytes.
std::string line(std::size_t size, char fill = 'x') {
    return "a::" + std::string(size - 4, fill) + "\n";
}

// The line "@ipc.ID" of a notice.
std::string tagOf(const std::string& notice) {
    return notice.empty() ? notice : notice.substr(1, notice.find('\n'));
}

class PpsdBounds : public ::testing::Test {
  protected:
    void SetUp() override {
        QUIL_SKIP_WITHOUT_FUSE();
        ASSERT_TRUE(m_ppsd.start()) << m_ppsd.output();
    }

    std::string path() const { return m_ppsd.path("/ipc"); }
    std::string serverPath() const { return m_ppsd.path("/ipc?server"); }

    ScratchRoot m_root;
    PpsdMount m_ppsd{m_root};
};

}  // namespace

TEST_F(PpsdBounds, MessageOf256KiBTravelsWholeBothWays) {
    PpsFile server(serverPath(), kServer);
    PpsFile client(path(), O_RDWR);
    const std::string tag = tagOf(server.read());
    const std::string text = line(kMessageBytes);
    EXPECT_EQ(client.write(text), 0);
    EXPECT_TRUE(server.read() == tag + text);
    EXPECT_EQ(server.write(text), 0);
    EXPECT_TRUE(client.read() == "@ipc\n" + text);
}

TEST_F(PpsdBounds, LargerMessagesGiveEmsgsizeAndNothingOfThemArrives) {
    PpsFile server(serverPath(), kServer);
    PpsFile client(path(), O_RDWR);
    server.read();
    for (const std::size_t size :
         {kMessageBytes + 1, 2 * kMessageBytes, kQueueBytes, kQueueBytes + 1, 3 * kQueueBytes}) {
        EXPECT_EQ(client.write(line(size)), EMSGSIZE) << size;
        EXPECT_EQ(server.write(line(size)), EMSGSIZE) << size;
    }
    EXPECT_EQ(server.read(), "");
    EXPECT_EQ(client.read(), "");
}

// The system hands such a write over in two pieces, each of which would look whole.
TEST_F(PpsdBounds, MessageOfMoreThan256BuffersIsRefusedWhole) {
    PpsFile server(serverPath(), kServer);
    PpsFile client(path(), O_RDWR);
    const std::string tag = tagOf(server.read());
    std::string text = "a::1\n";
    std::vector<iovec> buffers(300, {text.data(), text.size()});
    const auto whole = static_cast<ssize_t>(text.size() * buffers.size());
    EXPECT_LT(writev(client.fd(), buffers.data(), 300), whole);
    EXPECT_EQ(server.read(), "") << "nothing of it";
    EXPECT_LT(writev(server.fd(), buffers.data(), 300), whole);
    EXPECT_EQ(client.read(), "");
    EXPECT_EQ(writev(client.fd(), buffers.data(), 256), static_cast<ssize_t>(256 * text.size()));
    EXPECT_EQ(server.read().size(), tag.size() + 256 * text.size()) << "the most that is one piece";
}

// Where each message of the same size would otherwise look like the second piece of one.
TEST_F(PpsdBounds, MessagesOfADescriptorThatAppendsAreWholeEach) {
    PpsFile server(serverPath(), kServer | O_APPEND);
    PpsFile client(path(), O_RDWR | O_APPEND);
    const std::string tag = tagOf(server.read());
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(client.write("a::1\n"), 0);
        EXPECT_EQ(server.read(), tag + "a::1\n");
        EXPECT_EQ(server.write("a::1\n"), 0);
        EXPECT_EQ(client.read(), "@ipc\na::1\n");
    }
}

// Whoever reads on the spot may have read the first piece; then its writer is gone, and so is known
// to have broken off.
TEST_F(PpsdBounds, MessageThatWasCutUnderItsReadersEyesEndsTheConnection) {
    PpsFile server(serverPath(), kServer);
    std::string text = "a::1\n";
    std::vector<iovec> buffers(300, {text.data(), text.size()});
    for (int round = 0; round < 200; ++round) {
        PpsFile client(path(), O_RDWR);
        const std::string tag = tagOf(server.read());
        std::atomic<bool> isWritten{false};
        std::thread writer([&] {
            EXPECT_LT(writev(client.fd(), buffers.data(), 300), 300 * 5);
            isWritten = true;
        });
        std::string last;
        while (!isWritten) {
            const std::string message = server.read();
            last = message.empty() ? last : message;
        }
        writer.join();
        const std::string message = server.read();
        last = message.empty() ? last : message;
        EXPECT_TRUE(last.empty() || last == "-" + tag) << last.substr(0, 40);
        const int error = client.write("b::1\n");
        EXPECT_EQ(error, last.empty() ? 0 : EPIPE);
        client.shut();
        while (!server.read().empty()) {
        }
    }
}

TEST_F(PpsdBounds, UnalignedBufferTravelsWholeToo) {
    PpsFile server(serverPath(), kServer);
    PpsFile client(path(), O_RDWR);
    const std::string tag = tagOf(server.read());
    const std::string text = "x" + line(kMessageBytes);
    EXPECT_EQ(client.write(std::string_view(text).substr(1)), 0);
    EXPECT_EQ(server.read().size(), tag.size() + kMessageBytes);
}

TEST_F(PpsdBounds, ClientThatNeverReadsIsHeldTo1MiBAndTheServerToldEnobufs) {
    PpsFile server(serverPath(), kServer);
    PpsFile lazy(path(), O_RDWR);
    const std::string tag = tagOf(server.read());
    const std::string text = line(64 * 1024 - 5);
    int taken = 0;
    while (taken < 100 && server.write(tag + text) == 0) {
        ++taken;
    }
    EXPECT_EQ(taken, 16) << "messages of 64 KiB with their object line";
    EXPECT_EQ(server.write(tag + text), ENOBUFS);
    lazy.read();
    EXPECT_EQ(server.write(tag + text), 0) << "room for one again";
    for (int i = 0; i < taken; ++i) {
        EXPECT_TRUE(lazy.read() == "@ipc\n" + text);
    }
    EXPECT_EQ(lazy.read(), "") << "nothing of a refused message is queued";
}

TEST_F(PpsdBounds, BroadcastHangsUpOnAClientThatNeverReadsAndReachesTheOthers) {
    PpsFile server(serverPath(), kServer);
    PpsFile lazy(path(), O_RDWR);
    const std::string lazyTag = tagOf(server.read());
    PpsFile keen(path(), O_RDWR);
    const std::string tag = tagOf(server.read());
    const std::string text = line(64 * 1024 - 5);
    int taken = 0;
    while (taken < 100 && server.write(lazyTag + text) == 0) {
        ++taken;
    }
    EXPECT_EQ(lazy.events() & POLLHUP, 0);
    EXPECT_EQ(server.write("all::1\n"), 0);
    EXPECT_EQ(keen.read(), "@ipc\nall::1\n");
    EXPECT_EQ(lazy.events() & POLLHUP, POLLHUP);
    EXPECT_EQ(lazy.write("a::1\n"), EPIPE);
    EXPECT_EQ(server.read(), "-" + lazyTag);
    EXPECT_EQ(server.write(lazyTag + "own::1\n"), 0) << "dropped, as for a client that is gone";
    EXPECT_EQ(server.write(tag + "own::1\n"), 0);
    EXPECT_EQ(keen.read(), "@ipc\nown::1\n");
    for (int i = 0; i < taken; ++i) {
        EXPECT_TRUE(lazy.read() == "@ipc\n" + text);
    }
    EXPECT_EQ(lazy.read(), "");
    lazy.shut();
    EXPECT_EQ(server.read(), "") << "closed already";
    PpsFile again(path(), O_RDWR);
    EXPECT_EQ(server.read().substr(0, 6), "+@ipc.");
    EXPECT_EQ(server.write("all::2\n"), 0);
    EXPECT_EQ(again.read(), "@ipc\nall::2\n");
}

TEST_F(PpsdBounds, WriteOnlyClientNeverFillsUp) {
    PpsFile server(serverPath(), kServer);
    PpsFile speaker(path(), O_WRONLY);
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(server.write(line(kMessageBytes)), 0);
    }
}

TEST_F(PpsdBounds, ServerThatNeverReadsHolds1MiBOfEachClient) {
    PpsFile server(serverPath(), kServer);
    PpsFile loud(path(), O_RDWR);
    PpsFile quiet(path(), O_RDWR);
    const std::string text = line(60 * 1024);
    std::size_t taken = 0;
    int error = 0;
    while (taken < 100 && (error = loud.write(text)) == 0) {
        ++taken;
    }
    EXPECT_EQ(error, ENOBUFS);
    EXPECT_EQ(taken, kQueueBytes / (text.size() + sizeof "@ipc.1\n" - 1));
    EXPECT_EQ(quiet.write("a::1\n"), 0) << "a loud client takes nobody else's room";
    server.read();
    server.read();
    EXPECT_EQ(loud.write(text), ENOBUFS) << "only notices were read";
    server.read();
    EXPECT_EQ(loud.write(text), 0);
}

TEST_F(PpsdBounds, NoticesAreNeverRefused) {
    PpsFile server(serverPath(), kServer);
    {
        PpsFile client(path(), O_RDWR);
        while (client.write(line(1000)) == 0) {
        }
    }
    {
        PpsFile late(path(), O_RDWR);
        EXPECT_EQ(late.error(), 0);
        EXPECT_EQ(late.write("a::1\n"), 0);
    }
    std::string notices;
    for (std::string message = server.read(); !message.empty(); message = server.read()) {
        notices += message.front() == '@' ? "" : message.substr(0, 1);
    }
    EXPECT_EQ(notices, "++--");
}

TEST_F(PpsdBounds, ClientThatComesBackAgainAndAgainIsHeldToItsUsersShareOfMemory) {
    QUIL_SKIP_UNLESS_ROOT();
    constexpr std::size_t kShareBytes = 16 * kQueueBytes;
    PpsFile server(serverPath(), kServer);
    ASSERT_EQ(chmod(path().c_str(), 0666), 0);
    const std::string text = line(kMessageBytes);
    const int taken = asOther([&] {
        for (int i = 0; i < 200; ++i) {
            if (PpsFile(path(), O_RDWR).write(text) == ENOBUFS) {
                return i;
            }
        }
        return 254;
    });
    EXPECT_LE(static_cast<std::size_t>(taken) * text.size(), kShareBytes);
    EXPECT_GE(static_cast<std::size_t>(taken + 2) * text.size(), kShareBytes);
    EXPECT_EQ(asOther([&] { return PpsFile(path(), O_RDWR).write(text); }, kThird), 0);
    while (!server.read().empty()) {
    }
    EXPECT_EQ(asOther([&] { return PpsFile(path(), O_RDWR).write(text); }), 0) << "room again";
}
