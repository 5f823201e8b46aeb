// Each step needs the one before; the order is what people see in the log. What fails ends the
// start with a line that says why, want of memory included.

#include "agent/process/start_up.hpp"

#include <curl/curl.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>

#include "agent/configuration/config_manager.hpp"
#include "agent/process/credentials.hpp"
#include "agent/process/event_loop.hpp"
#include "agent/registration/http.hpp"
#include "agent/requests/permissions.hpp"
#include "agent/sessions/saved_sessions.hpp"
#include "agent/sessions/session_manager.hpp"
#include "agent/support/log.hpp"

namespace {

struct Options {
    const char* credentials = nullptr;  // of -U
};

[[noreturn]] void printUsageAndExit() {
    std::fputs(
        "Usage: quilagent [options] [&]\n"
        "where [options] can be\n"
        "  -U credentials\n"
        "  -v         debug mode level 2..6\n",
        stderr);
    std::exit(EXIT_FAILURE);
}

// A descriptor 0, 1 or 2 that is closed would be given to the next file, and what is meant for
// standard output would go there.
void openStandardDescriptors() {
    for (int descriptor = 0; descriptor <= 2; ++descriptor) {
        if (fcntl(descriptor, F_GETFD) == -1 && open("/dev/null", O_RDWR) == -1) {
            std::perror("quilagent: /dev/null");
            std::exit(EXIT_FAILURE);
        }
    }
}

// Each push that waits for its answer holds a descriptor.
void raiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

Options parseOptions(int argc, char** argv) {
    Options options;
    int raises = 0;
    opterr = 0;  // the usage text says it
    for (int option = getopt(argc, argv, "U:v"); option != -1; option = getopt(argc, argv, "U:v")) {
        if (option == 'U') {
            options.credentials = optarg;
            QUIL_LOG(LOG_LEVEL_DEBUG, "User/group spec [%s]", optarg);
        } else if (option == 'v') {
            ++raises;
        } else {
            printUsageAndExit();
        }
    }
    raiseVerbosity(raises);
    return options;
}

void dropCredentials(const QuilConfigManager& config, const Options& options) {
    const std::string spec =
        options.credentials != nullptr ? options.credentials : config.getUser();
    if (setCredentials(spec.c_str()) == -1) {
        QUIL_LOG(LOG_LEVEL_ERROR,
                 "Failed to set credentials: Invalid user/group spec[%s] errno[%d] error[%s]",
                 spec.c_str(), errno, strerror(errno));
        std::exit(EXIT_FAILURE);
    }
}

void logDeviceIdentity(QuilConfigManager& config) {
    const std::string pin = config.getDevicePin();
    const std::string osVersion = config.getOsVersion();
    const std::string model = config.getDeviceModel();
    const std::string imsi = config.getImsi();
    QUIL_LOG(LOG_LEVEL_DEBUG, "Device PIN [%s] OS Version [%s] Device Model [%s] IMSI[%s]",
             pin.c_str(), osVersion.c_str(), model.c_str(), imsi.c_str());
}

int startAgent(int argc, char** argv) {
    openStandardDescriptors();
    bufferLogEcho();
    std::signal(SIGPIPE, SIG_IGN);  // a peer that is gone shows as an error of the call
    raiseDescriptorLimit();
    curl_global_init(CURL_GLOBAL_DEFAULT);  // before there are threads

    const Options options = parseOptions(argc, argv);

    QuilConfigManager* config = QuilConfigManager::getInstance();
    if (config == nullptr) {
        QUIL_LOG(LOG_LEVEL_ERROR, "Init Configuration Manager failed.");
        return EXIT_FAILURE;
    }
    QUIL_LOG(LOG_LEVEL_INFO, "Initialize Configuration Manager - done.");
    QUIL_LOG(LOG_LEVEL_DEBUG, "%s %s", config->getName().c_str(), config->getVersion().c_str());

    // As root, for whom alone the rules may be readable.
    if (QuilPermissions::getInstance() == nullptr) {
        QUIL_LOG(LOG_LEVEL_ERROR, "Init Permissions failed.");
        return EXIT_FAILURE;
    }

    dropCredentials(*config, options);

    QuilDataManager* dataManager = QuilDataManager::getInstance();
    if (dataManager == nullptr) {
        QUIL_LOG(LOG_LEVEL_ERROR, "Init Data Manager failed.");
        return EXIT_FAILURE;
    }
    logDeviceIdentity(*config);

    if (QuilSessionManager::getInstance() == nullptr) {
        return EXIT_FAILURE;
    }
    QUIL_LOG(LOG_LEVEL_INFO, "Initialize Session Manager - done");

    httpSetProxy(config->getProxyHost(), config->getProxyPort());
    httpSetTimeout(config->getHttpTimeout());

    QUIL_LOG(LOG_LEVEL_INFO, "Data Manager: Load the saved session...");
    dataManager->load();
    QUIL_LOG(LOG_LEVEL_INFO, "Data Manager: Load the saved session done.");

    quilAgentInit();
    QUIL_LOG(LOG_LEVEL_INFO, "Initialize QUIL Agent - done");

    QUIL_LOG(LOG_LEVEL_INFO, "Start %s...", config->getName().c_str());
    quilAgentLoop();
    return EXIT_SUCCESS;
}

}  // namespace

int runAgent(int argc, char** argv) {
    try {
        return startAgent(argc, argv);
    } catch (const std::exception& thrown) {
        QUIL_LOG(LOG_LEVEL_ERROR, "The agent gives up: %s", thrown.what());
    } catch (...) {
        QUIL_LOG(LOG_LEVEL_ERROR, "The agent gives up: unknown exception");
    }
    return EXIT_FAILURE;
}
