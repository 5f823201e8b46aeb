// Attribute text: parsing, merging, rendering and differences.

#include "ppsd/store/attributes.hpp"

#include <gtest/gtest.h>

#include <cerrno>

namespace {

std::string merged(const std::string& before, const std::string& text) {
    std::vector<AttributeChange> changes;
    EXPECT_EQ(parseChanges(text, ObjectLines::kRefused, changes), 0) << text;
    return mergeChanges(before, changes);
}

int parse(const std::string& text, ObjectLines objectLines) {
    std::vector<AttributeChange> changes;
    return parseChanges(text, objectLines, changes);
}

}  // namespace

TEST(Attributes, ReplacedAttributeKeepsItsPlace) {
    EXPECT_EQ(merged("a::1\nb::2\n", "a:n:3\n"), "a:n:3\nb::2\n");
}

TEST(Attributes, NewAttributeComesLast) {
    EXPECT_EQ(merged("a::1\n", "b::2\nc::3\n"), "a::1\nb::2\nc::3\n");
}

TEST(Attributes, LastOfTwoLinesForOneAttributeWins) {
    EXPECT_EQ(merged("", "a::1\na::2\n"), "a::2\n");
}

TEST(Attributes, AttributeRemovedAndAddedInOneWriteComesLast) {
    EXPECT_EQ(merged("a::1\nb::2\n", "-a\na::3\n"), "b::2\na::3\n");
}

TEST(Attributes, AttributeAddedAndRemovedInOneWriteIsAbsent) {
    EXPECT_EQ(merged("a::1\n", "b::2\n-b\n-c\n"), "a::1\n");
}

TEST(Attributes, ObjectLinesAreTakenAsTheCallerAsks) {
    EXPECT_EQ(parse("@x\na::1\n", ObjectLines::kLeadingIgnored), 0);
    EXPECT_EQ(parse("a::1\n@x\n", ObjectLines::kLeadingIgnored), EINVAL);
    EXPECT_EQ(parse("@x\na::1\n", ObjectLines::kRefused), EINVAL);
    EXPECT_EQ(parse("@x\na::1\n@y\n", ObjectLines::kDropped), 0);
}

TEST(Attributes, MalformedAndTornLinesAreRefused) {
    for (const char* bad :
         {"\n", "x\n", "x:y\n", "::v\n", "-\n", "-a:b:c\n", "+@x\n", "-@x\n", "a::1"}) {
        EXPECT_EQ(parse(bad, ObjectLines::kDropped), EINVAL) << bad;
    }
}

TEST(Attributes, EmptyTextChangesNothing) {
    EXPECT_EQ(merged("a::1\n", ""), "a::1\n");
}

TEST(Attributes, DeltaNamesChangedNewAndRemovedAttributesOnly) {
    EXPECT_EQ(renderDelta("x", "a::1\nb::2\nc::3\n", "b::9\nc::3\nd::4\n"), "@x\nb::9\nd::4\n-a\n");
}

TEST(Attributes, ChangedEncodingIsADifference) {
    EXPECT_EQ(renderDelta("x", "a::1\n", "a:n:1\n"), "@x\na:n:1\n");
}

TEST(Attributes, DeltaOfEqualListsIsNothing) {
    EXPECT_EQ(renderDelta("x", "a::1\n", "a::1\n"), "");
}

TEST(Attributes, DeltaOfLinesInAnotherOrderNamesThoseThatDiffer) {
    EXPECT_EQ(renderDelta("x", "a::1\nb::2\nc::3\nd::4\n", "c::3\na::9\nb::2\ne::5\n"),
              "@x\na::9\ne::5\n-d\n");
}

TEST(Attributes, LinesOfOneWriteAreAddedInTheirOrder) {
    EXPECT_EQ(merged("b::1\na::1\n", "d::1\nb::2\n-a\nc::1\nd::2\na::3\n-c\n"),
              "b::2\nd::2\na::3\n");
}

TEST(Attributes, AppendedLinesParseToTheSameChanges) {
    std::vector<AttributeChange> changes;
    const std::string text = "a::1\n-b\nc:json:{\"x\":\":\"}\n";
    ASSERT_EQ(parseChanges(text, ObjectLines::kRefused, changes), 0);
    std::string again;
    appendLines(again, changes);
    EXPECT_EQ(again, text);
}
