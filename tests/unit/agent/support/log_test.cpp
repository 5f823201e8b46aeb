// The logging call: filter, layout, cut, echo and errno.

#include "agent/support/log.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/agent/process_fixture.hpp"
#include "tests/support/recorded_log.hpp"

namespace {

std::string levelsLogged() {
    std::string all;
    for (int level = 0; level <= 9; ++level) {
        logMessage(level, "x.cpp", 1, "level %d", level);
        all += wasLogged(level, "level " + std::to_string(level)) ? std::to_string(level) : "";
    }
    return all;
}

std::string lastLine() {
    const std::vector<RecordedLine> lines = recordedLines();
    return lines.empty() ? "(none)" : lines.back().text;
}

// A line of that format, and the text that the C library makes of it.
template <typename... Arguments>
void expectFormattedAsBySnprintf(const char* format, Arguments... arguments) {
    char expected[8192];
    ASSERT_GE(snprintf(expected, sizeof expected, format, arguments...), 0);
    logMessage(5, nullptr, 0, format, arguments...);
    EXPECT_EQ(lastLine(), "QUIL: " + std::string(expected, strnlen(expected, 4095)));
}

// Echoes one line, given errno `before`; gives errno behind it.
int errnoAfterLine(int level, int before) {
    errno = before;
    logMessage(level, "x.cpp", 1, "text");
    return errno;
}

}  // namespace

TEST(Log, VerbosityIs5AtFirst) {
    EXPECT_EQ(levelsLogged(), "012345");
}

TEST(Log, OneRaiseShowsLevel6) {
    raiseVerbosity(1);
    EXPECT_EQ(levelsLogged(), "0123456");
}

TEST(Log, TwoRaisesShowLevel7) {
    raiseVerbosity(2);
    EXPECT_EQ(levelsLogged(), "01234567");
}

TEST(Log, FourRaisesAreCappedAt7) {
    raiseVerbosity(4);
    EXPECT_EQ(levelsLogged(), "01234567");
}

TEST(Log, HugeRaiseIsCappedAt7) {
    raiseVerbosity(2147483647);
    raiseVerbosity(2147483647);
    EXPECT_EQ(levelsLogged(), "01234567");
}

TEST(Log, RaiseByNothingChangesNothing) {
    raiseVerbosity(0);
    EXPECT_EQ(levelsLogged(), "012345");
}

TEST(Log, LevelsAreTheSystemLoggersOwn) {
    raiseVerbosity(2);
    QUIL_LOG(LOG_LEVEL_SHORTAGE, "a");
    QUIL_LOG(LOG_LEVEL_ERROR, "b");
    QUIL_LOG(LOG_LEVEL_WARNING, "c");
    QUIL_LOG(LOG_LEVEL_INFO, "d");
    QUIL_LOG(LOG_LEVEL_DEBUG, "e");
    EXPECT_EQ(recordedText(), "1 a\n2 b\n3 c\n5 d\n6 e\n");
}

TEST(Log, EveryLineHasCode11000) {
    logMessage(5, "x.cpp", 1, "a");
    logMessage(5, nullptr, 1, "a");
    for (const RecordedLine& line : recordedLines()) {
        EXPECT_EQ(line.code, 11000U) << line.text;
    }
}

TEST(Log, LineHasTheFilesBaseNameAndNumber) {
    logMessage(5, "some/folder/config_manager.cpp", 95, "text %d of %s", 7, "it");
    EXPECT_EQ(lastLine(), "QUIL:config_manager.cpp(95): text 7 of it");
}

TEST(Log, PathWithoutAFolderStaysAsItIs) {
    logMessage(5, "main.cpp", 1, "text");
    EXPECT_EQ(lastLine(), "QUIL:main.cpp(1): text");
}

TEST(Log, WithoutAPathTheLineHasNeitherFileNorNumber) {
    logMessage(5, nullptr, 95, "text");
    EXPECT_EQ(lastLine(), "QUIL: text");
}

TEST(Log, MacroGivesTheCallingLine) {
    QUIL_LOG(LOG_LEVEL_INFO, "text");
    EXPECT_EQ(lastLine(), "QUIL:log_test.cpp(" + std::to_string(__LINE__ - 1) + "): text");
}

TEST(Log, TextOf4095CharactersIsWhole) {
    logMessage(5, nullptr, 0, "%s", std::string(4095, 'x').c_str());
    EXPECT_EQ(lastLine(), "QUIL: " + std::string(4095, 'x'));
}

TEST(Log, LongerTextIsCutTo4095Characters) {
    logMessage(5, nullptr, 0, "%s", (std::string(4095, 'x') + "y").c_str());
    EXPECT_EQ(lastLine(), "QUIL: " + std::string(4095, 'x'));
    logMessage(5, "a.cpp", 1, "%s", std::string(100000, 'x').c_str());
    EXPECT_EQ(lastLine(), "QUIL:a.cpp(1): " + std::string(4095, 'x'));
}

TEST(Log, TextIsAnArgumentAndNeverAFormat) {
    logMessage(5, "a%sb.cpp", 1, "%s", "%s%n%d");
    EXPECT_EQ(lastLine(), "QUIL:a%sb.cpp(1): %s%n%d");
}

TEST(Log, TextIsWhatTheFormatSays) {
    const std::string half(2048, 'h');
    for (const int number : {0, 7, -1, 2147483647, -2147483647 - 1}) {
        expectFormattedAsBySnprintf("%d", number);
        expectFormattedAsBySnprintf("a[%d] b[%d]\n", number, -7);
        expectFormattedAsBySnprintf("%x and %5d.", static_cast<unsigned>(number), number);
        expectFormattedAsBySnprintf("%s%s%d", half.c_str(), half.c_str(), number);
        expectFormattedAsBySnprintf("%d%s%.*s", number, half.c_str(), 2047, half.c_str());
    }
    expectFormattedAsBySnprintf("%s", "");
    expectFormattedAsBySnprintf("nothing");
    expectFormattedAsBySnprintf("%d%% of [%s]", 50, "it");
    expectFormattedAsBySnprintf("%lu [%.*s] %s", 18446744073709551615UL, 2, "cut", "whole");
    const char* volatile none = nullptr;
    logMessage(5, nullptr, 0, "[%s]", none);
    EXPECT_EQ(lastLine(), "QUIL: [(null)]");
}

TEST(Log, EmptyTextIsALine) {
    logMessage(5, nullptr, 0, "%s", "");
    EXPECT_EQ(lastLine(), "QUIL: ");
}

TEST(Log, LineIsEchoedOnStandardOutput) {
    CapturedOutput output;
    logMessage(5, "a/b.cpp", 3, "text");
    logMessage(5, nullptr, 3, "text");
    EXPECT_EQ(output.take(), "QUIL:b.cpp(3): text\nQUIL: text\n");
}

TEST(Log, LineFeedAtTheEndGivesABlankLineOnStandardOutput) {
    CapturedOutput output;
    logMessage(5, "b.cpp", 3, "text\n");
    EXPECT_EQ(output.take(), "QUIL:b.cpp(3): text\n\n");
    EXPECT_EQ(lastLine(), "QUIL:b.cpp(3): text\n");
}

TEST(Log, CutTextIsEchoedCut) {
    CapturedOutput output;
    logMessage(5, nullptr, 0, "%s", std::string(5000, 'x').c_str());
    EXPECT_EQ(output.take(), "QUIL: " + std::string(4095, 'x') + "\n");
}

TEST(Log, SuppressedLineIsNotEchoed) {
    CapturedOutput output;
    logMessage(6, "b.cpp", 3, "text");
    EXPECT_EQ(output.take(), "");
}

TEST(Log, ArgumentsOfASuppressedLineAreNotEvaluated) {
    int evaluated = 0;
    QUIL_LOG(LOG_LEVEL_DEBUG, "%d", ++evaluated);
    EXPECT_EQ(evaluated, 0);
    QUIL_LOG(LOG_LEVEL_INFO, "%d", ++evaluated);
    EXPECT_EQ(evaluated, 1);
}

TEST(Log, SuppressedLineIsNotFormatted) {
    int written = -1;
    logMessage(6, "b.cpp", 3, "text%n", &written);
    EXPECT_EQ(written, -1);
}

TEST(Log, FlushWritesOutWhatTheEchoHoldsBack) {
    CapturedOutput output;
    logMessage(5, nullptr, 0, "text");
    flushLogEcho();
    EXPECT_EQ(output.written(), "QUIL: text\n");
}

TEST(Log, ErrnoIsTheSameBehindALine) {
    EXPECT_EQ(errnoAfterLine(5, 17), 17);
    EXPECT_EQ(errnoAfterLine(5, 0), 0);
}

TEST(Log, ErrnoIsTheSameBehindASuppressedLine) {
    EXPECT_EQ(errnoAfterLine(6, 17), 17);
}

TEST(Log, ErrnoIsTheSameWhenTheEchoFails) {
    int after = 0;
    {
        CapturedOutput output;
        close(STDOUT_FILENO);
        std::setvbuf(stdout, nullptr, _IONBF, 0);
        after = errnoAfterLine(5, 17);
    }
    EXPECT_EQ(after, 17);
}

TEST(Log, ErrnoIsTheSameBehindAFlush) {
    int after = 0;
    {
        CapturedOutput output;
        std::printf("something to write");
        close(STDOUT_FILENO);
        errno = 17;
        flushLogEcho();
        after = errno;
    }
    EXPECT_EQ(after, 17);
}

TEST(Log, ErrnoMayBeAnArgument) {
    errno = 2;
    logMessage(5, nullptr, 0, "%d", errno);
    EXPECT_EQ(lastLine(), "QUIL: 2");
}

TEST(Log, LinesOfManyThreadsAreAllThereAndWhole) {
    CapturedOutput output;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([thread] {
            for (int i = 0; i < 100; ++i) {
                logMessage(5, nullptr, 0, "thread %d line %d", thread, i);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const std::string echo = output.take();
    for (int thread = 0; thread < 4; ++thread) {
        for (int i = 0; i < 100; ++i) {
            const std::string text =
                "thread " + std::to_string(thread) + " line " + std::to_string(i);
            EXPECT_EQ(countRecorded(5, text), 1) << text;
            EXPECT_NE(echo.find("QUIL: " + text + "\n"), std::string::npos) << text;
        }
    }
}

// From here on lines gather in memory, as in the running agent.

TEST(BufferedLog, LinesAreHeldBackUntilAThreadFlushes) {
    CapturedOutput output;
    bufferLogEcho();
    QUIL_LOG(LOG_LEVEL_INFO, "a %d", 1);
    QUIL_LOG(LOG_LEVEL_NOTICE, "b");
    EXPECT_EQ(output.written(), "");
    EXPECT_EQ(recordedText(), "");
    flushLogEcho();
    const std::string line = "QUIL:log_test.cpp(";
    EXPECT_EQ(output.written(), line + std::to_string(__LINE__ - 6) + "): a 1\n" + line +
                                    std::to_string(__LINE__ - 6) + "): b\n");
    EXPECT_EQ(recordedText(), "5 a 1\n4 b\n");
    flushLogEcho();
    EXPECT_EQ(recordedText(), "5 a 1\n4 b\n") << "told once";
}

TEST(BufferedLog, FailureGoesToTheSystemLogAtOnceWithWhatCameBefore) {
    CapturedOutput output;
    bufferLogEcho();
    QUIL_LOG(LOG_LEVEL_INFO, "before");
    QUIL_LOG(LOG_LEVEL_WARNING, "failure");
    EXPECT_EQ(recordedText(), "5 before\n3 failure\n");
    QUIL_LOG(LOG_LEVEL_INFO, "behind");
    flushLogEcho();
    EXPECT_EQ(recordedText(), "5 before\n3 failure\n5 behind\n");
}

TEST(BufferedLog, MoreLinesThanFitAreWrittenOutOnTheWay) {
    CapturedOutput output;
    bufferLogEcho();
    std::string expected;
    for (int i = 0; i < 3000; ++i) {
        logMessage(5, nullptr, 0, "line %d", i);
        expected += "5 line " + std::to_string(i) + "\n";
    }
    flushLogEcho();
    EXPECT_EQ(recordedText(), expected);
}

TEST(BufferedLog, LinesOfManyThreadsAreAllThere) {
    CapturedOutput output;
    bufferLogEcho();
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 40; ++thread) {
        threads.emplace_back([thread] {
            for (int i = 0; i < 50; ++i) {
                logMessage(5, nullptr, 0, "thread %d line %d", thread, i);
            }
            if (thread % 2 == 0) {
                flushLogEcho();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    flushLogEcho();
    for (int thread = 0; thread < 40; ++thread) {
        for (int i = 0; i < 50; ++i) {
            const std::string text =
                "thread " + std::to_string(thread) + " line " + std::to_string(i);
            EXPECT_EQ(countRecorded(5, text), 1) << text;
        }
    }
}

TEST(BufferedLog, LinesOfSeveralThreadsStandInTheOrderInWhichTheyCame) {
    CapturedOutput output;
    bufferLogEcho();
    std::string expected;
    for (int i = 0; i < 20; ++i) {
        expected += "5 first " + std::to_string(i) + "\n5 then " + std::to_string(i) + "\n";
        logMessage(5, nullptr, 0, "first %d", i);
        std::thread([i] {
            logMessage(5, nullptr, 0, "then %d", i);
            if (i % 3 == 0) {
                flushLogEcho();
            }
        }).join();
    }
    flushLogEcho();
    EXPECT_EQ(recordedText(), expected);
}

// A process that ends behind it takes the other threads with it.
TEST(BufferedLog, FinishWritesOutAllLinesAlsoWhileOthersWrite) {
    CapturedOutput output;
    bufferLogEcho();
    std::atomic<bool> isEnding{false};
    std::vector<std::thread> others;
    for (int i = 0; i < 3; ++i) {
        others.emplace_back([&isEnding] {
            while (!isEnding) {
                logMessage(5, nullptr, 0, "other");
                flushLogEcho();
            }
        });
    }
    int missing = 0;
    for (int i = 0; i < 300; ++i) {
        clearRecordedLines();
        logMessage(5, nullptr, 0, "last");
        finishLogEcho();
        missing += wasLogged(5, "last") ? 0 : 1;
    }
    isEnding = true;
    for (std::thread& other : others) {
        other.join();
    }
    EXPECT_EQ(missing, 0);
}

TEST(BufferedLog, TextsOfEveryLengthAreWholeAndCutAt4095) {
    CapturedOutput output;
    bufferLogEcho();
    for (const std::size_t size : {0U, 1U, 4094U, 4095U, 4096U, 100000U}) {
        logMessage(5, "a.cpp", 1, "%s", std::string(size, 'x').c_str());
        flushLogEcho();
        EXPECT_EQ(lastLine(),
                  "QUIL:a.cpp(1): " + std::string(std::min<std::size_t>(size, 4095), 'x'));
    }
}

TEST(LogFromMemory, LinesAreLoggedAgainWordForWordUntilForgotten) {
    for (const bool isBuffered : {false, true}) {
        CapturedOutput output;
        clearRecordedLines();
        if (isBuffered) {
            bufferLogEcho();
        }
        LogLines lines;
        int calls = 0;
        const auto logging = [&calls] {
            ++calls;
            logMessage(5, "a.cpp", 1, "call %d", calls);
            logMessage(6, "a.cpp", 2, "not shown");
            logMessage(4, "a.cpp", 3, "second\n");
        };
        for (int i = 0; i < 3; ++i) {
            logFromMemory(&lines, logging);
        }
        flushLogEcho();
        EXPECT_EQ(calls, 1);
        EXPECT_EQ(recordedText(),
                  "5 call 1\n4 second\n\n5 call 1\n4 second\n\n5 call 1\n4 second\n\n");
        const std::string once = "QUIL:a.cpp(1): call 1\nQUIL:a.cpp(3): second\n\n";
        EXPECT_EQ(output.written(), once + once + once);
        lines.forget();
        logFromMemory(&lines, logging);
        EXPECT_EQ(calls, 2);
        flushLogEcho();
    }
}

TEST(LogFromMemory, MoreThanABufferHoldsIsLoggedAllTheSame) {
    CapturedOutput output;
    bufferLogEcho();
    LogLines lines;
    for (int round = 0; round < 2; ++round) {
        logFromMemory(&lines, [] {
            for (int i = 0; i < 3000; ++i) {
                logMessage(5, nullptr, 0, "line %d", i);
            }
        });
    }
    flushLogEcho();
    EXPECT_EQ(countRecorded(5, "line 0"), 2);
    EXPECT_EQ(countRecorded(5, "line 2999"), 2);
    EXPECT_EQ(recordedLines().size(), 6000U);
}
