// The parts of the HTTP transport that need no peer: the growable array, stripping, header lookup
// and what libcurl's callbacks make of the bytes that they are given.

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "agent/registration/http.hpp"
#include "tests/support/agent/server_fixture.hpp"
#include "tests/support/recorded_log.hpp"

namespace {

constexpr std::uint32_t kOneMiB = 1024 * 1024;

// The stripped form of a text.
std::string stripped(const std::string& text) {
    const char* start = text.data();
    auto length = static_cast<std::uint32_t>(text.size());
    httpStrip(&start, &length);
    return {start, length};
}

class Buffer : public ::testing::Test {
  protected:
    ~Buffer() override { std::free(m_buffer.data); }

    std::string bytes() const {
        return {static_cast<const char*>(m_buffer.data), m_buffer.count * m_buffer.elementSize};
    }

    HttpBuffer m_buffer{};
};

// A list of header fields as libcurl's callback fills it.
class HeaderWrite : public ::testing::Test {
  protected:
    HeaderWrite() { httpBufferInit(&m_list, sizeof(HttpHeaderField)); }
    ~HeaderWrite() override {
        for (std::uint32_t i = 0; i < m_list.count; ++i) {
            std::free(field(i).name);
            std::free(field(i).value);
        }
        std::free(m_list.data);
    }

    std::size_t write(const std::string& line) {
        return curlHeaderWrite(line.data(), 1, line.size(), &m_list);
    }
    const HttpHeaderField& field(std::uint32_t i) const {
        return static_cast<const HttpHeaderField*>(m_list.data)[i];
    }
    // The fields as "[name=value]", in order.
    std::string fields() const {
        std::string all;
        for (std::uint32_t i = 0; i < m_list.count; ++i) {
            all += "[" + std::string(field(i).name, field(i).nameLength) + "=" +
                   std::string(field(i).value, field(i).valueLength) + "]";
        }
        return all;
    }

    HttpBuffer m_list{};
};

class FindHeader : public ::testing::Test {
  protected:
    FindHeader() {
        add("Date", "1");
        add("Vex-Device-Ovra-Port", "2");
        add("DATE", "3");
        add("", "4");
    }
    ~FindHeader() override {
        for (const HttpHeaderField& field : m_fields) {
            std::free(field.name);
            std::free(field.value);
        }
    }

    void add(const char* name, const char* value) {
        m_fields.push_back({strdup(name), static_cast<std::uint32_t>(std::strlen(name)),
                            strdup(value), static_cast<std::uint32_t>(std::strlen(value))});
    }
    // The value of the field that was found, "none" without one.
    std::string find(const char* name) const {
        const HttpHeaderField* field =
            httpFindHeader(name, m_fields.data(), static_cast<std::uint32_t>(m_fields.size()));
        return field == nullptr ? "none" : field->value;
    }

    std::vector<HttpHeaderField> m_fields;
};

}  // namespace

TEST_F(Buffer, IsEmptyAfterInitialising) {
    int something = 0;
    m_buffer = {&something, 7, 9};
    httpBufferInit(&m_buffer, 24);
    EXPECT_EQ(m_buffer.data, nullptr);
    EXPECT_EQ(m_buffer.count, 0U);
    EXPECT_EQ(m_buffer.elementSize, 24U);
}

TEST_F(Buffer, AppendsBehindWhatItHolds) {
    httpBufferInit(&m_buffer, 2);
    EXPECT_EQ(httpBufferAppend(&m_buffer, "aabb", 2), 0);
    EXPECT_EQ(httpBufferAppend(&m_buffer, "cc", 1), 0);
    EXPECT_EQ(m_buffer.count, 3U);
    EXPECT_EQ(bytes(), "aabbcc");
}

TEST_F(Buffer, AppendingNothingDoesNothing) {
    httpBufferInit(&m_buffer, 1);
    EXPECT_EQ(httpBufferAppend(nullptr, "a", 1), 0);
    EXPECT_EQ(httpBufferAppend(&m_buffer, nullptr, 1), 0);
    EXPECT_EQ(httpBufferAppend(&m_buffer, "a", 0), 0);
    EXPECT_EQ(m_buffer.count, 0U);
    EXPECT_EQ(m_buffer.data, nullptr);
}

TEST_F(Buffer, HeldSizeBeyond32BitsIsDroppedAndReportedAsSuccess) {
    m_buffer = {nullptr, 0x40000000U, 4};
    EXPECT_EQ(httpBufferAppend(&m_buffer, "abcd", 1), 0);
    EXPECT_EQ(m_buffer.count, 0x40000000U);
    EXPECT_EQ(m_buffer.data, nullptr);
}

TEST_F(Buffer, AddedSizeBeyond32BitsIsDroppedAndReportedAsSuccess) {
    httpBufferInit(&m_buffer, 4);
    EXPECT_EQ(httpBufferAppend(&m_buffer, "abcd", 0x40000000U), 0);
    EXPECT_EQ(m_buffer.count, 0U);
    EXPECT_EQ(m_buffer.data, nullptr);
}

TEST_F(Buffer, SumBeyond32BitsIsDroppedAndReportedAsSuccess) {
    m_buffer = {nullptr, 0x3FFFFFFFU, 4};
    EXPECT_EQ(httpBufferAppend(&m_buffer, "abcd", 1), 0);
    EXPECT_EQ(m_buffer.count, 0x3FFFFFFFU);
    EXPECT_EQ(m_buffer.data, nullptr);
}

TEST_F(Buffer, WhatMemoryCannotHoldIsDroppedAndReportedAsSuccess) {
    if (kIsSanitized) {
        GTEST_SKIP() << "a sanitizer's memory cannot be limited";
    }
    httpBufferInit(&m_buffer, 1);
    httpBufferAppend(&m_buffer, "kept", 4);
    const rlimit limit = {rlim_t{1} << 30, rlim_t{1} << 30};
    ASSERT_EQ(setrlimit(RLIMIT_AS, &limit), 0);
    EXPECT_EQ(httpBufferAppend(&m_buffer, "never read", 0xF0000000U), 0);
    EXPECT_EQ(bytes(), "kept");
}

TEST(Strip, TakesAllSixWhiteSpacesFromBothEnds) {
    EXPECT_EQ(stripped(" \t\n\v\f\ra b\tc\r\f\v\n\t "), "a b\tc");
}

TEST(Strip, LeavesTextWithoutWhiteSpaceAlone) {
    EXPECT_EQ(stripped("abc"), "abc");
}

TEST(Strip, NothingRemainsOfWhiteSpace) {
    EXPECT_EQ(stripped(" \r\n "), "");
    EXPECT_EQ(stripped(" "), "");
}

TEST(Strip, BytesAbove127AreNoWhiteSpace) {
    EXPECT_EQ(stripped("\xA0x\x85"), "\xA0x\x85");
}

TEST(Strip, NullAndEmptyViewsAreLeftAlone) {
    const char* text = nullptr;
    std::uint32_t length = 3;
    httpStrip(&text, &length);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(length, 3U);
    httpStrip(nullptr, &length);
    EXPECT_EQ(length, 3U);
    const char* const blank = " ";
    text = blank;
    httpStrip(&text, nullptr);
    EXPECT_EQ(text, blank);
    length = 0;
    httpStrip(&text, &length);
    EXPECT_EQ(text, blank);
    EXPECT_EQ(length, 0U);
}

TEST_F(FindHeader, LettersOfAnyCaseMatch) {
    EXPECT_EQ(find("vex-device-ovra-port"), "2");
    EXPECT_EQ(find("VEX-DEVICE-OVRA-PORT"), "2");
}

TEST_F(FindHeader, FirstOfSeveralWins) {
    EXPECT_EQ(find("date"), "1");
}

TEST_F(FindHeader, WholeNameIsNeeded) {
    EXPECT_EQ(find("vex-device-ovra-por"), "none");
    EXPECT_EQ(find("vex-device-ovra-ports"), "none");
    EXPECT_EQ(find("device-ovra-port"), "none");
}

TEST_F(FindHeader, EmptyNameMatchesOnlyAnEmptyName) {
    EXPECT_EQ(find(""), "4");
}

TEST_F(FindHeader, NullNameAndEmptyListYieldNone) {
    EXPECT_EQ(find(nullptr), "none");
    EXPECT_EQ(httpFindHeader("Date", nullptr, 0), nullptr);
}

TEST(FreeResponse, NullAtEitherLevelIsAllowed) {
    httpFreeResponse(nullptr);
    HttpResponse* response = nullptr;
    httpFreeResponse(&response);
    EXPECT_EQ(response, nullptr);
}

TEST_F(HeaderWrite, BlanksAroundNameAndValueAreStripped) {
    EXPECT_EQ(write(" Na me \t:  va lue \r\n"), 20U);
    EXPECT_EQ(fields(), "[Na me=va lue]");
}

TEST_F(HeaderWrite, CopiesAreNulTerminatedAndTheirOwn) {
    std::string line = "A:bc\r\n";
    write(line);
    line.assign(line.size(), '?');
    ASSERT_EQ(m_list.count, 1U);
    EXPECT_STREQ(field(0).name, "A");
    EXPECT_STREQ(field(0).value, "bc");
    EXPECT_EQ(field(0).nameLength, 1U);
    EXPECT_EQ(field(0).valueLength, 2U);
}

TEST_F(HeaderWrite, LineThatEndsBehindTheColonHasAnEmptyValue) {
    EXPECT_EQ(write("Name:"), 5U);
    EXPECT_EQ(write("Name2:\r\n"), 8U);
    EXPECT_EQ(fields(), "[Name=][Name2=]");
    EXPECT_STREQ(field(0).value, "");
}

TEST_F(HeaderWrite, OnlyTheFirstColonSplits) {
    write("Date: 12:34:56\r\n");
    EXPECT_EQ(fields(), "[Date=12:34:56]");
}

TEST_F(HeaderWrite, LineThatStartsWithAColonHasAnEmptyName) {
    write(":x\r\n");
    EXPECT_EQ(fields(), "[=x]");
}

TEST_F(HeaderWrite, LinesWithoutColonAreSkippedAndTaken) {
    EXPECT_EQ(write("HTTP/1.1 200 OK\r\n"), 17U);
    EXPECT_EQ(write("\r\n"), 2U);
    EXPECT_EQ(m_list.count, 0U);
}

TEST_F(HeaderWrite, OneByteIsNoHeaderAndTwoAre) {
    EXPECT_EQ(write(":"), 1U);
    EXPECT_EQ(m_list.count, 0U);
    EXPECT_EQ(write(":x"), 2U);
    EXPECT_EQ(m_list.count, 1U);
}

TEST_F(HeaderWrite, LengthIsSizeTimesCount) {
    EXPECT_EQ(curlHeaderWrite("ab:cd", 2, 2, &m_list), 4U);
    EXPECT_EQ(fields(), "[ab=c]");
}

TEST_F(HeaderWrite, FieldsBeyond1000AreDroppedSilently) {
    for (int i = 0; i < 1001; ++i) {
        EXPECT_EQ(write("a:" + std::to_string(1000 + i)), 6U);
    }
    ASSERT_EQ(m_list.count, 1000U);
    EXPECT_STREQ(field(999).value, "1999");
    EXPECT_EQ(recordedText(), "");
}

TEST(HeaderWriteFailure, FieldThatTheListRefusesIsFreedAndTheLineTaken) {
    HttpBuffer list = {nullptr, 1, 0xFFFFFFFFU};
    EXPECT_EQ(curlHeaderWrite("a:b", 1, 3, &list), 3U);
    EXPECT_EQ(list.count, 1U);
    EXPECT_EQ(list.data, nullptr);
    EXPECT_EQ(recordedText(), "");
}

TEST_F(Buffer, BodyBytesAreAppendedAsTheyAre) {
    httpBufferInit(&m_buffer, 1);
    EXPECT_EQ(curlBodyWrite(" a\0b ", 1, 5, &m_buffer), 5U);
    EXPECT_EQ(curlBodyWrite("cdef", 2, 2, &m_buffer), 4U);
    EXPECT_EQ(bytes(), std::string(" a\0b cdef", 9));
}

TEST_F(Buffer, BodyOfNothingStaysEmpty) {
    httpBufferInit(&m_buffer, 1);
    EXPECT_EQ(curlBodyWrite("", 1, 0, &m_buffer), 0U);
    EXPECT_EQ(m_buffer.data, nullptr);
}

TEST_F(Buffer, BodyBytesBeyond1MiBAreDroppedSilently) {
    httpBufferInit(&m_buffer, 1);
    const std::string most(kOneMiB - 3, 'x');
    EXPECT_EQ(curlBodyWrite(most.data(), 1, most.size(), &m_buffer), most.size());
    EXPECT_EQ(curlBodyWrite("12345", 1, 5, &m_buffer), 5U);
    EXPECT_EQ(curlBodyWrite("67890", 1, 5, &m_buffer), 5U);
    EXPECT_EQ(m_buffer.count, kOneMiB);
    EXPECT_EQ(bytes().substr(kOneMiB - 4), "x123");
    EXPECT_EQ(recordedText(), "");
}
