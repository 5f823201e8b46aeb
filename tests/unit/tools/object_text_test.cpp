// Attributes as typed, and objects as JSON.

#include "tools/ppsctl/object_text.hpp"

#include <gtest/gtest.h>

namespace {

std::string lines(const std::vector<std::string>& attributes) {
    std::string error;
    return attributeLines(attributes, &error).value_or("refused: " + error);
}

}  // namespace

TEST(TypedAttributes, NameAndValueAreEscapedAsNeeded) {
    EXPECT_EQ(lines({"colour=blue", "text=a\nb\\", "empty=", "sum=1+1=2"}),
              "colour::blue\ntext:c:a\\nb\\\\\nempty::\nsum::1+1=2\n");
}

TEST(TypedAttributes, EncodedOnesAndRemovalsStandAsTyped) {
    EXPECT_EQ(lines({"n:n:5", "list:json:[\"a=b\"]", "plain::a=b", "-gone"}),
              "n:n:5\nlist:json:[\"a=b\"]\nplain::a=b\n-gone\n");
}

TEST(TypedAttributes, OthersAreRefused) {
    for (const char* attribute : {"", "word", "@name", "=x", "a::b\nc::d", "a\nb=c", "-"}) {
        EXPECT_EQ(lines({"good=1", attribute}),
                  "refused: '" + std::string(attribute) +
                      "' is none of name=value, name:encoding:value and -name");
    }
}

TEST(ObjectJson, HasAttributesInOrder) {
    EXPECT_EQ(objectAsJson("@x\nb:n:1\na::t\n-c\n").dump(),
              R"({"object":"@x","attributes":[{"name":"b","encoding":"n","value":"1"},)"
              R"({"name":"a","encoding":"","value":"t"}],"removed":["c"]})");
    EXPECT_EQ(objectAsJson("").dump(), R"({"object":"","attributes":[]})");
    EXPECT_EQ(objectAsJson("-@x\n")["object"], "-@x");
}
