// Owner, group and mode as another user meets them. The other user is a child of this process, so
// the tests need root; elsewhere they are skipped, except for the ordinary user's own mount.

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <thread>

#include "tests/integration/other_user.hpp"
#include "tests/integration/pps_files.hpp"
#include "tests/support/ppsd_mount.hpp"

namespace {

constexpr int kCreate = O_RDWR | O_CREAT;
class PpsdPermission : public ::testing::Test {
  protected:
    void SetUp() override {
        QUIL_SKIP_WITHOUT_FUSE();
        QUIL_SKIP_UNLESS_ROOT();
        ASSERT_TRUE(m_ppsd.start()) << m_ppsd.output();
    }

    std::string path(const std::string& name) const { return m_ppsd.path(name); }

    // errno of the other user's open.
    int otherOpens(const std::string& name, int flags) const {
        return asOther([&] { return PpsFile(path(name), flags).error(); });
    }

    ScratchRoot m_root;
    PpsdMount m_ppsd{m_root};
};

}  // namespace

TEST_F(PpsdPermission, ModeOfAnObjectHoldsForOtherUsers) {
    PpsFile(path("/obj"), kCreate).write("a::1\n");
    chmod(path("/obj").c_str(), 0644);
    EXPECT_EQ(otherOpens("/obj", O_RDONLY), 0);
    EXPECT_EQ(otherOpens("/obj", O_RDWR), EACCES);
    chmod(path("/obj").c_str(), 0600);
    EXPECT_EQ(otherOpens("/obj", O_RDONLY), EACCES);
}

TEST_F(PpsdPermission, OptionsAreNoWayAroundTheMode) {
    PpsFile(path("/obj"), kCreate).write("a::1\n");
    chmod(path("/obj").c_str(), 0600);
    EXPECT_EQ(otherOpens("/obj?wait", O_RDONLY), EACCES);
    EXPECT_EQ(otherOpens("/obj?delta", O_RDONLY), EACCES);
    EXPECT_EQ(otherOpens("/obj?server", kCreate), EACCES);
    EXPECT_EQ(asOther([&] { return chmod(path("/obj?wait").c_str(), 0666) == 0 ? 0 : errno; }),
              EPERM);
}

TEST_F(PpsdPermission, ModeOfAServedObjectHoldsForClients) {
    PpsFile server(path("/ipc?server"), kCreate, 0666);
    chmod(path("/ipc").c_str(), 0600);
    EXPECT_EQ(otherOpens("/ipc", O_RDWR), EACCES);
    chmod(path("/ipc").c_str(), 0666);
    EXPECT_EQ(otherOpens("/ipc", O_RDWR), 0);
}

TEST_F(PpsdPermission, OwnerOfAServedObjectMayBeChangedAndHolds) {
    PpsFile server(path("/ipc?server"), kCreate, 0600);
    ASSERT_EQ(chown(path("/ipc").c_str(), kOther, kOther), 0);
    struct stat status {};
    ASSERT_EQ(stat(path("/ipc").c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, kOther);
    EXPECT_EQ(status.st_gid, kOther);
    EXPECT_EQ(otherOpens("/ipc", O_RDWR), 0);
}

TEST_F(PpsdPermission, FolderModeSaysWhoMayCreateAndServe) {
    EXPECT_EQ(otherOpens("/theirs", kCreate), EACCES);
    EXPECT_EQ(otherOpens("/theirs?server", kCreate), EACCES);
    ASSERT_EQ(mkdir(path("/open").c_str(), 0777), 0);
    ASSERT_EQ(chmod(path("/open").c_str(), 0777), 0);
    EXPECT_EQ(otherOpens("/open/theirs", kCreate), 0);
    EXPECT_EQ(otherOpens("/open/served?server", kCreate), 0);
    struct stat status {};
    ASSERT_EQ(stat(path("/open/theirs").c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, kOther) << "the creator owns the object";
    EXPECT_EQ(status.st_gid, kOther);
}

TEST_F(PpsdPermission, OwnerOfAServedObjectIsItsServer) {
    ASSERT_EQ(chmod(path("").c_str(), 0777), 0);
    EXPECT_EQ(asOther([&] {
                  PpsFile server(path("/ipc?server"), kCreate, 0600);
                  struct stat status {};
                  const bool isOwner = stat(path("/ipc").c_str(), &status) == 0 &&
                                       status.st_uid == kOther && status.st_gid == kOther;
                  return isOwner && chmod(path("/ipc").c_str(), 0666) == 0 ? 0 : 1;
              }),
              0);
}

TEST_F(PpsdPermission, OnlyTheOwnerMayChangeTheModeAndOnlyRootTheOwner) {
    PpsFile(path("/obj"), kCreate);
    EXPECT_EQ(asOther([&] { return chmod(path("/obj").c_str(), 0666) == 0 ? 0 : errno; }), EPERM);
    ASSERT_EQ(chown(path("/obj").c_str(), kOther, kOther), 0);
    EXPECT_EQ(asOther([&] { return chmod(path("/obj").c_str(), 0600) == 0 ? 0 : errno; }), 0);
    EXPECT_EQ(asOther([&] { return chown(path("/obj").c_str(), 0, 0) == 0 ? 0 : errno; }), EPERM);
}

TEST_F(PpsdPermission, SetGroupIdOfAFolderIsInherited) {
    ASSERT_EQ(mkdir(path("/group").c_str(), 0755), 0);
    ASSERT_EQ(chown(path("/group").c_str(), 0, 4321), 0);
    ASSERT_EQ(chmod(path("/group").c_str(), 02775), 0);
    PpsFile(path("/group/obj"), kCreate);
    ASSERT_EQ(mkdir(path("/group/inner").c_str(), 0755), 0);
    struct stat status {};
    ASSERT_EQ(stat(path("/group/obj").c_str(), &status), 0);
    EXPECT_EQ(status.st_gid, 4321U);
    ASSERT_EQ(stat(path("/group/inner").c_str(), &status), 0);
    EXPECT_EQ(status.st_gid, 4321U);
    EXPECT_EQ(status.st_mode & 07777U, 02755U);
}

// Lets everybody open the device, as systems do that have a desktop, in what this process and its
// children see; false where that cannot be.
bool openFuseDeviceToAll(const std::string& scratchFile) {
    const auto isOpen = [] {
        return asOther([] { return PpsFile("/dev/fuse", O_RDWR).error(); }) == 0;
    };
    struct stat device {};
    return isOpen() ||
           (stat("/dev/fuse", &device) == 0 && unshare(CLONE_NEWNS) == 0 &&
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
            mknod(scratchFile.c_str(), S_IFCHR, device.st_rdev) == 0 &&
            chmod(scratchFile.c_str(), 0666) == 0 &&
            mount(scratchFile.c_str(), "/dev/fuse", nullptr, MS_BIND, nullptr) == 0 && isOpen());
}

TEST_F(PpsdPermission, OrdinaryUserServesAFolderOfTheirs) {
    ASSERT_EQ(m_ppsd.stop(), 0);
    if (!openFuseDeviceToAll(m_root.path("/fuse"))) {
        GTEST_SKIP() << "NOT TESTED: /dev/fuse is closed to ordinary users here";
    }
    const std::string home = m_root.path("/home");
    ASSERT_EQ(mkdir(home.c_str(), 0755), 0);
    ASSERT_EQ(chown(home.c_str(), kOther, kOther), 0);
    const std::string script =
        "export QUIL_ROOT=" + home + "; trap 'fusermount3 -u -q -z $QUIL_ROOT/pps' EXIT; " +
        builtProgram("ppsd") + " --daemon || exit 2; " +
        "echo a::1 > $QUIL_ROOT/pps/obj && chmod 640 $QUIL_ROOT/pps/obj || exit 3; " +
        "fusermount3 -u $QUIL_ROOT/pps || exit 4; " + "i=0; while ! " + builtProgram("ppsd") +
        " --daemon 2>/dev/null; do i=$((i+1)); test $i -lt 300 || exit 5; sleep 0.1; done; " +
        "test \"$(cat $QUIL_ROOT/pps/obj)\" = \"$(printf '@obj\\na::1')\" || exit 6; " +
        "test \"$(stat -c %a $QUIL_ROOT/pps/obj)\" = 640 || exit 7; " +
        "fusermount3 -u $QUIL_ROOT/pps || exit 8";
    EXPECT_EQ(asOther([&] { return WEXITSTATUS(std::system(script.c_str())); }), 0);
}

TEST_F(PpsdPermission, ReadingAndWritingRightIsNotEnoughToServeAStoredObject) {
    PpsFile(path("/obj"), kCreate).write("a::1\n");
    for (const mode_t mode : {0644U, 0666U}) {
        chmod(path("/obj").c_str(), mode);
        for (const int access : {O_RDONLY, O_WRONLY, O_RDWR, O_RDWR | O_CREAT}) {
            EXPECT_EQ(otherOpens("/obj?server", access), EACCES) << mode << " " << access;
        }
    }
    EXPECT_EQ(PpsFile(path("/obj"), O_RDONLY).read(), "@obj\na::1\n") << "nobody serves it";
}

TEST_F(PpsdPermission, OwnerAndRootServeAStoredObject) {
    PpsFile(path("/obj"), kCreate).write("a::1\n");
    ASSERT_EQ(chown(path("/obj").c_str(), kOther, kOther), 0);
    EXPECT_EQ(otherOpens("/obj?server", O_RDWR), 0);
    EXPECT_EQ(PpsFile(path("/obj?server"), O_RDWR).error(), 0);
}

TEST_F(PpsdPermission, ServerIsToldWhoOpened) {
    PpsFile server(path("/ipc?server"), kCreate);
    ASSERT_EQ(chmod(path("/ipc").c_str(), 0666), 0);
    const auto numberOf = [](const std::string& notice, const std::string& name) {
        const std::size_t at = notice.find("\n" + name + ":n:");
        return at == std::string::npos ? -1 : std::atoi(notice.c_str() + at + name.size() + 4);
    };
    // A client's own word for it is a message like any other.
    const int status = asOther([&] {
        const PpsFile client(path("/ipc"), O_RDWR);
        return client.error() + client.write("uid:n:0\n");
    });
    ASSERT_EQ(status, 0);
    const std::string notice = server.read();
    EXPECT_EQ(notice.substr(0, 6), "+@ipc.");
    EXPECT_EQ(numberOf(notice, "uid"), static_cast<int>(kOther));
    EXPECT_EQ(numberOf(notice, "gid"), static_cast<int>(kOther));
    EXPECT_GT(numberOf(notice, "pid"), 0);
    EXPECT_EQ(server.read()[0], '@');
}

TEST_F(PpsdPermission, ThreadThatOpensIsToldAsItsProcess) {
    PpsFile server(path("/ipc?server"), kCreate);
    std::thread([&] { EXPECT_EQ(PpsFile(path("/ipc"), O_RDWR).write("a::1\n"), 0); }).join();
    const std::string notice = server.read();
    EXPECT_NE(notice.find("\npid:n:" + std::to_string(getpid()) + "\n"), std::string::npos)
        << notice;
}

TEST_F(PpsdPermission, ListOfClientsIsForRootTheOwnerAndTheServersUser) {
    ASSERT_EQ(chmod(path("").c_str(), 0777), 0);
    constexpr uid_t kOwner = 65532;
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const pid_t child = startAs(kOther, [&] {
        const PpsFile server(path("/ipc?server"), kCreate);
        return write(ends[1], "x", 1) == 1 ? pause() : 1;
    });
    char byte = 0;
    ASSERT_EQ(read(ends[0], &byte, 1), 1);
    ASSERT_EQ(chown(path("/ipc").c_str(), kOwner, kOwner), 0);
    ASSERT_EQ(chmod(path("/ipc").c_str(), 0666), 0);
    const PpsFile client(path("/ipc"), O_RDWR);
    const auto listAs = [&](uid_t user) {
        return asOther(
            [&] {
                const PpsFile list(path("/ipc?clients"), O_RDONLY);
                const bool isWhole = list.read().find("\"uid\":0,") != std::string::npos;
                return list.error() != 0 ? list.error() : isWhole ? 0 : 1;
            },
            user);
    };
    EXPECT_EQ(listAs(kOwner), 0);
    EXPECT_EQ(listAs(kOther), 0) << "the server's user";
    EXPECT_EQ(listAs(0), 0);
    EXPECT_EQ(listAs(kThird), EACCES);
    EXPECT_EQ(PpsFile(path("/ipc?clients"), O_RDWR).error(), EACCES) << "not even root writes it";
    ASSERT_EQ(chmod(path("/ipc").c_str(), 0600), 0);
    EXPECT_EQ(listAs(kOther), EACCES) << "the mode holds too";
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_EQ(PpsFile(path("/ipc?clients"), O_RDONLY).error(), ENOENT);
}
