// Names with options.

#include "ppsd/store/object_name.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

namespace {

// "name wait delta server", or the errno value.
std::string parsed(const std::string& text) {
    ObjectName name;
    const int error = parseObjectName(text, name);
    if (error != 0) {
        return std::to_string(error);
    }
    return std::string(name.name) + (name.options.wait ? " wait" : "") +
           (name.options.delta ? " delta" : "") + (name.options.server ? " server" : "");
}

const std::string kInvalid = std::to_string(EINVAL);

}  // namespace

TEST(ObjectName, NameWithoutOptionsIsItself) {
    EXPECT_EQ(parsed("ipc.x,y"), "ipc.x,y");
}

TEST(ObjectName, OptionsAreSeparatedByCommas) {
    EXPECT_EQ(parsed("a?wait"), "a wait");
    EXPECT_EQ(parsed("a?server,delta,wait"), "a wait delta server");
}

TEST(ObjectName, UnknownAndEmptyOptionsAreRefused) {
    for (const char* text :
         {"a?", "a?x", "a?wait,", "a?,wait", "a?wait,x", "a?Wait", "a?wait?delta"}) {
        EXPECT_EQ(parsed(text), kInvalid) << text;
    }
}

TEST(ObjectName, EmptyNameAndControlBytesAreRefused) {
    for (const char* text : {"", "?wait", "a\nb", "a\tb", "a\x7F"}) {
        EXPECT_EQ(parsed(text), kInvalid) << text;
    }
}

TEST(ObjectName, NameMayHave255BytesBesidesItsOptions) {
    const std::string name(255, 'n');
    EXPECT_EQ(parsed(name + "?wait"), name + " wait");
    EXPECT_EQ(parsed(name + "n"), std::to_string(ENAMETOOLONG));
}

TEST(ObjectName, OptionsSurviveTheWayThroughTheirNumber) {
    for (std::uint64_t bits = 0; bits < 1U << OpenOptions::kBits; ++bits) {
        EXPECT_EQ(OpenOptions::fromBits(bits).bits(), bits);
    }
}
