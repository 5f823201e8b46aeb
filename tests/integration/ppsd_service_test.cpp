// ppsd as a process: starting, ending, what it keeps, and what it refuses.

#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <limits>

#include "tests/integration/pps_files.hpp"
#include "tests/support/ppsd_mount.hpp"
#include "tests/support/private_mount.hpp"

namespace {

constexpr int kCreate = O_RDWR | O_CREAT;

class PpsdService : public ::testing::Test {
  protected:
    void SetUp() override { QUIL_SKIP_WITHOUT_FUSE(); }

    std::string path(const std::string& name) const { return m_ppsd.path(name); }
    std::string text(const std::string& name) const { return PpsFile(path(name), O_RDONLY).read(); }
    std::string storeFile(const std::string& name) const {
        return m_root.path("/var/lib/ppsd/tree") + name;
    }

    // Runs ppsd to its end: its exit status, with what it printed in `printed`.
    int run(const std::string& arguments, std::string& printed) const {
        const std::string log = m_root.path("/run.log");
        const int status = std::system(
            (builtProgram("ppsd") + " " + arguments + " >" + log + " 2>&1 </dev/null").c_str());
        std::ifstream file(log);
        printed.assign(std::istreambuf_iterator<char>(file), {});
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    ScratchRoot m_root;
    PpsdMount m_ppsd{m_root};
};

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// The process id of the daemon whose lock file this is, from the kernel's table of locks.
pid_t lockHolder(const std::string& lockFile) {
    struct stat status {};
    if (stat(lockFile.c_str(), &status) != 0) {
        return -1;
    }
    std::ifstream locks("/proc/locks");
    const std::string inode = ":" + std::to_string(status.st_ino) + " ";
    for (std::string line; std::getline(locks, line);) {
        int pid = -1;
        if (contains(line, inode) && std::sscanf(line.c_str(), "%*s FLOCK %*s %*s %d", &pid) == 1) {
            return pid;
        }
    }
    return -1;
}

int errorOf(int result) {
    return result == 0 ? 0 : errno;
}

}  // namespace

TEST_F(PpsdService, EndsWellWhenItsMountIsTakenAway) {
    ASSERT_TRUE(m_ppsd.start());
    ASSERT_EQ(std::system(("fusermount3 -u '" + path("") + "'").c_str()), 0);
    siginfo_t end{};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(m_ppsd.pid()), &end, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(end.si_code, CLD_EXITED);
    EXPECT_EQ(end.si_status, 0);
}

TEST_F(PpsdService, PrintsOneLineWithPathsAsPeopleWriteThem) {
    ASSERT_TRUE(m_ppsd.start());
    EXPECT_EQ(m_ppsd.output(), "ppsd: serving /pps (store /var/lib/ppsd)\n");
}

TEST_F(PpsdService, MakesTheMountPointAndTheStore) {
    ASSERT_TRUE(m_ppsd.start());
    EXPECT_TRUE(std::filesystem::is_directory(m_root.path("/pps")));
    EXPECT_TRUE(std::filesystem::is_directory(m_root.path("/var/lib/ppsd")));
}

TEST_F(PpsdService, TakesStoreAndMountPointFromTheCommandLine) {
    const std::string mountPoint = m_root.path("/elsewhere");
    ASSERT_TRUE(m_ppsd.start({"--store", m_root.path("/kept"), mountPoint}));
    EXPECT_TRUE(contains(m_ppsd.output(), "serving /elsewhere (store /kept)")) << m_ppsd.output();
    EXPECT_EQ(PpsFile(mountPoint + "/obj", kCreate).write("a::1\n"), 0);
    EXPECT_TRUE(std::filesystem::exists(m_root.path("/kept/tree/obj")));
}

TEST_F(PpsdService, EndsWithStatus0OnSigtermSigintAndSighup) {
    ASSERT_TRUE(m_ppsd.start());
    EXPECT_EQ(m_ppsd.stop(), 0);
    ASSERT_TRUE(m_ppsd.start());
    EXPECT_EQ(m_ppsd.stop(SIGINT), 0);
    ASSERT_TRUE(m_ppsd.start());
    EXPECT_EQ(m_ppsd.stop(SIGHUP), 0);
    EXPECT_TRUE(std::filesystem::is_empty(path(""))) << "still mounted";
}

TEST_F(PpsdService, EndsWithStatus0WhileItIsInUse) {
    ASSERT_TRUE(m_ppsd.start());
    PpsFile object(path("/obj"), kCreate);
    PpsFile server(path("/ipc?server"), kCreate);
    PpsFile client(path("/ipc?wait"), O_RDWR);
    EXPECT_EQ(m_ppsd.stop(), 0);
    EXPECT_NE(client.read().substr(0, 6), "") << "the read comes back";
    ASSERT_TRUE(m_ppsd.start());
    EXPECT_EQ(PpsFile(path("/obj"), O_RDWR).error(), 0);
}

TEST_F(PpsdService, WaitingReadIsAnsweredWithEnotconnWhenTheServiceEnds) {
    ASSERT_TRUE(m_ppsd.start());
    PpsFile reader(path("/obj?wait"), kCreate);
    auto waiting = std::async(std::launch::async, [&] { return reader.read(); });
    EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(kQuietMilliseconds)),
              std::future_status::timeout);
    EXPECT_EQ(m_ppsd.stop(), 0);
    EXPECT_EQ(waiting.get(), std::string("errno: ") + std::strerror(ENOTCONN));
}

TEST_F(PpsdService, WaitersOfAKilledServiceAreLetGo) {
    ASSERT_TRUE(m_ppsd.start());
    PpsFile reader(path("/obj?wait"), kCreate);
    PpsFile poller(path("/obj"), O_RDONLY);
    auto read = std::async(std::launch::async, [&] { return reader.read(); });
    auto polled = std::async(std::launch::async,
                             [&] { return poller.events(kPatienceMilliseconds, POLLIN); });
    EXPECT_EQ(read.wait_for(std::chrono::milliseconds(kQuietMilliseconds)),
              std::future_status::timeout);
    m_ppsd.kill();
    const std::string outcome = read.get();
    EXPECT_TRUE(outcome == std::string("errno: ") + std::strerror(ECONNABORTED) ||
                outcome == std::string("errno: ") + std::strerror(ENOTCONN))
        << outcome;
    EXPECT_EQ(polled.get(), POLLERR);
    EXPECT_EQ(PpsFile(path("/obj"), O_RDONLY).error(), ENOTCONN);
    ASSERT_TRUE(m_ppsd.start());
    EXPECT_EQ(PpsFile(path("/obj"), O_RDWR).write("a::1\n"), 0);
    EXPECT_EQ(reader.read(), std::string("errno: ") + std::strerror(ENOTCONN))
        << "descriptors do not come back with the service";
}

TEST_F(PpsdService, StoreThatCannotBeWrittenToIsServedFromAndEveryChangeGivesErofs) {
    ASSERT_TRUE(m_ppsd.start());
    PpsFile(path("/obj"), kCreate, 0640).write("a::1\n");
    ASSERT_EQ(mkdir(path("/folder").c_str(), 0755), 0);
    ASSERT_EQ(mkdir(path("/empty").c_str(), 0755), 0);
    PpsFile(path("/folder/inner"), kCreate).write("b::2\n");
    ASSERT_EQ(m_ppsd.stop(), 0);
    PrivateMount mounted;
    if (!PrivateMount::readOnly(m_root.path("/var/lib/ppsd"), mounted)) {
        GTEST_SKIP() << "NOT TESTED: nothing can be mounted here: " << std::strerror(errno);
    }
    ASSERT_TRUE(m_ppsd.start()) << m_ppsd.output();
    PpsFile object(path("/obj"), O_RDWR);
    EXPECT_EQ(object.read(), "@obj\na::1\n");
    EXPECT_EQ(text("/folder/inner"), "@inner\nb::2\n");
    EXPECT_EQ(object.write("a::2\n"), EROFS);
    EXPECT_EQ(PpsFile(path("/obj"), O_RDWR | O_TRUNC).error(), EROFS);
    EXPECT_EQ(PpsFile(path("/new"), kCreate).error(), EROFS);
    EXPECT_EQ(errorOf(mkdir(path("/newdir").c_str(), 0755)), EROFS);
    EXPECT_EQ(errorOf(rmdir(path("/empty").c_str())), EROFS);
    EXPECT_EQ(errorOf(unlink(path("/obj").c_str())), EROFS);
    EXPECT_EQ(errorOf(rename(path("/obj").c_str(), path("/o2").c_str())), EROFS);
    EXPECT_EQ(errorOf(rename(path("/folder").c_str(), path("/empty").c_str())), EROFS);
    EXPECT_EQ(errorOf(truncate(path("/obj").c_str(), 0)), EROFS);
    EXPECT_EQ(errorOf(chmod(path("/obj").c_str(), 0600)), EROFS);
    EXPECT_EQ(errorOf(chown(path("/folder").c_str(), 1234, 1234)), EROFS);
    struct stat status {};
    ASSERT_EQ(stat(path("/obj").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0640U);
    EXPECT_EQ(text("/obj"), "@obj\na::1\n");
    EXPECT_TRUE(std::filesystem::is_directory(path("/empty")));
    PpsFile server(path("/ipc?server"), kCreate);
    EXPECT_EQ(PpsFile(path("/ipc"), O_RDWR).write("a::1\n"), 0) << "nothing of that is stored";
    std::string printed;
    EXPECT_EQ(run(m_root.path("/other"), printed), 1) << "the store is locked all the same";
    EXPECT_TRUE(contains(printed, "in use")) << printed;
    ASSERT_EQ(m_ppsd.stop(), 0);
    mounted.end();
    ASSERT_TRUE(m_ppsd.start());
    EXPECT_EQ(PpsFile(path("/obj"), O_RDWR).write("a::2\n"), 0);
}

TEST_F(PpsdService, FreeSpaceIsThatOfTheDiskBelowTheStore) {
    constexpr std::size_t kDiskBytes = 8 * 1024 * 1024;
    const std::string store = m_root.path("/store");
    ASSERT_EQ(mkdir(store.c_str(), 0700), 0);
    PrivateMount mounted;
    const bool isOnADiskOfItsOwn = geteuid() == 0 && PrivateMount::disk(store, kDiskBytes, mounted);
    ASSERT_TRUE(m_ppsd.start({"--store", store}));
    struct statvfs shown {};
    struct statvfs disk {};
    ASSERT_EQ(statvfs(path("").c_str(), &shown), 0);
    ASSERT_EQ(statvfs(store.c_str(), &disk), 0);
    EXPECT_EQ(shown.f_blocks, disk.f_blocks);
    EXPECT_EQ(shown.f_frsize, disk.f_frsize);
    EXPECT_EQ(shown.f_files, disk.f_files);
    EXPECT_EQ(shown.f_namemax, 255U);
    if (!isOnADiskOfItsOwn) {
        GTEST_SKIP() << "NOT TESTED to the end: a disk of its own cannot be mounted here";
    }
    EXPECT_EQ(shown.f_blocks * shown.f_frsize, kDiskBytes);
    EXPECT_EQ(shown.f_bavail, disk.f_bavail);
    PpsFile(path("/obj"), kCreate).write("a::" + std::string(40 * 1024, 'x') + "\n");
    struct statvfs later {};
    ASSERT_EQ(statvfs(path("").c_str(), &later), 0);
    EXPECT_LE(later.f_bavail * later.f_frsize + 40 * 1024, shown.f_bavail * shown.f_frsize);
}

TEST_F(PpsdService, RenameMakesAtMost64LevelsAndTheTreeComesBackAfterARestart) {
    ASSERT_TRUE(m_ppsd.start());
    const auto make = [&](std::string folder, int levels) {
        EXPECT_EQ(mkdir(path(folder).c_str(), 0755), 0);
        for (int level = 1; level < levels; ++level) {
            folder += "/f";
            EXPECT_EQ(mkdir(path(folder).c_str(), 0755), 0) << folder;
        }
        return folder;
    };
    const std::string upper = make("/upper", 24);
    const std::string lower = make("/lower", 40);
    const std::string single = make("/single", 1);
    PpsFile(path(lower + "/obj"), kCreate).write("a::1\n");
    ASSERT_EQ(rename(path("/lower").c_str(), path(upper + "/lower").c_str()), 0);
    const std::string deepest = upper + lower;
    EXPECT_EQ(errorOf(mkdir(path(deepest + "/f").c_str(), 0755)), ENAMETOOLONG);
    EXPECT_EQ(errorOf(rename(path(single).c_str(), path(deepest + "/f").c_str())), ENAMETOOLONG);
    EXPECT_EQ(errorOf(rename(path("/upper").c_str(), path("/single/u").c_str())), ENAMETOOLONG);
    PpsFile(path("/obj"), kCreate).write("b::2\n");
    EXPECT_EQ(errorOf(rename(path("/obj").c_str(), path(deepest + "/moved").c_str())), 0);
    ASSERT_TRUE(m_ppsd.restart());
    EXPECT_EQ(text(deepest + "/obj"), "@obj\na::1\n");
    EXPECT_EQ(text(deepest + "/moved"), "@moved\nb::2\n");
    EXPECT_EQ(PpsFile(path(deepest + "/obj"), O_RDWR).write("a::2\n"), 0);
    EXPECT_EQ(text(deepest + "/obj"), "@obj\na::2\n");
}

TEST_F(PpsdService, NamesOf255BytesComeBackAfterARestartAndLongerOnesAreRefused) {
    ASSERT_TRUE(m_ppsd.start());
    const std::string folder = "/" + std::string(255, 'f');
    const std::string object = folder + "/" + std::string(255, 'o');
    const std::string served = folder + "/" + std::string(255, 's');
    ASSERT_EQ(mkdir(path(folder).c_str(), 0755), 0);
    ASSERT_EQ(PpsFile(path(object), kCreate).write("a::1\n"), 0);
    PpsFile server(path(served + "?server,wait"), kCreate);
    EXPECT_EQ(server.error(), 0);
    EXPECT_EQ(PpsFile(path(served), O_RDWR).write("a::1\n"), 0);
    EXPECT_EQ(errorOf(mkdir(path(folder + "f").c_str(), 0755)), ENAMETOOLONG);
    EXPECT_EQ(errorOf(rename(path(object).c_str(), path(object + "o").c_str())), ENAMETOOLONG);
    EXPECT_EQ(PpsFile(path(served + "s?server"), kCreate).error(), ENAMETOOLONG);
    server.shut();
    ASSERT_TRUE(m_ppsd.restart());
    EXPECT_EQ(text(object), "@" + std::string(255, 'o') + "\na::1\n");
}

TEST_F(PpsdService, TreeWithModesOwnersAndTimesComesBackAfterARestart) {
    ASSERT_TRUE(m_ppsd.start());
    ASSERT_EQ(mkdir(path("/folder").c_str(), 0711), 0);
    PpsFile(path("/folder/obj"), kCreate, 0640).write("b::1\na:json:{\"x\":1}\n");
    PpsFile(path("/folder/empty"), kCreate, 0604);
    ASSERT_EQ(chmod(path("").c_str(), 0751), 0);
    if (geteuid() == 0) {
        ASSERT_EQ(chown(path("/folder/obj").c_str(), 1234, 2345), 0);
        ASSERT_EQ(chown(path("/folder").c_str(), 1234, 2345), 0);
    }
    const timespec times[] = {{0, UTIME_OMIT}, {1000000000, 123456789}};
    ASSERT_EQ(utimensat(AT_FDCWD, path("/folder/obj").c_str(), times, 0), 0);
    const auto describe = [&](const std::string& name) {
        struct stat status {};
        EXPECT_EQ(stat(path(name).c_str(), &status), 0) << name;
        return std::to_string(status.st_mode) + " " + std::to_string(status.st_uid) + " " +
               std::to_string(status.st_gid) + " " + std::to_string(status.st_size);
    };
    const std::string folder = describe("/folder");
    const std::string object = describe("/folder/obj");
    const std::string empty = describe("/folder/empty");
    const std::string top = describe("");
    ASSERT_TRUE(m_ppsd.restart());
    EXPECT_EQ(describe("/folder"), folder);
    EXPECT_EQ(describe("/folder/obj"), object);
    EXPECT_EQ(describe("/folder/empty"), empty);
    EXPECT_EQ(describe(""), top);
    struct stat status {};
    stat(path("/folder/obj").c_str(), &status);
    EXPECT_EQ(status.st_mtim.tv_sec, 1000000000);
    EXPECT_EQ(status.st_mtim.tv_nsec, 123456789);
    if (geteuid() == 0) {
        EXPECT_EQ(status.st_uid, 1234U);
    }
    EXPECT_EQ(text("/folder/obj"), "@obj\nb::1\na:json:{\"x\":1}\n");
    EXPECT_EQ(text("/folder/empty"), "");
}

TEST_F(PpsdService, RenamesAndRemovalsComeBackAfterARestart) {
    ASSERT_TRUE(m_ppsd.start());
    ASSERT_EQ(mkdir(path("/a").c_str(), 0755), 0);
    ASSERT_EQ(mkdir(path("/gone").c_str(), 0755), 0);
    PpsFile(path("/a/obj"), kCreate).write("a::1\n");
    PpsFile(path("/removed"), kCreate).write("a::1\n");
    ASSERT_EQ(rename(path("/a").c_str(), path("/b").c_str()), 0);
    ASSERT_EQ(rmdir(path("/gone").c_str()), 0);
    ASSERT_EQ(unlink(path("/removed").c_str()), 0);
    ASSERT_TRUE(m_ppsd.restart());
    EXPECT_EQ(text("/b/obj"), "@obj\na::1\n");
    for (const char* name : {"/a", "/gone", "/removed"}) {
        EXPECT_FALSE(std::filesystem::exists(path(name))) << name;
    }
}

TEST_F(PpsdService, ServedObjectsAreNotStored) {
    ASSERT_TRUE(m_ppsd.start());
    PpsFile server(path("/ipc?server"), kCreate);
    server.write("a::1\n");
    EXPECT_FALSE(std::filesystem::exists(storeFile("/ipc")));
    server.shut();
    ASSERT_TRUE(m_ppsd.restart());
    EXPECT_EQ(PpsFile(path("/ipc"), O_RDWR).error(), ENOENT);
}

TEST_F(PpsdService, EveryWriteThatReturnedSurvivesAKill) {
    ASSERT_TRUE(m_ppsd.start());
    PpsFile file(path("/obj"), kCreate, 0600);
    for (int round = 0; round < 5; ++round) {
        const std::string value = std::to_string(round);
        ASSERT_EQ(file.write("n:n:" + value + "\n"), 0);
        m_ppsd.kill();
        file.shut();
        ASSERT_TRUE(m_ppsd.start()) << "a stale mount must be cleaned up\n" << m_ppsd.output();
        EXPECT_EQ(text("/obj"), "@obj\nn:n:" + value + "\n");
        file = PpsFile(path("/obj"), O_RDWR);
    }
}

TEST_F(PpsdService, KillInTheMiddleOfWritesLeavesTheLastCompleteOne) {
    ASSERT_TRUE(m_ppsd.start());
    const auto valueOf = [](int i) { return std::string(static_cast<std::size_t>(i), 'v'); };
    int acknowledged = 0;
    {
        PpsFile file(path("/obj"), kCreate);
        const pid_t killer = fork();
        if (killer == 0) {
            usleep(100000);
            kill(m_ppsd.pid(), SIGKILL);
            _exit(0);
        }
        while (file.write("v::" + valueOf(acknowledged + 1) + "\n") == 0) {
            acknowledged = (acknowledged + 1) % 50000;
        }
        waitpid(killer, nullptr, 0);
    }
    m_ppsd.kill();
    ASSERT_TRUE(m_ppsd.start());
    const std::string found = text("/obj");
    const std::string last = "@obj\nv::" + valueOf(acknowledged) + "\n";
    const std::string next = "@obj\nv::" + valueOf(acknowledged + 1) + "\n";
    EXPECT_TRUE(found == last || found == next)
        << found.size() << " bytes, expected " << last.size() << " or " << next.size();
    EXPECT_FALSE(contains(m_ppsd.output(), "damaged")) << m_ppsd.output();
}

TEST_F(PpsdService, DamagedStoreFilesAreReportedKeptAsideAndHarmNothingElse) {
    ASSERT_TRUE(m_ppsd.start());
    for (const char* name : {"/good", "/cut", "/flipped", "/empty"}) {
        PpsFile(path(name), kCreate).write("a::1\nb::2\n");
    }
    ASSERT_EQ(m_ppsd.stop(), 0);
    std::filesystem::resize_file(storeFile("/cut"), 60);
    std::filesystem::resize_file(storeFile("/empty"), 0);
    {
        std::fstream file(storeFile("/flipped"), std::ios::in | std::ios::out);
        file.seekp(-3, std::ios::end);
        file.put('9');
    }
    ASSERT_TRUE(m_ppsd.start()) << m_ppsd.output();
    EXPECT_EQ(text("/good"), "@good\na::1\nb::2\n");
    for (const std::string name : {"/cut", "/flipped", "/empty"}) {
        EXPECT_EQ(PpsFile(path(name), O_RDWR).error(), ENOENT) << name;
        EXPECT_TRUE(contains(m_ppsd.output(), "stored " + name + " is damaged")) << name;
        EXPECT_EQ(PpsFile(path(name), kCreate).write("new::1\n"), 0) << name;
    }
    const std::filesystem::directory_iterator kept(m_root.path("/var/lib/ppsd/damaged"));
    EXPECT_EQ(std::distance(begin(kept), end(kept)), 3);
}

TEST_F(PpsdService, DaemonReturnsOnceTheMountIsLive) {
    std::string printed;
    ASSERT_EQ(run("--daemon", printed), 0) << printed;
    EXPECT_EQ(PpsFile(path("/obj"), kCreate).write("a::1\n"), 0);
    const std::string lock = m_root.path("/var/lib/ppsd/lock");
    const pid_t daemon = lockHolder(lock);
    ASSERT_GT(daemon, 1);
    kill(daemon, SIGTERM);
    for (int i = 0; i < kPatienceMilliseconds && lockHolder(lock) == daemon; ++i) {
        usleep(1000);
    }
    EXPECT_FALSE(std::filesystem::exists(path("/obj"))) << "still mounted";
}

TEST_F(PpsdService, DaemonTakesPathsRelativeToWhereItWasStarted) {
    const std::string command = "cd " + m_root.path() + " && unset QUIL_ROOT && " +
                                builtProgram("ppsd") + " --daemon --store kept ./pps/";
    ASSERT_EQ(std::system(command.c_str()), 0);
    EXPECT_EQ(PpsFile(path("/obj"), kCreate).write("a::1\n"), 0);
    EXPECT_TRUE(std::filesystem::exists(m_root.path("/kept/tree/obj")));
    const std::string lock = m_root.path("/kept/lock");
    const pid_t daemon = lockHolder(lock);
    ASSERT_GT(daemon, 1);
    EXPECT_EQ(getsid(daemon), daemon) << "the daemon must not stay in the session of its starter";
    char folder[64] = "";
    const std::string link = "/proc/" + std::to_string(daemon) + "/cwd";
    EXPECT_EQ(readlink(link.c_str(), folder, sizeof folder - 1), 1);
    EXPECT_STREQ(folder, "/");
    kill(daemon, SIGTERM);
    for (int i = 0; i < kPatienceMilliseconds && lockHolder(lock) == daemon; ++i) {
        usleep(1000);
    }
    EXPECT_FALSE(std::filesystem::exists(path("/obj"))) << "still mounted";
}

TEST_F(PpsdService, DaemonThatCannotStartSaysWhyAndFails) {
    ASSERT_TRUE(m_ppsd.start());
    std::string printed;
    EXPECT_EQ(run("--daemon", printed), 1);
    EXPECT_TRUE(contains(printed, "in use")) << printed;
}

TEST_F(PpsdService, SecondServiceOnTheSameStoreIsRefused) {
    ASSERT_TRUE(m_ppsd.start());
    std::string printed;
    EXPECT_EQ(run(m_root.path("/other"), printed), 1);
    EXPECT_EQ(printed, "ppsd: the store /var/lib/ppsd is in use by another ppsd\n");
}

TEST_F(PpsdService, SecondServiceOnTheSameMountPointIsRefused) {
    ASSERT_TRUE(m_ppsd.start());
    PpsFile(path("/obj"), kCreate).write("a::1\n");
    std::string printed;
    EXPECT_EQ(run("--store " + m_root.path("/other"), printed), 1);
    EXPECT_TRUE(contains(printed, "the mount point /pps is in use")) << printed;
    EXPECT_EQ(text("/obj"), "@obj\na::1\n");
}

TEST_F(PpsdService, LockThatSomebodyHoldsOnTheFolderUnderneathKeepsNobodyFromStarting) {
    std::filesystem::create_directory(m_root.path("/pps"));
    const int folder = open(m_root.path("/pps").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(flock(folder, LOCK_EX | LOCK_NB), 0);
    EXPECT_TRUE(m_ppsd.start()) << m_ppsd.output();
    close(folder);
}

TEST_F(PpsdService, MountPointThatIsAFileIsRefusedWithItsName) {
    std::ofstream(m_root.path("/pps")) << "x";
    std::string printed;
    EXPECT_EQ(run("", printed), 1);
    EXPECT_TRUE(contains(printed, "/pps: Not a directory")) << printed;
}

TEST_F(PpsdService, UnknownCommandLineOptionIsRefused) {
    std::string printed;
    EXPECT_NE(run("--bogus", printed), 0);
    EXPECT_TRUE(contains(printed, "--bogus")) << printed;
}

TEST_F(PpsdService, ShareThatIsNoWholeNumberIsRefusedWithItsOption) {
    for (const std::string option :
         {"--user-memory", "--user-files", "--user-objects", "--user-store"}) {
        for (const std::string value :
             {"-1", "99999999999999999999", "16M", "1e3", "1.5", "0x10", "+5", "' 5'", "x"}) {
            std::string printed;
            EXPECT_GT(run(option + " " + value, printed), 100) << value;
            EXPECT_TRUE(contains(printed, option + ": must be a whole number from 0 to "))
                << value << ": " << printed;
        }
    }
}

TEST_F(PpsdService, LargestShareAndOneWithLeadingZerosAreTaken) {
    const std::string largest = std::to_string(std::numeric_limits<std::size_t>::max());
    ASSERT_TRUE(m_ppsd.start({"--user-memory", largest, "--user-files", "0000000099",
                              "--user-objects", largest, "--user-store", largest}))
        << m_ppsd.output();
    EXPECT_EQ(PpsFile(path("/obj"), kCreate).write("a::1\n"), 0);
}

// A service manager's socket, by its path or, with '@' in front, by its abstract name.
class Manager {
  public:
    explicit Manager(const std::string& name)
        : m_socket(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        name.copy(address.sun_path, sizeof address.sun_path - 1);
        if (name.front() == '@') {
            address.sun_path[0] = '\0';
        }
        const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
        EXPECT_EQ(bind(m_socket, reinterpret_cast<const sockaddr*>(&address), size), 0);
        setenv("NOTIFY_SOCKET", name.c_str(), 1);
    }
    ~Manager() {
        unsetenv("NOTIFY_SOCKET");
        close(m_socket);
    }

    std::string message() const {
        char text[64] = "";
        pollfd source{m_socket, POLLIN, 0};
        return poll(&source, 1, kPatienceMilliseconds) == 1
                   ? std::string(text, static_cast<std::size_t>(read(m_socket, text, sizeof text)))
                   : "nothing";
    }

  private:
    int m_socket;
};

TEST_F(PpsdService, TellsTheServiceManagerThatItIsReady) {
    const Manager manager(m_root.path("/notify"));
    ASSERT_TRUE(m_ppsd.start());
    EXPECT_EQ(manager.message(), "READY=1");
}

TEST_F(PpsdService, TellsAServiceManagerWithAnAbstractSocketToo) {
    const Manager manager("@ppsd-test-" + std::to_string(getpid()));
    ASSERT_TRUE(m_ppsd.start());
    EXPECT_EQ(manager.message(), "READY=1");
}

// Each writer hears it; whoever looks after the service is told once, and once when it is over.
TEST_F(PpsdService, FullDiskIsToldOnceAndRefusesEveryWriter) {
    const std::string store = m_root.path("/store");
    ASSERT_EQ(mkdir(store.c_str(), 0700), 0);
    PrivateMount mounted;
    if (!PrivateMount::disk(store, 256 * 1024, mounted)) {
        GTEST_SKIP() << "NOT TESTED: nothing can be mounted here: " << std::strerror(errno);
    }
    ASSERT_TRUE(m_ppsd.start({"--store", store}));
    PpsFile object(path("/obj"), kCreate);
    EXPECT_EQ(object.write("a::1\n"), 0);
    EXPECT_EQ(PpsFile(path("/other"), kCreate).write("b::1\n"), 0);
    EXPECT_EQ(m_ppsd.output().find("the store"), std::string::npos) << m_ppsd.output();

    ASSERT_NE(std::system(("cat /dev/zero > '" + store + "/filler' 2> /dev/null").c_str()), 0);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(object.write("a::2\n"), ENOSPC);
        EXPECT_EQ(PpsFile(path("/new"), kCreate).error(), ENOSPC);
        EXPECT_EQ(errorOf(mkdir(path("/newdir").c_str(), 0755)), ENOSPC);
    }
    EXPECT_EQ(text("/obj"), "@obj\na::1\n");
    EXPECT_EQ(errorOf(unlink(path("/other").c_str())), 0) << "what takes no room";
    const std::string begun =
        "ppsd: the store cannot be written to: No space left on device; "
        "changes fail until it can\n";
    const std::string output = m_ppsd.output();
    const std::size_t told = output.find(begun);
    ASSERT_NE(told, std::string::npos) << output;
    EXPECT_EQ(output.substr(told), begun);

    std::filesystem::remove(store + "/filler");
    EXPECT_EQ(object.write("a::3\n"), 0);
    EXPECT_EQ(object.write("a::4\n"), 0);
    EXPECT_EQ(m_ppsd.output().substr(told), begun + "ppsd: the store can be written to again\n");
    EXPECT_EQ(m_ppsd.stop(), 0);
    ASSERT_TRUE(m_ppsd.start({"--store", store}));
    EXPECT_EQ(text("/obj"), "@obj\na::4\n");
    EXPECT_EQ(m_ppsd.stop(), 0);
}
