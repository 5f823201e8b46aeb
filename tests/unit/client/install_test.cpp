// The installed library is complete: a program outside this repository finds it, with CMake and
// with pkg-config, and builds against nothing else.

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace {

constexpr const char* kProgram = R"(#include <quilclient/push_client.hpp>
#include <quilclient/request.hpp>
int main() {
    quilclient::Config config;
    config.appId = "a";
    config.ppgUrl = "http://x";
    config.open = [] { return -1; };
    quilclient::PushClient client(config, {});
    client.stop();
    return client.run().ok() ? 0 : 1;
}
)";

constexpr const char* kProject = R"(cmake_minimum_required(VERSION 3.25)
project(app CXX)
find_package(quilclient 5 REQUIRED)
add_executable(app app.cpp)
target_link_libraries(app quilclient::quilclient)
)";

class InstalledLibrary : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string folder = std::filesystem::temp_directory_path() / "client_install_XXXXXX";
        ASSERT_NE(mkdtemp(folder.data()), nullptr);
        m_folder = folder;
        std::ofstream(m_folder / "app.cpp") << kProgram;
        std::ofstream(m_folder / "CMakeLists.txt") << kProject;
        const std::filesystem::path build =
            std::filesystem::path(std::getenv("QUIL_BIN")).parent_path();
        run("cmake --install " + build.string() + " --component client --prefix " + prefix());
    }
    void TearDown() override { std::filesystem::remove_all(m_folder); }

    std::string prefix() const { return (m_folder / "usr").string(); }

    void run(const std::string& command) {
        const std::string logged = "cd " + m_folder.string() + " && (" + command + ") > log 2>&1";
        const int status = std::system(logged.c_str());
        std::ifstream log(m_folder / "log");
        ASSERT_EQ(status, 0) << command << "\n" << log.rdbuf();
    }

    std::filesystem::path m_folder;
};

}  // namespace

TEST_F(InstalledLibrary, IsFoundByCMake) {
    run("cmake -S . -B build -DCMAKE_PREFIX_PATH=" + prefix() + " && cmake --build build");
    run("build/app");
}

TEST_F(InstalledLibrary, IsFoundByPkgConfig) {
    run("export PKG_CONFIG_PATH=$(dirname $(find " + prefix() +
        " -name quilclient.pc)) && c++ -std=c++20 -o app app.cpp $(pkg-config "
        "--define-variable=prefix=" +
        prefix() + " --cflags --libs quilclient) && ./app");
}
