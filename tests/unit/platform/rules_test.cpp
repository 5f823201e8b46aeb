// The lines of a rules file, and whom they let act for what.

#include "platform/rules/rules.hpp"

#include <gtest/gtest.h>

namespace {

const Person kAnn{1000, "ann", {1000, 27}, {"staff"}};

// The line that lets the person act for the application; 0 for none.
int lineFor(const std::string& text, const Person& person, const std::string& appId) {
    const Rules rules(text);
    EXPECT_TRUE(rules.errors().empty()) << rules.errors().front().reason;
    const Rule* rule = rules.find(rules.grantsOf(person), appId);
    return rule == nullptr ? 0 : rule->line;
}

bool mayAct(const std::string& text, const Person& person, const std::string& appId) {
    return lineFor(text, person, appId) != 0;
}

// "LINE REASON\n" for every bad line.
std::string errorsOf(const std::string& text) {
    std::string all;
    const Rules rules(text);
    for (const RuleError& error : rules.errors()) {
        all += std::to_string(error.line) + " " + error.reason + "\n";
    }
    return all;
}

}  // namespace

TEST(Rules, NothingIsGrantedByNoLine) {
    EXPECT_FALSE(mayAct("", kAnn, "com.example.news"));
    EXPECT_FALSE(mayAct("\n# allow user ann *\n", kAnn, "com.example.news"));
    EXPECT_EQ(Rules().find(Rules().grantsOf(kAnn), "x"), nullptr);
}

TEST(Rules, UserIsFittedByNameAndByNumber) {
    EXPECT_TRUE(mayAct("allow user ann com.example.*", kAnn, "com.example.news"));
    EXPECT_TRUE(mayAct("allow user 1000 com.example.*", kAnn, "com.example.news"));
    EXPECT_TRUE(mayAct("allow user 0001000 com.example.*", kAnn, "com.example.news"));
    EXPECT_FALSE(mayAct("allow user bob com.example.*", kAnn, "com.example.news"));
    EXPECT_FALSE(mayAct("allow user an com.example.*", kAnn, "com.example.news"));
    EXPECT_FALSE(mayAct("allow user Ann com.example.*", kAnn, "com.example.news"));
    EXPECT_FALSE(mayAct("allow user 100 com.example.*", kAnn, "com.example.news"));
    EXPECT_FALSE(mayAct("allow user staff com.example.*", kAnn, "com.example.news"));
}

TEST(Rules, GroupIsFittedByNameAndByNumber) {
    EXPECT_TRUE(mayAct("allow group staff *", kAnn, "x"));
    EXPECT_TRUE(mayAct("allow group 27 *", kAnn, "x"));
    EXPECT_FALSE(mayAct("allow group wheel *", kAnn, "x"));
    EXPECT_FALSE(mayAct("allow group 28 *", kAnn, "x"));
    EXPECT_FALSE(mayAct("allow group ann *", kAnn, "x"));
}

TEST(Rules, StarIsAnybody) {
    const Person stranger{77, "", {}, {}};
    EXPECT_TRUE(mayAct("allow user * com.open", stranger, "com.open"));
    EXPECT_TRUE(mayAct("allow group * com.open", stranger, "com.open"));
    EXPECT_FALSE(mayAct("allow user * com.open", stranger, "com.opened"));
}

TEST(Rules, OneLineThatFitsIsEnoughAndTheFirstIsNamed) {
    const std::string text =
        "# who may\n\nallow user bob *\nallow user ann com.a\nallow group staff com.*\n";
    EXPECT_EQ(lineFor(text, kAnn, "com.a"), 4);
    EXPECT_EQ(lineFor(text, kAnn, "com.b"), 5);
    EXPECT_EQ(lineFor(text, kAnn, "org.b"), 0);
}

TEST(Rules, CommentsAndBlankLinesCountForNothing) {
    const std::string text =
        "#\n   # x\n\t\n \nallow user ann com.a # allow user bob *\n\tallow\t user  ann "
        "\tcom.b\t\n";
    EXPECT_EQ(lineFor(text, kAnn, "com.a"), 5);
    EXPECT_EQ(lineFor(text, kAnn, "com.b"), 6);
    EXPECT_FALSE(mayAct(text, {1, "bob", {}, {}}, "com.a"));
}

TEST(Rules, HashWithinAWordIsAnOrdinaryCharacter) {
    EXPECT_TRUE(mayAct("allow user ann com.a#b", kAnn, "com.a#b"));
    EXPECT_FALSE(mayAct("allow user ann com.a#b", kAnn, "com.a"));
}

TEST(Rules, LastLineNeedsNoLineFeed) {
    EXPECT_TRUE(mayAct("allow user ann x", kAnn, "x"));
    EXPECT_TRUE(mayAct("allow user ann x\n", kAnn, "x"));
}

TEST(Rules, PatternsAreThoseOfTheShellAndCoverTheWholeId) {
    const auto fits = [](const std::string& pattern, const std::string& appId) {
        return mayAct("allow user ann " + pattern, kAnn, appId);
    };
    EXPECT_TRUE(fits("*", ""));
    EXPECT_TRUE(fits("*", ".hidden/with/slashes"));
    EXPECT_TRUE(fits("com.?.x", "com.a.x"));
    EXPECT_FALSE(fits("com.?.x", "com.ab.x"));
    EXPECT_TRUE(fits("com.[a-c]", "com.b"));
    EXPECT_FALSE(fits("com.[!a-c]", "com.b"));
    EXPECT_TRUE(fits("com.\\*", "com.*"));
    EXPECT_FALSE(fits("com.\\*", "com.x"));
    EXPECT_TRUE(fits("com.[x", "com.[x"));
    EXPECT_FALSE(fits("com", "com.x"));
    EXPECT_FALSE(fits("com.x", "xcom.x"));
    EXPECT_FALSE(fits("COM", "com"));
    EXPECT_TRUE(fits("two?words", "two words"));
    EXPECT_TRUE(fits("caf\xc3\xa9*", "caf\xc3\xa9.x"));
}

TEST(Rules, BracketWithoutItsEndIsNoticed) {
    const auto isOpen = [](const std::string& pattern) {
        const Rules rules("allow user ann " + pattern);
        return rules.rules().size() == 1 && rules.rules()[0].hasOpenBracket();
    };
    for (const char* pattern : {"[", "com.[x", "[]", "[!]", "[^]", "[a\\]", "[]a", "a[b]c[d",
                                "[[:alpha:]", "[[=a=]", "[[.-.]", "*[?", "\\\\[", "[%u"}) {
        EXPECT_TRUE(isOpen(pattern)) << pattern;
    }
    for (const char* pattern :
         {"com.x", "[a-c]", "[]]", "[!]]", "[[]", "[a\\]]", "\\[x", "x]", "[[:alpha:]]", "[[=a=]]",
          "[[.-.]]", "[[:]", "[[==]", "[a][b]", "[%u]*"}) {
        EXPECT_FALSE(isOpen(pattern)) << pattern;
    }
}

TEST(Rules, IdWithAZeroByteFitsNoPattern) {
    EXPECT_FALSE(mayAct("allow user ann com.bank", kAnn, std::string("com.bank\0x", 10)));
    EXPECT_FALSE(mayAct("allow user ann *", kAnn, std::string("\0", 1)));
}

TEST(Rules, PercentUIsTheNameOfWhoAsks) {
    const std::string text = "allow user * %u.*\nallow group * org.%u.%u\n";
    EXPECT_TRUE(mayAct(text, kAnn, "ann.mail"));
    EXPECT_TRUE(mayAct(text, kAnn, "org.ann.ann"));
    EXPECT_FALSE(mayAct(text, kAnn, "bob.mail"));
    EXPECT_FALSE(mayAct(text, kAnn, "%u.mail"));
    EXPECT_FALSE(mayAct(text, kAnn, "annmail"));
    EXPECT_FALSE(mayAct(text, kAnn, "org.ann.bob"));
}

TEST(Rules, PercentUFitsNobodyWhoseNameIsNotKnown) {
    const Person unknown{1000, "", {}, {}};
    EXPECT_FALSE(mayAct("allow user * %u*", unknown, ""));
    EXPECT_FALSE(mayAct("allow user * %u*", unknown, "x"));
    EXPECT_TRUE(mayAct("allow user 1000 x", unknown, "x"));
}

TEST(Rules, NoLetterOfANameIsTakenForAPattern) {
    for (const std::string& name :
         std::vector<std::string>{"*", "?", "a*", "[a-z]", "[!a]", "\\", "\\*", "a\\", "%u", "a.b",
                                  "a]", "$x", "caf\xc3\xa9"}) {
        const Person person{1000, name, {}, {}};
        EXPECT_TRUE(mayAct("allow user * %u.x", person, name + ".x")) << name;
        for (const std::string& other :
             std::vector<std::string>{"", "b", "abc", "a", "\\a", "**", name + name, name + "a"}) {
            EXPECT_FALSE(mayAct("allow user * %u.x", person, other + ".x")) << name << " " << other;
        }
    }
}

TEST(Rules, NameWithinBracketsStandsForItsLettersAlone) {
    const auto fits = [](const std::string& name, const std::string& appId) {
        return mayAct("allow user * [%u]", {1000, name, {}, {}}, appId);
    };
    EXPECT_TRUE(fits("!a", "a"));
    EXPECT_TRUE(fits("!a", "!"));
    EXPECT_FALSE(fits("!a", "b"));
    EXPECT_FALSE(fits("^a", "b"));
    EXPECT_FALSE(fits("a-z", "m"));
    EXPECT_FALSE(fits("[:alpha:]", "m"));
    EXPECT_FALSE(fits("]*", "mm"));
}

TEST(Rules, EscapedPercentUIsATextLikeAnyOther) {
    EXPECT_TRUE(mayAct("allow user * \\%u.x", kAnn, "%u.x"));
    EXPECT_FALSE(mayAct("allow user * \\%u.x", kAnn, "ann.x"));
    EXPECT_TRUE(mayAct("allow user * \\\\%u", kAnn, "\\ann"));
    EXPECT_TRUE(mayAct("allow user * %U.%", kAnn, "%U.%"));
}

TEST(Rules, GroupsThatAreNamedAreListedOnceEach) {
    const Rules rules(
        "allow group b *\nallow group a x\nallow group b y\nallow group 7 z\nallow group * z\n"
        "allow user c z\n");
    EXPECT_EQ(rules.namedGroups(), (std::vector<std::string>{"a", "b"}));
}

TEST(Rules, LineIsShownAgainWithoutItsComment) {
    const Rules rules("  allow\tgroup 27   com.*   # all\n");
    ASSERT_EQ(rules.rules().size(), 1U);
    EXPECT_EQ(rules.rules()[0].text(), "allow group 27 com.*");
}

TEST(Rules, EveryBadLineIsNamedWithItsReason) {
    EXPECT_EQ(errorsOf("allow user ann *\n"
                       "deny user ann *\n"
                       "allow\n"
                       "allow all *\n"
                       "allow user # ann *\n"
                       "allow group\n"
                       "allow user ann\n"
                       "allow user ann a b\n"
                       "allow user an* a\n"
                       "allow user 4294967295 a\n"
                       "allow group 99999999999999999999 a\n"
                       "allow user ann a\\\n"
                       "Allow user ann a\n"),
              "2 begins with 'deny' instead of 'allow'\n"
              "3 has nothing behind 'allow' instead of 'user' or 'group'\n"
              "4 has 'all' behind 'allow' instead of 'user' or 'group'\n"
              "5 names no user\n"
              "6 names no group\n"
              "7 names no pattern of application ids\n"
              "8 has 'b' behind its pattern; in a pattern '?' stands for a blank too\n"
              "9 names a user 'an*': a name is no pattern, only '*' alone stands for anybody\n"
              "10 names a user '4294967295', which is too large a number\n"
              "11 names a group '99999999999999999999', which is too large a number\n"
              "12 has a pattern that ends in a backslash, with nothing behind it\n"
              "13 begins with 'Allow' instead of 'allow'\n");
}

TEST(Rules, ControlCharactersAndCarriageReturnsAreBad) {
    EXPECT_EQ(errorsOf("allow user ann a\r\n"), "1 ends in a carriage return\n");
    EXPECT_EQ(errorsOf("# x\r\n"), "1 ends in a carriage return\n");
    EXPECT_EQ(errorsOf(std::string("allow user ann a\0b", 18)), "1 holds a control character\n");
    EXPECT_EQ(errorsOf("allow user ann \x1b[2J"), "1 holds a control character\n");
}

TEST(Rules, LineOf1024CharactersIsTakenAndALongerOneIsBad) {
    const std::string start = "allow user ann ";
    const std::string longest = start + std::string(1024 - start.size(), 'x');
    EXPECT_EQ(errorsOf(longest), "");
    EXPECT_EQ(errorsOf(longest + "x"), "1 is longer than 1024 characters\n");
    EXPECT_EQ(errorsOf("#" + longest), "1 is longer than 1024 characters\n");
}

TEST(Rules, LongWordsAreCutInAReason) {
    EXPECT_EQ(errorsOf(std::string(60, 'x')),
              "1 begins with '" + std::string(40, 'x') + "...' instead of 'allow'\n");
}

TEST(Rules, BackslashesInPairsMayEndAPattern) {
    EXPECT_EQ(errorsOf("allow user ann a\\\\\n"), "");
    EXPECT_EQ(errorsOf("allow user ann \\\\\\\n"),
              "1 has a pattern that ends in a backslash, with nothing behind it\n");
}

TEST(Rules, AccountNumbersAreDecimalAndBelowTheHighest) {
    EXPECT_EQ(accountNumber("0"), 0U);
    EXPECT_EQ(accountNumber("4294967294"), 4294967294U);
    EXPECT_EQ(accountNumber("4294967295"), std::nullopt);
    EXPECT_EQ(accountNumber("18446744073709551617"), std::nullopt);
    for (const char* text : {"", "-1", "+1", " 1", "1 ", "0x10", "1e3"}) {
        EXPECT_EQ(accountNumber(text), std::nullopt) << text;
    }
}
