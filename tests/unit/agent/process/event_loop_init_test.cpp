// What prepares the loop, and everything for which it gives up: here it runs to its end.

#include <fcntl.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "agent/clients/client_object.hpp"
#include "agent/process/event_loop.hpp"
#include "agent/sessions/saved_sessions.hpp"
#include "agent/sessions/session_manager.hpp"
#include "agent/sessions/states/session_states.hpp"
#include "agent/support/wake_up.hpp"
#include "tests/support/agent/clients_fixture.hpp"

namespace {

class EventLoopEnd : public ClientsTest {
  protected:
    EventLoopEnd() { prepareObject(); }

    // Runs the loop on a thread of its own. False when it has not come back after some seconds.
    static bool loopEnds() {
        static std::atomic<bool> isOver{false};
        isOver = false;
        std::thread([] {
            quilAgentLoop();
            isOver = true;
        }).detach();
        return waitUntil([] { return isOver.load(); }, 5);
    }

    // Takes every free descriptor below `limit`.
    static void useUpDescriptorsBelow(int limit) {
        for (;;) {
            const int next = open("/dev/null", O_RDONLY | O_CLOEXEC);
            ASSERT_NE(next, -1);
            if (next >= limit) {
                close(next);
                return;
            }
        }
    }
};

}  // namespace

TEST_F(EventLoopEnd, InitStartsTheHandlerThenOpensTheObject) {
    EXPECT_EQ(quilAgentInit(), 1);
    EXPECT_EQ(linesOf("event_loop.cpp"), "6 quilAgentInit - ENTER\n\n6 quilAgentInit - EXIT\n");
    const std::string text = recordedText();
    EXPECT_LT(text.find("msgHandlerInit: init Message Handler done."),
              text.find("clientIfInit - Opening PPS file as server."))
        << text;
}

TEST_F(EventLoopEnd, InitWithoutAHandlerThreadFailsAndOpensNothing) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, std::size_t{1} << 46U);  // no such address space
    ASSERT_EQ(pthread_setattr_default_np(&attributes), 0);
    EXPECT_EQ(quilAgentInit(), 0);
    EXPECT_EQ(linesOf("event_loop.cpp"),
              "6 quilAgentInit - ENTER\n\n3 quilAgentInit: messsage handler init FAILED.\n");
    EXPECT_EQ(clientDescriptor(), -1);
    pthread_attr_setstacksize(&attributes, std::size_t{1} << 20U);
    ASSERT_EQ(pthread_setattr_default_np(&attributes), 0);
    pthread_attr_destroy(&attributes);
    EXPECT_TRUE(loopEnds());
    EXPECT_TRUE(wasLogged(2, "QuilAgent: invalid client file descriptor -1")) << recordedText();
}

TEST_F(EventLoopEnd, InitWithoutTheObjectFailsWithoutALineOfItsOwn) {
    std::filesystem::remove_all(path("/pps"));
    EXPECT_EQ(quilAgentInit(), 0);
    EXPECT_EQ(linesOf("event_loop.cpp"), "6 quilAgentInit - ENTER\n\n");
}

TEST_F(EventLoopEnd, LoopWithoutTheObjectEndsAtItsFirstSet) {
    std::filesystem::remove_all(path("/pps"));
    quilAgentInit();
    clearRecordedLines();
    ASSERT_TRUE(loopEnds());
    EXPECT_EQ(linesOf("event_loop.cpp"),
              "5 quilAgentLoop: All the valid ports are\n\n"
              "6 ports->size() = 0\n"
              "5 Entering quilAgentLoop...\n"
              "5 quilAgentLoop: Waiting (select)...\n"
              "2 QuilAgent: invalid client file descriptor -1\n");
}

TEST_F(EventLoopEnd, LoopThatWasNeverPreparedEndsToo) {
    ASSERT_TRUE(loopEnds());
    EXPECT_TRUE(wasLogged(2, "QuilAgent: invalid client file descriptor -1")) << recordedText();
}

TEST_F(EventLoopEnd, ObjectThatNobodyMayUseEndsTheLoopAlthoughItIsOpen) {
    std::filesystem::remove(path("/pps/services/push/ipc"));
    EXPECT_EQ(quilAgentInit(), 0);
    EXPECT_NE(clientDescriptor(), -1);
    ASSERT_TRUE(loopEnds());
    EXPECT_TRUE(wasLogged(2, "QuilAgent: invalid client file descriptor -1")) << recordedText();
}

// True once the handler thread has logged its first line, before which it opens a file for a
// moment: from then on which descriptors are free is up to the test.
static bool isHandlerSettled() {
    return waitForLogged(6, "QuilMessageManager::pop called.\n");
}

// Prepares the loop with the client object on that descriptor, the lowest that is free. The handler
// thread, which is started just before, may hold it for a moment while it looks for the end of its
// stack; then once more.
static bool initWithClientDescriptor(int wanted) {
    for (int attempt = 0; attempt < 50; ++attempt) {
        if (quilAgentInit() == 1 && clientDescriptor() == wanted) {
            return true;
        }
        close(clientDescriptor());
    }
    return false;
}

TEST_F(EventLoopEnd, ClientDescriptor0EndsTheLoop) {
    close(0);
    ASSERT_TRUE(initWithClientDescriptor(0));
    ASSERT_TRUE(loopEnds());
    EXPECT_TRUE(wasLogged(2, "QuilAgent: invalid client file descriptor 0")) << recordedText();
}

TEST_F(EventLoopEnd, ClientDescriptor256EndsTheLoop) {
    useUpDescriptorsBelow(256);
    ASSERT_TRUE(initWithClientDescriptor(256));
    ASSERT_TRUE(loopEnds());
    EXPECT_TRUE(wasLogged(2, "QuilAgent: invalid client file descriptor 256")) << recordedText();
}

TEST_F(EventLoopEnd, PipeBeyond255EndsTheLoop) {
    ASSERT_EQ(quilAgentInit(), 1);
    ASSERT_TRUE(isHandlerSettled());
    useUpDescriptorsBelow(256);
    ASSERT_TRUE(loopEnds());
    EXPECT_TRUE(
        wasLogged(2, "QuilAgent: invalid file descriptor for internal pipe between threads 256"))
        << recordedText();
}

TEST_F(EventLoopEnd, PipeAt0EndsTheLoop) {
    ASSERT_EQ(quilAgentInit(), 1);
    ASSERT_TRUE(isHandlerSettled());
    close(0);
    ASSERT_TRUE(loopEnds());
    EXPECT_TRUE(
        wasLogged(2, "QuilAgent: invalid file descriptor for internal pipe between threads 0"))
        << recordedText();
}

TEST_F(EventLoopEnd, PipeThatCannotBeMadeEndsTheLoopAndFailsWakeUps) {
    ASSERT_EQ(quilAgentInit(), 1);
    ASSERT_TRUE(isHandlerSettled());
    const int next = open("/dev/null", O_RDONLY | O_CLOEXEC);
    close(next);
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlim_t usual = limit.rlim_cur;
    limit.rlim_cur = static_cast<rlim_t>(next);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    const bool isOver = loopEnds();
    limit.rlim_cur = usual;
    setrlimit(RLIMIT_NOFILE, &limit);
    ASSERT_TRUE(isOver);
    EXPECT_TRUE(
        wasLogged(2, "QuilAgent: invalid file descriptor for internal pipe between threads -1"))
        << recordedText();
    wakeMainLoop();
    EXPECT_EQ(countRecorded(6, "Failed to write pipe!!\n"), 1);
}

TEST_F(EventLoopEnd, PipeIsCloseOnExecAndNeverBlocks) {
    const int readEnd = dup(0);  // the number that the pipe's read end will have
    close(readEnd);
    ASSERT_TRUE(loopEnds());
    for (const int end : {readEnd, readEnd + 1}) {
        EXPECT_EQ(fcntl(end, F_GETFD), FD_CLOEXEC) << end;
        EXPECT_NE(fcntl(end, F_GETFL) & O_NONBLOCK, 0) << end;
    }
}

// Kept on purpose: it is harmless, and the first pass looks at all ports anyway.
TEST_F(EventLoopEnd, WakeUpBeforeThePipeExistsGoesToDescriptor0) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
    ASSERT_EQ(dup2(ends[1], 0), 0);
    wakeMainLoop();
    char bytes[8];
    EXPECT_EQ(read(ends[0], bytes, sizeof bytes), 1);
    EXPECT_EQ(bytes[0], 'a');
    EXPECT_EQ(linesOf("event_loop.cpp"), "");
}

TEST_F(EventLoopEnd, FailedSimChangePassEndsTheLoopBeforeItsFirstSet) {
    // Saved under one SIM, started with another, and out of memory on the way.
    std::filesystem::create_directories(path("/pps/services/cellular/uicc/card0"));
    writeFile("/pps/services/cellular/uicc/card0/status_private", "@status_private\nimsi::2\n");
    writeFile("/pps/services/push/quilagent",
              "@quilagent\nversion::5.0.0\nimsi::1\ndat:json:{\"sessions\":[]}\n");
    QuilDataManager::getInstance()->load();
    QuilSession* session = addSession<QuilSimChangeState>("app", "");
    session->getPort().setPort(5000);
    session->setPpgUrl(std::string(7000, 'u'));
    ASSERT_EQ(quilAgentInit(), 1);
    clearRecordedLines();
    {
        const FailingAllocations noCopyOfTheUrl(7000, 7100);
        ASSERT_TRUE(loopEnds());
    }
    EXPECT_EQ(linesOf("event_loop.cpp"),
              "5 quilAgentLoop: All the valid ports are\n\n"
              "6 ports->size() = 1\n"
              "5 quilAgentLoop: port [5000] fd[-1]\n"
              "2 QuilAgent: process SIM Change failed!\n");
}

TEST_F(EventLoopEnd, ExceptionBeforeTheLoopIsLoggedAndTheListIsEmpty) {
    for (int i = 0; i < 37; ++i) {
        addSession<QuilRegisterState>("app" + std::to_string(i), "")->getPort().setPort(5000);
    }
    clearRecordedLines();
    {
        const FailingAllocations noCopyOfTheList(37 * sizeof(void*), 37 * sizeof(void*));
        ASSERT_TRUE(loopEnds());
    }
    EXPECT_EQ(linesOf("event_loop.cpp"),
              "5 quilAgentLoop: All the valid ports are\n\n"
              "3 quilAgentLoop: exception occurred when trying to get all ports\n\n"
              "5 Entering quilAgentLoop...\n"
              "5 quilAgentLoop: Waiting (select)...\n"
              "2 QuilAgent: invalid client file descriptor -1\n");
}
