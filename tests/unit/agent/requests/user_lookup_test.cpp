// Looking users up beside the main loop.

#include "agent/requests/user_lookup.hpp"

#include <chrono>
#include <vector>

#include "tests/support/agent/rules_fixture.hpp"

namespace {

using Lookup = RulesTest;
using State = UserLookup::State;

// As long as the process, as the rules of an agent.
const Rules& rules() {
    static const auto* const all = new Rules("allow user ann *\nallow group staff *\n");
    return *all;
}

}  // namespace

TEST_F(Lookup, GivesWhatTheRulesGrant) {
    const auto lookup = UserLookup::begin(rules(), kBob, kUsers);
    ASSERT_NE(lookup, nullptr);
    EXPECT_EQ(lookup->await(), State::Done);
    EXPECT_EQ(lookup->grants().name, "bob");
    EXPECT_EQ(lookup->grants().fits, (std::vector<bool>{false, true}));
}

TEST_F(Lookup, SameUserAndGroupShareOneThatIsUnderWay) {
    const SlowNameService slow;
    const auto lookup = UserLookup::begin(rules(), kAnn, kUsers);
    EXPECT_EQ(UserLookup::begin(rules(), kAnn, kUsers), lookup);
    EXPECT_NE(UserLookup::begin(rules(), kAnn, 27), lookup);
    EXPECT_NE(UserLookup::begin(rules(), kBob, kUsers), lookup);
}

TEST_F(Lookup, OneThatIsDoneIsNotShared) {
    const auto lookup = UserLookup::begin(rules(), kAnn, kUsers);
    EXPECT_EQ(lookup->await(), State::Done);
    EXPECT_NE(UserLookup::begin(rules(), kAnn, kUsers), lookup);
}

TEST_F(Lookup, OnlyTheFirstToAskWaits) {
    const SlowNameService slow;
    const auto lookup = UserLookup::begin(rules(), kAnn, kUsers);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(lookup->await(), State::UnderWay);
    const auto first = std::chrono::steady_clock::now();
    EXPECT_GE(first - start, UserLookup::kPatience);
    EXPECT_EQ(lookup->await(), State::UnderWay);
    EXPECT_LT(std::chrono::steady_clock::now() - first, UserLookup::kPatience);
}

TEST_F(Lookup, ThereIsABoundOnThoseUnderWayUntilTheyEnd) {
    std::vector<std::shared_ptr<UserLookup>> lookups;
    {
        const SlowNameService slow;
        for (std::uint32_t user = 5000; user < 5000 + UserLookup::kMostUnderWay; ++user) {
            lookups.push_back(UserLookup::begin(rules(), user, kUsers));
            EXPECT_NE(lookups.back(), nullptr);
        }
        EXPECT_EQ(UserLookup::begin(rules(), kAnn, kUsers), nullptr);
        EXPECT_EQ(UserLookup::begin(rules(), 5000, kUsers), lookups.front());
    }
    EXPECT_EQ(lookups.back()->await(), State::Done);
    EXPECT_TRUE(waitUntil([&] { return UserLookup::begin(rules(), kAnn, kUsers) != nullptr; }));
}

TEST_F(Lookup, ThreadOutlivesWhoeverAsked) {
    {
        const SlowNameService slow;
        UserLookup::begin(rules(), kAnn, kUsers);
    }
    // The next one takes its place only when it has ended.
    EXPECT_TRUE(waitUntil([&] {
        const auto next = UserLookup::begin(rules(), kAnn, kUsers);
        return next->await() == State::Done;
    }));
    EXPECT_GE(countUserLookups(), 1);
}

TEST_F(Lookup, WithoutMemoryItFailed) {
    setFakeEntryBytes(100000);
    const FailingAllocations failing(100000, 1000000);
    const auto lookup = UserLookup::begin(rules(), kAnn, kUsers);
    ASSERT_NE(lookup, nullptr);
    EXPECT_EQ(lookup->await(), State::Failed);
}
