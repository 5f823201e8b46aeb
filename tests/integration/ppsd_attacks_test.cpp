// What one user takes of the object service and what another notices of it: memory, files, rights.

#include <dirent.h>
#include <sys/statvfs.h>

#include <iterator>

#include "tests/integration/ppsd_attack.hpp"
#include "tests/support/wait_until.hpp"

TEST_F(PpsdAttack, TwoThousandHalfReadDescriptorsShareOneText) {
    startService();
    PpsFile object(path("/large"), kCreate);
    for (int i = 0; i < 16; ++i) {
        ASSERT_EQ(object.write("a" + std::to_string(i) + "::" + std::string(64000, 'x') + "\n"), 0);
    }
    ASSERT_EQ(chmod(path("/large").c_str(), 0644), 0);
    const std::size_t before = residentBytes();
    start(kAttacker, [&] {
        std::vector<PpsFile> readers;
        for (int i = 0; i < 2000; ++i) {
            readers.emplace_back(path("/large"), O_RDONLY);
            if (readers.back().read(100).size() != 100) {
                return 1;  // and the test waits in vain
            }
        }
        tellBegun();
        return pause();
    });
    ASSERT_NO_FATAL_FAILURE(awaitBegun(1));
    if (!kIsInstrumented) {
        EXPECT_LT(residentBytes(), before + 10 * kMebibyte);
    }
}

TEST_F(PpsdAttack, QueuesOfAThousandClientsAreHeldToTheShareOfTheirUser) {
    startService();
    PpsFile server(path("/ipc?server"), kCreate);
    ASSERT_EQ(chmod(path("/ipc").c_str(), 0666), 0);
    const std::size_t before = residentBytes();
    start(kAttacker, [&] {
        std::vector<PpsFile> clients;
        for (int i = 0; i < 1000; ++i) {
            clients.emplace_back(path("/ipc"), O_RDWR);
        }
        tellBegun();
        return pause();
    });
    ASSERT_NO_FATAL_FAILURE(awaitBegun(1));
    const std::string text = line(64 * 1024);
    int taken = 0;
    for (std::string notice = server.read(); !notice.empty(); notice = server.read()) {
        const std::string tag = notice.substr(1, notice.find('\n'));
        for (int i = 0; i < 16; ++i) {
            taken += server.write(tag + text) == 0 ? 1 : 0;
        }
    }
    EXPECT_LE(static_cast<std::size_t>(taken) * text.size(), 16 * kMebibyte);
    EXPECT_GE(static_cast<std::size_t>(taken) * text.size(), 14 * kMebibyte);
    if (!kIsInstrumented) {
        EXPECT_LT(residentBytes(), before + 24 * kMebibyte);
    }
    PpsFile present(path("/ipc"), O_RDWR);
    const std::string notice = server.read();
    EXPECT_EQ(server.write(notice.substr(1, notice.find('\n')) + text), 0) << "another user";
}

TEST_F(PpsdAttack, LazyProgramTakesTheRoomOfItsUsersOthers) {
    startService({"--user-memory", "300000"});
    PpsFile server(path("/ipc?server"), kCreate);
    PpsFile second(path("/second?server"), kCreate);
    PpsFile object(path("/obj"), kCreate);
    for (const char* name : {"/ipc", "/second", "/obj"}) {
        ASSERT_EQ(chmod(path(name).c_str(), 0666), 0);
    }
    const int fault = asOther([&] {
        const PpsFile lazy(path("/ipc"), O_RDWR);
        PpsFile other(path("/second"), O_RDWR);
        const std::string notice = server.read();
        const std::string tag = notice.substr(1, notice.find('\n'));
        for (std::size_t size = 64 * 1024; size >= 8; size /= 2) {
            while (server.write(tag + line(size)) == 0) {
            }
        }
        if (other.write(line(100)) != ENOBUFS) {
            return 1;
        }
        if (PpsFile(path("/second"), O_RDWR).error() != ENOBUFS) {
            return 2;
        }
        if (PpsFile(path("/obj"), O_RDWR).write(line(100)) != ENOBUFS) {
            return 3;
        }
        // Hung up on, and not told as when the server ends.
        return second.write(line(100)) == 0 && other.read().empty() &&
                       other.write(line(100)) == EPIPE
                   ? 0
                   : 4;
    });
    EXPECT_EQ(fault, 0);
    EXPECT_EQ(asOther([&] { return PpsFile(path("/second"), O_RDWR).write(line(100)); }, kInnocent),
              0);
}

TEST_F(PpsdAttack, WriterWithManyThreadsWaitingForTheDiskIsHeldToItsShareOfMemory) {
    m_ppsd.preload("slow_sync");
    setenv("QUIL_SYNC_MILLISECONDS", "30", 1);
    startService({"--user-memory", "300000"});
    const int result = asOther([this] {
        std::vector<std::thread> writers;
        std::atomic<int> refused = 0;
        std::atomic<int> taken = 0;
        for (int i = 0; i < 20; ++i) {
            writers.emplace_back([&, i] {
                PpsFile object(own(kAttacker, "/o" + std::to_string(i)), kCreate);
                const int error = object.write(line(60000));
                refused += error == ENOBUFS ? 1 : 0;
                taken += error == 0 ? 1 : 0;
            });
        }
        for (std::thread& writer : writers) {
            writer.join();
        }
        return refused + taken == 20 && taken > 0 ? 0 : 1;
    });
    EXPECT_EQ(result, 0);
}

TEST_F(PpsdAttack, FilesObjectsAndBytesOfOneUserEndWithItsShares) {
    startService({"--user-files", "50", "--user-objects", "20", "--user-store", "100000"});
    const auto openMany = [this](uid_t user) {
        return asOther(
            [&] {
                std::vector<PpsFile> files;
                PpsFile(own(user, "/obj"), kCreate);
                for (int i = 0; i < 100; ++i) {
                    files.emplace_back(own(user, "/obj"), O_RDONLY);
                    if (files.back().error() != 0) {
                        return files.back().error() == ENFILE ? i : 200;
                    }
                }
                return 100;
            },
            user);
    };
    EXPECT_EQ(openMany(kAttacker), 50);
    EXPECT_EQ(openMany(kInnocent), 50);
    const auto makeMany = [this](uid_t user) {
        return asOther(
            [&] {
                for (int i = 0; i < 100; ++i) {
                    const int error =
                        PpsFile(own(user, "/new" + std::to_string(i)), kCreate).error();
                    if (error != 0) {
                        return error == EDQUOT ? i : 200;
                    }
                }
                return 100;
            },
            user);
    };
    EXPECT_EQ(makeMany(kAttacker), 19) << "one is there already";
    EXPECT_EQ(makeMany(kInnocent), 19);
    const auto fill = [this](uid_t user) {
        return asOther(
            [&] {
                PpsFile object(own(user, "/obj"), O_RDWR);
                const int first = object.write(line(60000));
                return first == 0 ? object.write("b::" + std::string(60000, 'y') + "\n") : 200;
            },
            user);
    };
    EXPECT_EQ(fill(kAttacker), EDQUOT);
    EXPECT_EQ(fill(kInnocent), EDQUOT);
    EXPECT_EQ(PpsFile(path("/roots"), kCreate).write(line(60000)), 0);
}

TEST_F(PpsdAttack, ShareOf0IsNothingForAnybodyButRoot) {
    startService({"--user-files", "0", "--user-objects", "0"});
    PpsFile(path("/shared"), kCreate).write("a::1\n");
    ASSERT_EQ(chmod(path("/shared").c_str(), 0666), 0);
    EXPECT_EQ(asOther([this] { return PpsFile(path("/shared"), O_RDONLY).error(); }), ENFILE);
    const auto makeFolder = [this] {
        return mkdir(own(kAttacker, "/new").c_str(), 0755) == 0 ? 0 : errno;
    };
    EXPECT_EQ(asOther(makeFolder), EDQUOT);
    EXPECT_EQ(makeFolder(), 0);
    const auto enlarge = [this] { return PpsFile(path("/shared"), O_RDWR).write(line(100)); };
    for (const auto& [option, error] :
         {std::pair("--user-memory", ENOBUFS), std::pair("--user-store", EDQUOT)}) {
        ASSERT_EQ(m_ppsd.stop(), 0);
        ASSERT_TRUE(m_ppsd.start({option, "0"}));
        EXPECT_EQ(asOther(enlarge), error) << option;
        EXPECT_EQ(PpsFile(path("/shared"), O_RDWR).write("b::1\n"), 0) << option;
    }
}

TEST_F(PpsdAttack, RootHasNoShare) {
    startService({"--user-memory", "100000", "--user-files", "10", "--user-objects", "5",
                  "--user-store", "50000"});
    std::vector<PpsFile> objects;
    for (int i = 0; i < 20; ++i) {
        objects.emplace_back(path("/o" + std::to_string(i)), kCreate);
        ASSERT_EQ(objects.back().error(), 0) << "open files and objects";
        ASSERT_EQ(objects.back().write(line(20000)), 0) << "bytes of objects";
    }
    PpsFile server(path("/ipc?server"), kCreate);
    const PpsFile client(path("/ipc"), O_RDWR);
    EXPECT_EQ(server.write(line(200000)), 0) << "messages for its client";
    EXPECT_EQ(client.write(line(200000)), 0) << "messages of its client";
}

// Root has no share that would stop it.
TEST_F(PpsdAttack, WantOfMemoryIsTheErrorOfWhoeverAskedAndTheServiceLives) {
    if (kIsInstrumented) {
        GTEST_SKIP() << "NOT TESTED: a sanitizer has its own ends of memory";
    }
    startService();
    PpsFile server(path("/ipc?server"), kCreate);
    ASSERT_EQ(chmod(path("/ipc").c_str(), 0666), 0);
    std::ifstream statm("/proc/" + std::to_string(m_ppsd.pid()) + "/statm");
    rlim_t pages = 0;
    statm >> pages;
    const rlim_t most = pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + 64 * kMebibyte;
    const rlimit limit{most, most};
    ASSERT_EQ(prlimit(m_ppsd.pid(), RLIMIT_AS, &limit, nullptr), 0);
    std::vector<PpsFile> clients;
    int error = 0;
    for (int i = 0; i < 500 && error != ENOMEM; ++i) {
        clients.emplace_back(path("/ipc"), O_RDWR);
        error = clients.back().error();
        for (int n = 0; n < 4 && error == 0; ++n) {
            error = clients.back().write(line(200 * 1024));
        }
    }
    EXPECT_EQ(error, ENOMEM);
    clients.clear();
    int messages = 0;
    for (std::string message = server.read(); !message.empty(); message = server.read()) {
        messages += message.front() == '@' ? 1 : 0;
    }
    EXPECT_GT(messages, 50);
    EXPECT_EQ(PpsFile(path("/ipc"), O_RDWR).write(line(200 * 1024)), 0) << "room again";
    EXPECT_EQ(PpsFile(path("/obj"), kCreate).write("a::1\n"), 0);
}

TEST_F(PpsdAttack, ManyFoldersThatAreListedAtOnceShareTheirListing) {
    startService();
    ASSERT_EQ(asOther([this] {
                  for (int i = 0; i < 300; ++i) {
                      PpsFile(own(kAttacker, "/object" + std::to_string(i)), kCreate);
                  }
                  return 0;
              }),
              0);
    const std::size_t before = residentBytes();
    start(kAttacker, [&] {
        std::vector<int> folders;
        for (int i = 0; i < 2000; ++i) {
            folders.push_back(open(own(kAttacker, "").c_str(), O_RDONLY | O_DIRECTORY));
        }
        tellBegun();
        return pause();
    });
    ASSERT_NO_FATAL_FAILURE(awaitBegun(1));
    if (!kIsInstrumented) {
        EXPECT_LT(residentBytes(), before + 4 * kMebibyte);
    }
}

// The kernel goes on knowing names that it was told of.
TEST_F(PpsdAttack, NamesServedOnceAndGoneLeaveNothingBehind) {
    startService();
    const auto serveNames = [this](int begin, int end) {
        for (int i = begin; i < end; ++i) {
            const std::string name = path("/name" + std::to_string(i));
            const PpsFile server(name + "?server", kCreate);
            const PpsFile client(name, O_RDWR);
            ASSERT_EQ(client.error(), 0);
        }
    };
    serveNames(0, 1000);
    const std::size_t before = residentBytes();
    serveNames(1000, 11000);
    if (!kIsInstrumented) {
        EXPECT_LT(residentBytes(), before + 2 * kMebibyte);
    }
}

TEST_F(PpsdAttack, FormerOwnerHasNoSayOverAnObjectThatWasTaken) {
    startService();
    ASSERT_EQ(PpsFile(path("/obj"), kCreate).write("a::1\n"), 0);
    ASSERT_EQ(chown(path("/obj").c_str(), kAttacker, kAttacker), 0);
    int taken[2];
    ASSERT_EQ(pipe2(taken, O_CLOEXEC), 0);
    const pid_t attacker = startAs(kAttacker, [&] {
        const PpsFile object(path("/obj?delta"), O_RDONLY);
        tellBegun();
        char byte = 0;
        static_cast<void>(!read(taken[0], &byte, 1));
        const timespec times[2] = {{1, 0}, {1, 0}};
        const int errors[] = {fchmod(object.fd(), 0666) == 0 ? 0 : errno,
                              fchown(object.fd(), -1, kAttacker) == 0 ? 0 : errno,
                              futimens(object.fd(), times) == 0 ? 0 : errno};
        return std::all_of(std::begin(errors), std::end(errors),
                           [](int error) { return error == EPERM; })
                   ? 0
                   : 1;
    });
    m_children.push_back(attacker);
    ASSERT_NO_FATAL_FAILURE(awaitBegun(1));
    ASSERT_EQ(chown(path("/obj").c_str(), 0, 0), 0);
    ASSERT_EQ(chmod(path("/obj").c_str(), 0600), 0);
    ASSERT_EQ(write(taken[1], "y", 1), 1);
    int status = -1;
    ASSERT_EQ(waitpid(attacker, &status, 0), attacker);
    m_children.clear();
    EXPECT_EQ(status, 0);
    struct stat object {};
    ASSERT_EQ(stat(path("/obj").c_str(), &object), 0);
    EXPECT_EQ(object.st_mode & 07777U, 0600U);
    EXPECT_EQ(object.st_uid, 0U);
}
