// The object service when memory ends: each allocation of each request fails in turn. Whoever asked
// hears of it and nothing has happened, or nobody notices; the service lives on either way.

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <future>
#include <string>
#include <thread>

#include "tests/integration/pps_files.hpp"
#include "tests/support/ppsd_mount.hpp"

namespace {

constexpr int kCreate = O_RDWR | O_CREAT;
constexpr int kAllocationsMost = 2000;

class PpsdWantOfMemory : public ::testing::Test {
  protected:
    void SetUp() override {
        QUIL_SKIP_WITHOUT_FUSE();
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
        GTEST_SKIP() << "NOT TESTED: a sanitizer brings an allocator of its own";
#endif
        const std::string file = m_root.path() + "/failing";
        const int fd = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        ASSERT_EQ(ftruncate(fd, sizeof *m_left), 0);
        void* place = mmap(nullptr, sizeof *m_left, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        close(fd);
        ASSERT_NE(place, MAP_FAILED);
        m_left = static_cast<std::atomic<long>*>(place);
        setenv("QUIL_FAILING_NEW", file.c_str(), 1);
        m_ppsd.preload("failing_new");
        ASSERT_TRUE(m_ppsd.start()) << m_ppsd.output();
        unsetenv("QUIL_FAILING_NEW");
        ASSERT_EQ(PpsFile(path("/obj"), kCreate).write("a::1\nb:n:2\n"), 0);
        m_server = PpsFile(path("/ipc?server"), kCreate | O_NONBLOCK);
        m_client = PpsFile(path("/ipc"), O_RDWR | O_NONBLOCK);
        ASSERT_EQ(m_server.read().front(), '+');
    }

    std::string path(const std::string& name) const {
        return m_ppsd.path(name);
    }

    // `action` gives 0 or an errno value; `undo` makes it possible once more. What fails for want
    // of memory has to succeed when there is some.
    void failEach(const std::function<int()>& action, const std::function<void()>& undo) {
        int failed = 0;
        bool isEnough = false;
        for (int number = 1; !isEnough && number < kAllocationsMost; ++number) {
            SCOPED_TRACE("allocation " + std::to_string(number));
            *m_left = number;
            int error = finish(action);
            isEnough = m_left->exchange(0) > 0;
            ASSERT_FALSE(isEnough && error != 0) << strerror(error);
            failed += error != 0 ? 1 : 0;
            if (error != 0) {
                ASSERT_EQ(error, ENOMEM) << strerror(error);
                error = finish(action);
            }
            ASSERT_EQ(error, 0) << strerror(error) << "\n" << m_ppsd.output();
            undo();
        }
        EXPECT_TRUE(isEnough);
        EXPECT_GT(failed, 0) << "nothing was tried";
    }

    std::string readAll(const std::string& name) const {
        return PpsFile(path(name), O_RDONLY).read();
    }

    ScratchRoot m_root;
    PpsdMount m_ppsd{m_root};
    std::atomic<long>* m_left = nullptr;
    PpsFile m_server{"", O_RDWR};
    PpsFile m_client{"", O_RDWR};

  private:
    // A request that is never answered would hold the test for ever; without a service it ends.
    int finish(const std::function<int()>& action) {
        std::future<int> result = std::async(std::launch::async, action);
        if (result.wait_for(std::chrono::milliseconds(kPatienceMilliseconds)) ==
            std::future_status::timeout) {
            ADD_FAILURE() << "no answer";
            m_ppsd.kill();
        }
        return result.get();
    }
};

int orError(int result) {
    return result == 0 ? 0 : errno;
}

TEST_F(PpsdWantOfMemory, ObjectIsMadeRemovedRenamedAndChanged) {
    const std::string first = path("/first");
    const std::string second = path("/second");
    failEach([&] { return PpsFile(first, kCreate).error(); },
             [&] { ASSERT_EQ(unlink(first.c_str()), 0); });
    ASSERT_EQ(PpsFile(first, kCreate).write("a::1\n"), 0);
    failEach([&] { return orError(rename(first.c_str(), second.c_str())); },
             [&] { ASSERT_EQ(rename(second.c_str(), first.c_str()), 0); });
    failEach([&] { return orError(unlink(first.c_str())); },
             [&] { ASSERT_EQ(PpsFile(first, kCreate).write("a::1\n"), 0); });
    failEach([&] { return orError(chmod(first.c_str(), 0600)); },
             [&] { ASSERT_EQ(chmod(first.c_str(), 0644), 0); });
    failEach([&] { return orError(truncate(first.c_str(), 0)); },
             [&] { ASSERT_EQ(PpsFile(first, O_RDWR).write("a::1\n"), 0); });
    failEach([&] { return PpsFile(first, O_RDWR | O_TRUNC).error(); },
             [&] { ASSERT_EQ(PpsFile(first, O_RDWR).write("a::1\n"), 0); });
    EXPECT_EQ(readAll("/first"), "@first\na::1\n");
}

TEST_F(PpsdWantOfMemory, FolderIsMadeListedAndRemoved) {
    const std::string folder = path("/folder");
    // What is on the disk when memory for the answer ends is there.
    failEach(
        [&] {
            const int error = orError(mkdir(folder.c_str(), 0755));
            return error == EEXIST ? 0 : error;
        },
        [&] { ASSERT_EQ(rmdir(folder.c_str()), 0); });
    ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
    failEach([&] { return orError(rmdir(folder.c_str())); },
             [&] { ASSERT_EQ(mkdir(folder.c_str(), 0755), 0); });
    failEach(
        [&] {
            int entries = 0;
            DIR* listing = opendir(path("").c_str());
            if (listing == nullptr) {
                return errno;
            }
            errno = 0;
            while (readdir(listing) != nullptr) {
                ++entries;
            }
            const int error = errno;
            closedir(listing);
            return error != 0 || entries == 5 ? error : EBADMSG;
        },
        [&] { ASSERT_EQ(chmod(folder.c_str(), 0755), 0); });
}

TEST_F(PpsdWantOfMemory, ObjectIsOpenedWatchedWrittenAndRead) {
    int value = 0;
    PpsFile watcher(path("/obj?wait,delta"), O_RDONLY);
    EXPECT_EQ(watcher.read(), "@obj\na::1\nb:n:2\n");
    PpsFile writer(path("/obj"), O_RDWR);
    const auto isThere = [&] {
        return readAll("/obj") == "@obj\na::1\nb:n:" + std::to_string(value) + "\n";
    };
    failEach([&] { return writer.write("b:n:" + std::to_string(value) + "\n"); },
             [&] {
                 ASSERT_TRUE(isThere()) << readAll("/obj");
                 ++value;
             });
    failEach(
        [&] {
            const PpsFile reader(path("/obj"), O_RDONLY);
            const std::string text = reader.error() == 0 ? reader.read() : "";
            return reader.error() != 0                       ? reader.error()
                   : text == "errno: Cannot allocate memory" ? ENOMEM
                   : text.starts_with("@obj\na::1\nb:n:")    ? 0
                                                             : EBADMSG;
        },
        [] {});
    EXPECT_TRUE(watcher.becomesReadable());
}

TEST_F(PpsdWantOfMemory, ReaderThatWaitsIsAnswered) {
    const PpsFile writer(path("/obj"), O_RDWR);
    int value = 10;
    failEach(
        [&] {
            const PpsFile reader(path("/obj?wait"), O_RDONLY);
            if (reader.error() != 0) {
                return reader.error();
            }
            std::string text = reader.read();
            if (!text.starts_with('@')) {
                return ENOMEM;
            }
            std::thread waiting([&] { text = reader.read(); });
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            int error = writer.write("b:n:" + std::to_string(++value) + "\n");
            while (error != 0 && writer.write("b:n:" + std::to_string(++value) + "\n") != 0) {
            }
            waiting.join();
            return text.starts_with("@obj\n") ? 0 : ENOMEM;
        },
        [] {});
}

TEST_F(PpsdWantOfMemory, NameIsServedAndGivenUp) {
    failEach(
        [&] {
            const PpsFile server(path("/once?server"), kCreate);
            if (server.error() != 0) {
                return server.error();
            }
            const PpsFile client(path("/once"), O_RDWR);
            return client.error();
        },
        [&] { ASSERT_EQ(PpsFile(path("/once"), O_RDWR).error(), ENOENT); });
}

TEST_F(PpsdWantOfMemory, ClientsComeAndGo) {
    failEach([&] { return PpsFile(path("/ipc"), O_RDWR).error(); }, [] {});
    failEach(
        [&] {
            const PpsFile list(path("/ipc?clients"), O_RDONLY);
            const std::string text = list.error() == 0 ? list.read() : "";
            return list.error() != 0                       ? list.error()
                   : text.find("pid") == std::string::npos ? ENOMEM
                                                           : 0;
        },
        [] {});
}

TEST_F(PpsdWantOfMemory, MessagesTravelOnceOrAreRefused) {
    int asked = 0;
    const auto heard = [](const PpsFile& file) {
        int messages = 0;
        for (std::string text = file.read(); text.front() == '@';) {
            ++messages;
            text = file.read();
        }
        return messages;
    };
    failEach(
        [&] {
            const int error = m_client.write("ask::1\n");
            asked += error == 0 ? 1 : 0;
            return error;
        },
        [] {});
    EXPECT_EQ(heard(m_server), asked);
    int told = 0;
    failEach(
        [&] {
            const int error = m_server.write("told::1\n");
            told += error == 0 ? 1 : 0;
            return error;
        },
        [&] {
            // A broadcast that found no room for it hangs up on its client, which then opens anew.
            told -= heard(m_client);
            if ((m_client.events() & POLLHUP) != 0) {
                m_client = PpsFile(path("/ipc"), O_RDWR | O_NONBLOCK);
                told = 0;
            }
        });
    EXPECT_EQ(told, 0);
}

TEST_F(PpsdWantOfMemory, StatusAndReadinessNeedNone) {
    *m_left = 1;
    struct stat status {};
    struct statvfs disk {};
    EXPECT_EQ(fstat(m_client.fd(), &status), 0);
    EXPECT_EQ(fstatvfs(m_client.fd(), &disk), 0);
    EXPECT_EQ(m_client.events(), POLLOUT);
    *m_left = 0;
}

}  // namespace
