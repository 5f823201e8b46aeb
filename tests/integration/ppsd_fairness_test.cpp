// One user keeps the object service busy, its disk slow or its kernel waiting; others go on.

#include <sys/epoll.h>
#include <sys/mman.h>

#include <atomic>
#include <csignal>
#include <future>

#include "tests/integration/ppsd_attack.hpp"
#include "tests/support/wait_until.hpp"

namespace {

// A bound that an idle machine keeps twenty times over, and that an unfair service misses: polled
// descriptors that are all woken at each change make it 55, and a queue without turns 20,000.
constexpr int kFairMilliseconds = kIsInstrumented ? 200 : 25;

}  // namespace

TEST_F(PpsdAttack, ThreeStormsOfOpeningDelayNobodyElse) {
    startService();
    startEcho(std::chrono::microseconds(200));
    for (int i = 0; i < 3; ++i) {
        start(kAttacker, [this] {
            for (int n = 0;; ++n) {
                const PpsFile passing(path("/ipc"), O_RDWR);
                if (n == 100) {
                    tellBegun();
                }
            }
            return 0;
        });
    }
    ASSERT_NO_FATAL_FAILURE(awaitBegun(3));
    EXPECT_LT(typicalRequest(), kFairMilliseconds);
}

TEST_F(PpsdAttack, WritersOnASlowDiskDelayNoServedObject) {
    m_ppsd.preload("slow_sync");
    setenv("QUIL_SYNC_MILLISECONDS", "30", 1);
    startService();
    startEcho();
    for (int i = 0; i < 10; ++i) {
        start(kAttacker, [this, i] {
            PpsFile object(own(kAttacker, "/o" + std::to_string(i)), kCreate);
            for (int n = 0;; ++n) {
                object.write("n:n:" + std::to_string(n) + "\n");
                if (n == 0) {
                    tellBegun();
                }
            }
            return 0;
        });
    }
    ASSERT_NO_FATAL_FAILURE(awaitBegun(10));
    EXPECT_LT(typicalRequest(), kFairMilliseconds);
}

TEST_F(PpsdAttack, WritersOnASlowDiskLeaveAnotherUserItsTurns) {
    m_ppsd.preload("slow_sync");
    setenv("QUIL_SYNC_MILLISECONDS", "10", 1);
    startService();
    for (int i = 0; i < 20; ++i) {
        start(kAttacker, [this, i] {
            PpsFile object(own(kAttacker, "/o" + std::to_string(i)), kCreate);
            for (int n = 0;; ++n) {
                object.write("n:n:" + std::to_string(n) + "\n");
                mkdir(own(kAttacker, "/d" + std::to_string(i)).c_str(), 0755);
                rmdir(own(kAttacker, "/d" + std::to_string(i)).c_str());
                if (n == 0) {
                    tellBegun();
                }
            }
            return 0;
        });
    }
    ASSERT_NO_FATAL_FAILURE(awaitBegun(20));
    const int slowest = asOther(
        [this] {
            PpsFile object(own(kInnocent, "/mine"), kCreate);
            double longest = 0;
            for (int n = 0; n < 5; ++n) {
                const auto begin = Clock::now();
                if (object.write("n:n:" + std::to_string(n) + "\n") != 0) {
                    return 250;
                }
                longest = std::max(longest, Milliseconds(Clock::now() - begin).count());
            }
            return static_cast<int>(std::min(longest / 10, 250.0));
        },
        kInnocent);
    EXPECT_LT(slowest, 100) << "hundredths of a second; its own writes take two syncs each";
}

TEST_F(PpsdAttack, TenThousandPolledDescriptorsOfAnObjectThatChangesDelayNobodyElse) {
    startService();
    startEcho();
    start(kAttacker, [this] {
        PpsFile object(own(kAttacker, "/watched"), kCreate);
        std::vector<PpsFile> watchers;
        const int set = epoll_create1(EPOLL_CLOEXEC);
        for (int i = 0; i < 10000; ++i) {
            watchers.emplace_back(own(kAttacker, "/watched"), O_RDONLY);
            epoll_event event{EPOLLIN | EPOLLET, {nullptr}};
            epoll_ctl(set, EPOLL_CTL_ADD, watchers.back().fd(), &event);
        }
        const std::jthread askingAgain([set] {
            for (std::vector<epoll_event> events(10000);;) {
                epoll_wait(set, events.data(), static_cast<int>(events.size()), 100);
            }
        });
        for (int n = 0;; ++n) {
            object.write("n:n:" + std::to_string(n) + "\n");
            if (n == 0) {
                tellBegun();
            }
        }
        return 0;
    });
    ASSERT_NO_FATAL_FAILURE(awaitBegun(1));
    EXPECT_LT(typicalRequest(), kFairMilliseconds);
}

TEST_F(PpsdAttack, WritersOfObjectsOfManyAttributesDelayNobodyElse) {
    m_ppsd.preload("slow_sync");
    setenv("QUIL_SYNC_MILLISECONDS", "10", 1);
    startService();
    startEcho();
    for (int i = 0; i < 10; ++i) {
        start(kAttacker, [&, i] {
            PpsFile object(own(kAttacker, "/o" + std::to_string(i)), kCreate);
            fill(object);
            tellBegun();
            for (int n = 0;; ++n) {
                object.write("k5::" + std::to_string(n) + "\n");
            }
            return 0;
        });
    }
    ASSERT_NO_FATAL_FAILURE(awaitBegun(10));
    EXPECT_LT(typicalRequest(), kFairMilliseconds);
}

TEST_F(PpsdAttack, DifferencesToAnObjectOfManyAttributesDelayNobodyElse) {
    startService();
    startEcho();
    start(kAttacker, [&] {
        PpsFile object(own(kAttacker, "/watched"), kCreate);
        fill(object);
        std::vector<PpsFile> watchers;
        const int set = epoll_create1(EPOLL_CLOEXEC);
        for (int i = 0; i < 200; ++i) {
            watchers.emplace_back(own(kAttacker, "/watched?delta"), O_RDONLY);
            epoll_event event{EPOLLIN | EPOLLET, {nullptr}};
            epoll_ctl(set, EPOLL_CTL_ADD, watchers.back().fd(), &event);
        }
        tellBegun();
        std::vector<epoll_event> events(200);
        for (int n = 0;; ++n) {
            object.write("k5::" + std::to_string(n) + "\n");
            epoll_wait(set, events.data(), static_cast<int>(events.size()), 0);
        }
        return 0;
    });
    ASSERT_NO_FATAL_FAILURE(awaitBegun(1));
    EXPECT_LT(typicalRequest(), kFairMilliseconds);
}

TEST_F(PpsdAttack, ServingAndReadingWaitForNoSyncInTheSameFolder) {
    m_ppsd.preload("slow_sync");
    setenv("QUIL_SYNC_MILLISECONDS", "0", 1);
    startService();
    PpsFile object(path("/obj"), kCreate);
    ASSERT_EQ(object.write("a::1\n"), 0);
    ASSERT_EQ(m_ppsd.stop(), 0);
    setenv("QUIL_SYNC_MILLISECONDS", "1000", 1);
    ASSERT_TRUE(m_ppsd.start());
    object = PpsFile(path("/obj"), O_RDWR);
    std::atomic<bool> isDone = false;
    std::thread writer([&] {
        EXPECT_EQ(object.write("a::2\n"), 0);
        isDone = true;
    });
    // Its new text lies aside as long as it is being synced.
    ASSERT_TRUE(waitUntil(
        [&] { return access(m_root.path("/var/lib/ppsd/tree/?new").c_str(), F_OK) == 0; }));
    PpsFile server(path("/ipc?server"), kCreate);
    PpsFile client(path("/ipc"), O_RDWR);
    EXPECT_EQ(client.write("a::1\n"), 0);
    EXPECT_EQ(server.events() & POLLIN, POLLIN);
    EXPECT_EQ(server.read()[0], '+');
    EXPECT_EQ(server.write("b::1\n"), 0);
    EXPECT_EQ(client.read(), "@ipc\nb::1\n");
    EXPECT_EQ(PpsFile(path("/obj"), O_RDONLY).read(), "@obj\na::1\n") << "not there yet";
    EXPECT_FALSE(isDone) << "the writer was to wait all this time";
    writer.join();
    EXPECT_EQ(PpsFile(path("/obj"), O_RDONLY).read(), "@obj\na::2\n");
}

// Each waits in the kernel for a lock on the folder that another holds until its answer comes.
TEST_F(PpsdAttack, EndOfTheServiceEndsTheWaitOfAllWhoChangeOneFolder) {
    startService();
    std::vector<pid_t> changers;
    for (int i = 0; i < 8; ++i) {
        changers.push_back(startAs(kAttacker, [this, i] {
            const std::string name = own(kAttacker, "/o" + std::to_string(i));
            for (int n = 0;; ++n) {
                if (PpsFile(name, kCreate).error() == ENOTCONN) {
                    return 0;
                }
                unlink(name.c_str());
                PpsFile(own(kAttacker, "/s" + std::to_string(i)) + "?server", kCreate);
                if (n == 50) {
                    tellBegun();
                }
            }
        }));
    }
    m_children = changers;
    ASSERT_NO_FATAL_FAILURE(awaitBegun(8));
    m_ppsd.kill();
    for (const pid_t changer : changers) {
        int status = -1;
        EXPECT_TRUE(waitUntil([&] { return waitpid(changer, &status, WNOHANG) == changer; }));
        EXPECT_EQ(status, 0);
        std::erase(m_children, changer);
    }
}

// Such a read is the kernel's own, and goes on when whoever caused it has gone.
TEST_F(PpsdAttack, ReadAheadOfAWaitingReaderHoldsUpNobody) {
    startService();
    ASSERT_EQ(PpsFile(path("/obj"), kCreate).write("a::1\n"), 0);
    ASSERT_EQ(asOther(
                  [this] {
                      const PpsFile reader(path("/obj?wait"), O_RDONLY);
                      reader.read();
                      return posix_fadvise(reader.fd(), 0, 4096, POSIX_FADV_WILLNEED);
                  },
                  kAttacker),
              0);
    std::future<std::string> other = std::async(
        std::launch::async, [this] { return PpsFile(path("/obj?wait"), O_RDONLY).read(); });
    if (other.wait_for(std::chrono::seconds(20)) == std::future_status::timeout) {
        ADD_FAILURE() << "the next reader hangs";
        m_ppsd.kill();
    }
    EXPECT_EQ(other.get(), "@obj\na::1\n");
}

TEST_F(PpsdAttack, PageOfAMappingIsReadAtOnceOrNotAtAll) {
    startService();
    ASSERT_EQ(PpsFile(path("/obj"), kCreate).write("a::1\n"), 0);
    const pid_t attacker = startAs(kAttacker, [this] {
        std::signal(SIGBUS, SIG_DFL);  // which a sanitizer handles
        const PpsFile reader(path("/obj?wait"), O_RDONLY);
        reader.read();
        void* page = mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE, reader.fd(), 0);
        return page == MAP_FAILED ? 1 : *static_cast<volatile char*>(page);
    });
    m_children.push_back(attacker);
    int status = 0;
    ASSERT_TRUE(waitUntil([&] { return waitpid(attacker, &status, WNOHANG) == attacker; }));
    m_children.clear();
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGBUS) << status;
}
