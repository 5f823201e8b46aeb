// The three tables of numbers.

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "quilclient/result.hpp"
#include "tools/quilctl/codes.hpp"

namespace {

std::vector<CodeEntry> entriesOf(CodeTable table) {
    std::vector<CodeEntry> entries = allCodes();
    entries.erase(std::remove_if(entries.begin(), entries.end(),
                                 [table](const CodeEntry& each) { return each.table != table; }),
                  entries.end());
    return entries;
}

const CodeEntry* find(const std::vector<CodeEntry>& entries, int code) {
    const auto found = std::find_if(entries.begin(), entries.end(),
                                    [code](const CodeEntry& each) { return each.code == code; });
    return found == entries.end() ? nullptr : &*found;
}

}  // namespace

TEST(Codes, OfLibcurlHaveItsOwnWords) {
    const std::vector<CodeEntry> entries = entriesOf(CodeTable::Curl);
    EXPECT_GE(entries.size(), 50U);
    for (const CodeEntry& entry : entries) {
        EXPECT_EQ(entry.meaning, curl_easy_strerror(static_cast<CURLcode>(entry.code)));
    }
    for (const int code : {CURLE_UNSUPPORTED_PROTOCOL, CURLE_URL_MALFORMAT,
                           CURLE_COULDNT_RESOLVE_PROXY, CURLE_COULDNT_RESOLVE_HOST,
                           CURLE_COULDNT_CONNECT, CURLE_OPERATION_TIMEDOUT, CURLE_GOT_NOTHING}) {
        const CodeEntry* entry = find(entries, code);
        ASSERT_NE(entry, nullptr) << code;
        EXPECT_NE(entry->nextStep, "see libcurl-errors(3)") << code;
    }
    EXPECT_EQ(find(entries, CURLE_OK), nullptr);
}

TEST(Codes, OfRepliesAreThoseOfTheLibrary) {
    const std::vector<CodeEntry> entries = entriesOf(CodeTable::Reply);
    ASSERT_EQ(entries.size(), quilclient::knownCodes().size());
    for (const CodeEntry& entry : entries) {
        EXPECT_EQ(entry.meaning, quilclient::explain(entry.code).meaning);
    }
}

TEST(Codes, MeanSomethingElseInEachTable) {
    const std::vector<CodeEntry> meanings = meaningsOf(CURLE_COULDNT_CONNECT);
    ASSERT_EQ(meanings.size(), 3U);
    EXPECT_EQ(meanings[0].table, CodeTable::Reply);
    EXPECT_EQ(meanings[1].table, CodeTable::Server);
    EXPECT_EQ(meanings[2].meaning, curl_easy_strerror(CURLE_COULDNT_CONNECT));
    const std::vector<CodeEntry> known = meaningsOf(10003);
    ASSERT_EQ(known.size(), 2U);
    EXPECT_NE(known[1].meaning, meaningsOf(10004)[1].meaning);
}

TEST(Codes, BelowZeroAreTheLibrarysAlone) {
    ASSERT_EQ(meaningsOf(-5).size(), 1U);
    EXPECT_EQ(meaningsOf(-5)[0].origin, "client library");
}
