// The address block: its bytes against stored ones, its limits, and that the transport takes it.

#include "agent/connections/socket_address.hpp"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "platform/transport/transport.hpp"
#include "tests/support/agent/process_fixture.hpp"
#include "tests/support/recorded_log.hpp"

namespace {

bool g_isMemoryGone = false;

constexpr std::uint16_t kPort =
    0x2A2A;  // the same in either byte order, so that files fit anywhere
constexpr std::uint32_t kUntouched = 12345;
constexpr std::uint32_t kTransportCode = 0x19002711;

std::string stored(const std::string& name) {
    const char* source = std::getenv("QUIL_SOURCE");
    const std::string root = source == nullptr ? "." : source;
    return readFile(root + "/tests/data/socket_address_" + name + ".bin");
}

class SocketAddress : public ::testing::Test {
  protected:
    // The block's bytes, or "null".
    std::string build(const char* handler, const char* host, const char* id,
                      std::uint16_t port = kPort) {
        m_length = kUntouched;
        const QuilSocketAddress block = addr_lyr(&m_length, handler, host, id, port);
        return block == nullptr ? "null"
                                : std::string(reinterpret_cast<const char*>(block.get()), block[0]);
    }

    std::uint32_t m_length = kUntouched;
};

std::string refusal(const std::string& text) {
    return std::to_string(kTransportCode) + "/2 " + text + "\n\n";
}

}  // namespace

// Stands before the C library's for the program's own code.
extern "C" void* __real_calloc(std::size_t count, std::size_t size);
extern "C" void* __wrap_calloc(std::size_t count, std::size_t size);
extern "C" void* __wrap_calloc(std::size_t count, std::size_t size) {
    return g_isMemoryGone ? nullptr : __real_calloc(count, size);
}

TEST_F(SocketAddress, DefaultSettingsGiveTheStoredBytes) {
    EXPECT_EQ(build("defaulthandler", "127.0.0.1", ""), stored("default"));
    EXPECT_EQ(m_length, 36U);
}

TEST_F(SocketAddress, HandlerWithoutHostAndAnEmptyIdGiveTheStored26Bytes) {
    const std::string block = build("defaulthandler", nullptr, "");
    EXPECT_EQ(block, stored("no_host"));
    ASSERT_EQ(block.size(), 26U);
    EXPECT_EQ(block.substr(6, 3), std::string("\x0f\0\x01", 3));
    EXPECT_EQ(block.substr(9, 15), std::string("defaulthandler\0", 15));
    EXPECT_EQ(block[24], '\0');
}

TEST_F(SocketAddress, AllThreeStringsFollowEachOtherAsStored) {
    EXPECT_EQ(build("h", "localhost", "device-7"), stored("all_strings"));
}

TEST_F(SocketAddress, NothingButAPortIsTenBytesAsStored) {
    EXPECT_EQ(build(nullptr, nullptr, nullptr), stored("empty"));
    EXPECT_EQ(m_length, 10U);
}

TEST_F(SocketAddress, LargestBlockHas255BytesAsStored) {
    const std::string block = build(std::string(244, 'h').c_str(), nullptr, nullptr);
    EXPECT_EQ(block, stored("largest"));
    EXPECT_EQ(m_length, 255U);
}

TEST_F(SocketAddress, PortStandsInTheProcessorsOrder) {
    const std::string block = build(nullptr, nullptr, nullptr, 8080);
    std::uint16_t port = 0;
    std::memcpy(&port, block.data() + 4, sizeof port);
    EXPECT_EQ(port, 8080);
}

TEST_F(SocketAddress, LargestAndSmallestPortFit) {
    EXPECT_EQ(build(nullptr, nullptr, nullptr, 65535).substr(4, 2), "\xff\xff");
    EXPECT_EQ(build(nullptr, nullptr, nullptr, 0).substr(4, 2), std::string(2, '\0'));
}

TEST_F(SocketAddress, NullIdIsLeftOutAndAnEmptyOneHasItsNul) {
    EXPECT_EQ(build("h", "n", nullptr)[8], '\0');
    EXPECT_EQ(build("h", "n", nullptr).size(), 14U);
    EXPECT_EQ(build("h", "n", "")[8], '\x01');
    EXPECT_EQ(build("h", "n", "").size(), 15U);
}

TEST_F(SocketAddress, HandlerOf254CharactersPassesAloneButIsTooMuchInTotal) {
    EXPECT_EQ(build(std::string(254, 'h').c_str(), nullptr, nullptr), "null");
    EXPECT_EQ(recordedText(), refusal("addr_lyr: Total size is too big: 265"));
    EXPECT_EQ(m_length, kUntouched);
}

TEST_F(SocketAddress, HandlerOf255CharactersIsTooBig) {
    EXPECT_EQ(build(std::string(255, 'h').c_str(), nullptr, nullptr), "null");
    EXPECT_EQ(recordedText(), refusal("addr_lyr: Handler size is too big: 256"));
    EXPECT_EQ(m_length, kUntouched);
}

TEST_F(SocketAddress, HandlerOf245CharactersIsOneTooMany) {
    EXPECT_EQ(build(std::string(245, 'h').c_str(), nullptr, nullptr), "null");
    EXPECT_EQ(recordedText(), refusal("addr_lyr: Total size is too big: 256"));
}

TEST_F(SocketAddress, HostOf255CharactersIsTooBigAndOneLessIsNot) {
    EXPECT_EQ(build("h", std::string(255, 'n').c_str(), nullptr), "null");
    EXPECT_EQ(recordedText(), refusal("addr_lyr: Host name size is too big: 256"));
    clearRecordedLines();
    EXPECT_EQ(build("h", std::string(254, 'n').c_str(), nullptr), "null");
    EXPECT_EQ(recordedText(), refusal("addr_lyr: Total size is too big: 267"));
}

TEST_F(SocketAddress, IdOf255CharactersIsTooBigAndOneLessIsNot) {
    EXPECT_EQ(build("h", "n", std::string(255, 'u').c_str()), "null");
    EXPECT_EQ(recordedText(), refusal("addr_lyr: UID size is too big: 256"));
    clearRecordedLines();
    EXPECT_EQ(build("h", "n", std::string(254, 'u').c_str()), "null");
    EXPECT_EQ(recordedText(), refusal("addr_lyr: Total size is too big: 269"));
}

TEST_F(SocketAddress, HandlerIsTestedBeforeTheHostAndTheHostBeforeTheId) {
    const std::string tooLong(300, 'x');
    EXPECT_EQ(build(tooLong.c_str(), tooLong.c_str(), tooLong.c_str()), "null");
    EXPECT_EQ(recordedText(), refusal("addr_lyr: Handler size is too big: 301"));
    clearRecordedLines();
    EXPECT_EQ(build("h", tooLong.c_str(), tooLong.c_str()), "null");
    EXPECT_EQ(recordedText(), refusal("addr_lyr: Host name size is too big: 301"));
}

TEST_F(SocketAddress, ThreeStringsOf100CharactersAreTooMuchInTotal) {
    const std::string text(100, 'x');
    EXPECT_EQ(build(text.c_str(), text.c_str(), text.c_str()), "null");
    EXPECT_EQ(recordedText(), refusal("addr_lyr: Total size is too big: 313"));
    EXPECT_EQ(m_length, kUntouched);
}

TEST_F(SocketAddress, WithoutMemoryTheLengthIsWrittenAndTheFailureLogged) {
    g_isMemoryGone = true;
    EXPECT_EQ(build("h", "n", "u"), "null");
    g_isMemoryGone = false;
    EXPECT_EQ(recordedText(), refusal("addr_lyr: Memory allocation failed for slyr: size =16"));
    EXPECT_EQ(m_length, 16U);
}

TEST_F(SocketAddress, BlockThatFitsIsBuiltWithoutALine) {
    build("defaulthandler", "127.0.0.1", "");
    EXPECT_EQ(recordedText(), "");
}

TEST_F(SocketAddress, TransportBindsToIt) {
    const QuilSocketAddress block = addr_lyr(&m_length, "defaulthandler", "127.0.0.1", "id", 0);
    ASSERT_NE(block, nullptr);
    const int socket = transportSocket(TRANSPORT_FAMILY, SOCK_STREAM, 0);
    ASSERT_GE(socket, 0);
    EXPECT_EQ(transportBind(socket, block.get(), m_length), 0) << std::strerror(errno);
    close(socket);
}
