// What the agent's systemd unit says is done here by hand: the commands before the start, with /pps
// below the scratch root, and the mode mask.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "tests/integration/device.hpp"

namespace {

class UnitFile : public Device {
  protected:
    void SetUp() override {
        Device::SetUp();
        m_oldMask = umask(022);
    }
    void TearDown() override {
        umask(m_oldMask);
        Device::TearDown();
    }

    // The values of a key, in order.
    static std::vector<std::string> valuesOf(const std::string& key) {
        const std::string path =
            std::string(std::getenv("QUIL_SOURCE")) + "/packaging/systemd/quilagent.service.in";
        std::ifstream unit(path);
        std::vector<std::string> values;
        for (std::string line; std::getline(unit, line);) {
            if (line.starts_with(key + "=")) {
                values.push_back(line.substr(key.size() + 1));
            }
        }
        return values;
    }

    // Does what comes before the start; a failure counts unless the unit allows it. An ordinary
    // user cannot give the folder away, so leaves that out.
    void prepare() {
        for (std::string command : valuesOf("ExecStartPre")) {
            const std::size_t begin = command.find('/');
            const bool mayFail = command.substr(0, begin).find('-') != std::string::npos;
            command.erase(0, begin);
            const std::size_t folder = command.find("/pps/");
            ASSERT_NE(folder, std::string::npos) << command;
            command.insert(folder, m_root.path());
            if (geteuid() == 0 || command.find("install") == std::string::npos) {
                const int status = std::system((command + " 2>/dev/null").c_str());
                EXPECT_TRUE(mayFail || status == 0) << command;
            }
        }
    }

    bool startAsTheUnitDoes() {
        prepare();
        const std::vector<std::string> mask = valuesOf("UMask");
        if (!mask.empty()) {
            umask(static_cast<mode_t>(std::stoi(mask[0], nullptr, 8)));
        }
        const std::size_t before = agentLog().size();
        return m_agent.start({builtProgram("quilagent"), "-U",
                              geteuid() == 0 ? "44:44" : std::to_string(geteuid()), "-v", "-v"}) &&
               m_agent.waitForOutput("Entering quilAgentLoop...", before);
    }

    // As a shell's "<>" does while no agent serves.
    void makeObjectInTheWay() {
        close(open(ipc().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
        ASSERT_EQ(access(ipc().c_str(), F_OK), 0);
    }

    std::string ipc() const { return m_root.path("/pps/services/push/ipc"); }
    static mode_t modeOf(const std::string& path) {
        struct stat info {};
        EXPECT_EQ(stat(path.c_str(), &info), 0) << path;
        return info.st_mode & 07777;
    }

    mode_t m_oldMask = 0;
};

}  // namespace

TEST_F(UnitFile, ObjectInTheAgentsPlaceIsRemovedBeforeTheStart) {
    makeObjectInTheWay();
    ASSERT_TRUE(startAsTheUnitDoes());
    const auto client = connect();
    client->request("createSession", "s", kApp);
    EXPECT_EQ(client->next().msg, "onCreateSessionComplete");
}

TEST_F(UnitFile, ObjectThatAnotherAgentServesStays) {
    ASSERT_TRUE(startAsTheUnitDoes());
    const auto client = connect();
    prepare();
    client->request("createSession", "s", kApp);
    EXPECT_EQ(client->next().msg, "onCreateSessionComplete");
    EXPECT_EQ(connect()->isOpen(), true);
}

TEST_F(UnitFile, StartWithNothingInTheWayIsAsGood) {
    ASSERT_TRUE(startAsTheUnitDoes());
    EXPECT_TRUE(connect()->isOpen());
}

TEST_F(UnitFile, SavedSessionsBelongToTheAgentsUserAndGroupAlone) {
    ASSERT_TRUE(startAsTheUnitDoes());
    EXPECT_EQ(modeOf(m_root.path("/pps/services/push/quilagent")), 0660U);
    EXPECT_EQ(modeOf(ipc()), 0666U);
    EXPECT_EQ(modeOf(m_root.path("/pps/services/push")), 0755U);
}
