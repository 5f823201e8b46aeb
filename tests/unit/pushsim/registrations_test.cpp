// Ports of applications, and the state file.

#include "pushsim/registrations.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>
#include <string>

#include "tests/unit/pushsim/support.hpp"

namespace {

// A range of its own, taken from where the kernel found a free port.
PortRange freeRange() {
    std::uint16_t port = 0;
    const Socket socket = listenAnywhere(&port);
    return {port, port};
}

}  // namespace

TEST(PortRange, ReadsRangesAndSinglePorts) {
    PortRange range;
    EXPECT_TRUE(parsePortRange("4400-4499", &range));
    EXPECT_EQ(range.from, 4400);
    EXPECT_EQ(range.to, 4499);
    EXPECT_TRUE(parsePortRange("65535", &range));
    EXPECT_EQ(range.from, 65535);
}

TEST(PortRange, RefusesEverythingElse) {
    PortRange range;
    for (const char* text :
         {"", "-", "0-5", "5-0", "5-4", "1-65536", "a-b", "1-2-3", " 1", "-1", "1-"}) {
        EXPECT_FALSE(parsePortRange(text, &range)) << text;
    }
}

TEST(Registrations, SameApplicationKeepsItsPortUntilItIsRemoved) {
    Registrations registrations(freeRange(), "");
    const auto port = registrations.add("a");
    ASSERT_TRUE(port);
    EXPECT_EQ(registrations.add("a"), port);
    EXPECT_EQ(registrations.add("b"), std::nullopt) << "the range holds one port";
    EXPECT_TRUE(registrations.remove("a"));
    EXPECT_EQ(registrations.add("b"), port);
}

TEST(Registrations, PortThatIsTakenOnThisMachineIsSkipped) {
    std::uint16_t port = 0;
    const Socket taken = listenAnywhere(&port);
    Registrations registrations({port, port}, "");
    EXPECT_EQ(registrations.add("a"), std::nullopt);
}

TEST(Registrations, RemovingAnUnknownApplicationIsFalse) {
    Registrations registrations({1, 1}, "");
    EXPECT_FALSE(registrations.remove("a"));
}

TEST(Registrations, EveryChangeIsInTheStateFile) {
    const TempFolder folder;
    const std::string path = folder.path("state");
    Registrations registrations({1, 1}, path);
    EXPECT_EQ(readStateFile(path), Ports());
    registrations.put("a", 7);
    registrations.put("b", 8);
    EXPECT_EQ(readStateFile(path), (Ports{{"a", 7}, {"b", 8}}));
    registrations.remove("a");
    EXPECT_EQ(readStateFile(path), (Ports{{"b", 8}}));
}

TEST(Registrations, EarlierRunIsTakenUp) {
    const TempFolder folder;
    writeFile(folder.path("state"), R"({"applications":{"a":7}})");
    Registrations registrations({1, 1}, folder.path("state"));
    EXPECT_EQ(registrations.add("a"), 7);
}

TEST(Registrations, IdThatIsNoTextDoesNotKeepOthersOut) {
    const TempFolder folder;
    Registrations registrations({1, 1}, folder.path("state"));
    registrations.put("\xff", 7);
    registrations.put("b", 8);
    EXPECT_EQ(readStateFile(folder.path("state")).at("b"), 8);
}

TEST(Registrations, StateThatCannotBeWrittenIsAnErrorAtTheStart) {
    const TempFolder folder;
    EXPECT_THROW(Registrations({1, 1}, folder.path("gone") + "/state"), std::runtime_error);
}

TEST(Registrations, ChangeThatCannotBeWrittenIsNotMade) {
    const TempFolder folder;
    const std::string inner = folder.path("inner");
    std::filesystem::create_directory(inner);
    Registrations registrations({1, 1}, inner + "/state");
    std::filesystem::remove_all(inner);
    EXPECT_THROW(registrations.put("a", 7), std::runtime_error);
    std::filesystem::create_directory(inner);
    registrations.put("b", 8);
    EXPECT_EQ(readStateFile(inner + "/state"), (Ports{{"b", 8}}));
}

TEST(StateFile, AnythingElseIsRefused) {
    const TempFolder folder;
    for (const char* text : {"", "[]", "{}", R"({"applications":{"a":"b"}})",
                             R"({"applications":{"a":65536}})", R"({"applications":{"a":0}})"}) {
        writeFile(folder.path("state"), text);
        EXPECT_THROW(readStateFile(folder.path("state")), std::runtime_error) << text;
    }
    EXPECT_THROW(readStateFile(folder.path("none")), std::runtime_error);
}
