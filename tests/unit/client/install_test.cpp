// The installed library is complete, static and shared: a program outside this repository finds it,
// with CMake and with pkg-config, and builds against nothing else. The shared one exports the
// interface that its headers show, and nothing more.

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

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
    const quilclient::Reply reply = quilclient::sendRequest(
        {quilclient::Verb::DestroyChannel, "a", ""}, std::chrono::milliseconds(1), config.open);
    return client.run().ok() && reply.result.code < 0 &&
                   quilclient::explain(quilclient::knownCodes().front().code).meaning != ""
               ? 0
               : 1;
}
)";

constexpr const char* kProject = R"(cmake_minimum_required(VERSION 3.25)
project(app CXX)
find_package(quilclient 5 REQUIRED)
add_executable(app_static app.cpp)
target_link_libraries(app_static quilclient::quilclient)
add_executable(app_shared app.cpp)
target_link_libraries(app_shared quilclient::quilclient_shared)
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

    // Runs a command line of the shell in the scratch folder; what it printed.
    std::string run(const std::string& command) {
        const std::string logged = "cd " + m_folder.string() + " && (" + command + ") > log 2>&1";
        const int status = std::system(logged.c_str());
        std::ifstream log(m_folder / "log");
        std::string output{std::istreambuf_iterator<char>(log), {}};
        EXPECT_EQ(status, 0) << command << "\n" << output;
        return output;
    }

    // Builds the program as the documents say, with options of the compiler and of pkg-config.
    void buildWithPkgConfig(const std::string& compilerOptions, const std::string& options) {
        run("export PKG_CONFIG_PATH=$(dirname $(find " + prefix() +
            " -name quilclient.pc)) && c++ -std=c++20 " + compilerOptions +
            " -o app app.cpp $(pkg-config " + options + " --cflags --libs quilclient)");
    }

    // Where the shared library is, as installed.
    std::string libraryFolder() {
        return "$(dirname $(find " + prefix() + " -name libquilclient.so.1))";
    }
    std::string neededLibraries(const std::string& program) {
        return run("readelf -d " + program + " | grep NEEDED");
    }

    std::filesystem::path m_folder;
};

}  // namespace

TEST_F(InstalledLibrary, IsFoundByCMakeStaticAndShared) {
    run("cmake -S . -B build -DCMAKE_PREFIX_PATH=" + prefix() + " && cmake --build build");
    run("build/app_static");
    EXPECT_EQ(neededLibraries("build/app_static").find("quilclient"), std::string::npos);
    run("build/app_shared");
    EXPECT_NE(neededLibraries("build/app_shared").find("[libquilclient.so.1]"), std::string::npos);
}

TEST_F(InstalledLibrary, IsFoundByPkgConfigWhichLinksTheSharedOne) {
    buildWithPkgConfig("", "");
    EXPECT_NE(neededLibraries("app").find("[libquilclient.so.1]"), std::string::npos);
    run("LD_LIBRARY_PATH=" + libraryFolder() + " ./app");
}

TEST_F(InstalledLibrary, IsLinkedStaticallyWhereThatIsAskedFor) {
    buildWithPkgConfig("-static", "--static");
    run("rm -r usr && ./app");
}

TEST_F(InstalledLibrary, SharedOneExportsTheInterfaceAlone) {
    std::istringstream symbols(run("nm -D --defined-only -C " + libraryFolder() +
                                   "/libquilclient.so.1 | cut -d ' ' -f 2-"));
    int count = 0;
    for (std::string line; std::getline(symbols, line); ++count) {
        const bool isInterface = line.starts_with("T quilclient::PushClient::") ||
                                 line.starts_with("T quilclient::sendRequest(") ||
                                 line.starts_with("T quilclient::knownCodes(") ||
                                 line.starts_with("T quilclient::explain(") ||
                                 line.starts_with("T quilclient::resultOf(") ||
                                 line == "A QUILCLIENT_1";
        EXPECT_TRUE(isInterface && line.find("Impl") == std::string::npos) << line;
    }
    EXPECT_GE(count, 15);
}

// A program that was built against this library does not start with one of another soname.
TEST_F(InstalledLibrary, SharedOneHasItsSonameAndNeedsNothingOfTheAgents) {
    const std::string dynamic = run("readelf -d " + libraryFolder() + "/libquilclient.so.1");
    EXPECT_NE(dynamic.find("soname: [libquilclient.so.1]"), std::string::npos) << dynamic;
    for (const char* foreign : {"curl", "fuse", "CLI"}) {
        EXPECT_EQ(dynamic.find(foreign), std::string::npos) << dynamic;
    }
}
