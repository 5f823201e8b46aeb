// What is found out about a user, from a name service that says what each test wants.

#include "platform/rules/name_service.hpp"

#include <gmock/gmock.h>

#include <cerrno>

#include "tests/support/fake_accounts.hpp"

using ::testing::UnorderedElementsAre;

namespace {

using Names = std::vector<std::string>;

constexpr std::uint32_t kAnn = 1000;

}  // namespace

TEST(NameService, UserHasNameGroupsAndTheGroupOfTheConnection) {
    addFakeUser("ann", kAnn, 100);
    addFakeGroup("users", 100);
    addFakeGroup("staff", 27, {"bob", "ann"});
    addFakeGroup("wheel", 10, {"bob"});
    addFakeGroup("games", 60);
    const std::optional<Person> ann =
        lookUpPerson(kAnn, 60, {"games", "staff", "unknown", "users", "wheel"});
    ASSERT_TRUE(ann);
    EXPECT_EQ(ann->user, kAnn);
    EXPECT_EQ(ann->name, "ann");
    EXPECT_THAT(ann->groups, UnorderedElementsAre(100, 27, 60));
    EXPECT_EQ(ann->groupNames, (Names{"games", "staff", "users"}));
}

TEST(NameService, UserWithoutANameIsCalledByTheNumberAndHasTheConnectionsGroupAlone) {
    addFakeGroup("games", 60);
    const std::optional<Person> nobody = lookUpPerson(4321, 60, {"games"});
    ASSERT_TRUE(nobody);
    EXPECT_EQ(nobody->name, "4321");
    EXPECT_THAT(nobody->groups, UnorderedElementsAre(60));
    EXPECT_EQ(nobody->groupNames, (Names{"games"}));
    EXPECT_TRUE(lookUpPerson(4321, std::nullopt, {})->groups.empty());
}

// Else the user called 4321 could not be told from the one whose number that is.
TEST(NameService, NameThatIsANumberCountsAsNone) {
    addFakeUser("4321", kAnn, 100);
    EXPECT_EQ(lookUpPerson(kAnn, std::nullopt, {})->name, "1000");
}

TEST(NameService, EmptyAndEndlessNamesCountAsNone) {
    addFakeUser("", 1, 100);
    addFakeUser(std::string(257, 'x'), 2, 100);
    EXPECT_EQ(lookUpPerson(1, std::nullopt, {})->name, "1");
    EXPECT_EQ(lookUpPerson(2, std::nullopt, {})->name, "2");
}

TEST(NameService, FailureIsToldFromAbsence) {
    addFakeUser("ann", kAnn, 100);
    for (const int error : {EIO, EMFILE, ENFILE, ENOMEM}) {
        failUserLookups(error);
        EXPECT_FALSE(lookUpPerson(kAnn, std::nullopt, {})) << error;
    }
    for (const int error : {ENOENT, ESRCH, EBADF, EPERM}) {
        failUserLookups(error);
        EXPECT_EQ(lookUpPerson(kAnn, std::nullopt, {}).value_or(Person{}).name, "1000") << error;
    }
    failUserLookups(0);
    failGroupLookups(EMFILE);
    EXPECT_FALSE(lookUpPerson(kAnn, std::nullopt, {"staff"}));
    EXPECT_FALSE(isGroup("staff"));
    EXPECT_TRUE(lookUpPerson(kAnn, std::nullopt, {})) << "no group had to be looked up";
}

TEST(NameService, EntriesOfAnySizeAreRead) {
    addFakeUser("ann", kAnn, 100);
    addFakeGroup("staff", 100);
    setFakeEntryBytes(1000000);
    const std::optional<Person> ann = lookUpPerson(kAnn, std::nullopt, {"staff"});
    ASSERT_TRUE(ann);
    EXPECT_EQ(ann->name, "ann");
    EXPECT_EQ(ann->groupNames, (Names{"staff"}));
    setFakeEntryBytes(std::size_t{1} << 40U);
    EXPECT_FALSE(lookUpPerson(kAnn, std::nullopt, {})) << "there is an end to it";
}

TEST(NameService, UserOfManyGroupsHasThemAll) {
    addFakeUser("ann", kAnn, 100);
    for (std::uint32_t group = 5000; group < 5500; ++group) {
        addFakeGroup("g" + std::to_string(group), group, {"ann"});
    }
    const std::optional<Person> ann = lookUpPerson(kAnn, std::nullopt, {"g5000", "g5499"});
    ASSERT_TRUE(ann);
    EXPECT_EQ(ann->groups.size(), 501U);
    EXPECT_EQ(ann->groupNames, (Names{"g5000", "g5499"}));
}

TEST(NameService, UsersAndGroupsAreFoundByTheirName) {
    addFakeUser("ann", kAnn, 100);
    addFakeGroup("staff", 27);
    EXPECT_EQ(userNumber("ann"), kAnn);
    EXPECT_EQ(userNumber("bob"), std::nullopt);
    EXPECT_EQ(isGroup("staff"), true);
    EXPECT_EQ(isGroup("ann"), false);
}
