// Nothing here is ever fatal: a missing file, key or object yields a default or an empty string,
// and a line in the log says so.

#include "agent/configuration/config_manager.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "agent/support/high_descriptor.hpp"
#include "agent/support/log.hpp"
#include "platform/pps/ppsparse.hpp"
#include "platform/root/root.hpp"

namespace {

constexpr const char* kConfigFile = "/etc/quilagent.conf";
constexpr const char* kRulesKey = "rules";
constexpr const char* kSimObject = "/pps/services/cellular/uicc/card0/status_private";
constexpr const char* kDeviceInfoObject = "/pps/system/nvram/deviceinfo";
constexpr const char* kDevicePropertiesObject = "/pps/services/deviceproperties";

constexpr std::size_t kConfigLineBytes = 256;      // 255 characters and a NUL
constexpr std::size_t kObjectBufferBytes = 15360;  // likewise, 15359 and a NUL
constexpr const char* kDefaultProxyHost = "127.0.0.1";
constexpr int kDefaultProxyPort = 287;
constexpr int kDefaultPushTimeoutSeconds = 30;
constexpr int kDefaultHttpTimeoutSeconds = 0;
constexpr int kHighestPort = 65535;
// libcurl counts time in milliseconds and refuses what an int of them cannot hold.
constexpr int kLongestTimeoutSeconds = INT_MAX / 1000;

// Parses from *cursor on. True when `attribute` was found; else the cursor stands at the incomplete
// last line, or at the end.
bool findAttribute(const char** cursor, const char* end, const std::string& attribute,
                   std::string* value) {
    for (;;) {
        pps_line_t line;
        const pps_result_t result = ppsparse(cursor, end, &line);
        if (result == PPS_END) {
            return false;
        }
        const bool isAttribute = result == PPS_ATTRIBUTE || result == PPS_ATTRIBUTE_CODED;
        if (isAttribute && line.name == attribute) {
            *value = line.value;
            return true;
        }
    }
}

// Reads an open object until the attribute turns up. "" when it does not.
std::string findInObject(int descriptor, const char* path, const std::string& attribute) {
    QUIL_LOG(LOG_LEVEL_INFO, "looking for [%s]", attribute.c_str());
    char buffer[kObjectBufferBytes];
    std::size_t tail = 0;  // bytes at the start of the buffer that no line feed has ended yet
    for (;;) {
        flushLogEcho();
        const ssize_t count = read(descriptor, buffer + tail, sizeof buffer - 1 - tail);
        QUIL_LOG(LOG_LEVEL_INFO, "Read [%s] returns [%d] bytes", path, static_cast<int>(count));
        if (count <= 0) {
            QUIL_LOG(LOG_LEVEL_INFO, "Read [%s] errno[%d] error[%s]", path, errno, strerror(errno));
            return "";
        }
        const char* cursor = buffer;
        const char* end = buffer + tail + static_cast<std::size_t>(count);
        std::string value;
        if (findAttribute(&cursor, end, attribute, &value)) {
            return value;
        }
        tail = static_cast<std::size_t>(end - cursor);
        std::memmove(buffer, cursor, tail);
    }
}

}  // namespace

QuilConfigManager* QuilConfigManager::getInstance() {
    static QuilConfigManager* const instance = []() -> QuilConfigManager* {
        try {
            return new QuilConfigManager();
        } catch (...) {
            return nullptr;
        }
    }();
    return instance;
}

QuilConfigManager::QuilConfigManager() {
    readConfigFile();
    boundValue("proxy-port", kHighestPort);
    boundValue("http-timeout", kLongestTimeoutSeconds);
    boundValue("push-timeout", kLongestTimeoutSeconds);
    const std::string proxyHost = getValueOr("proxy-host", kDefaultProxyHost);
    m_proxyHost = std::make_unique<char[]>(proxyHost.size() + 1);
    std::memcpy(m_proxyHost.get(), proxyHost.c_str(), proxyHost.size() + 1);
    m_imsi = readPpsAttribute(kSimObject, "imsi");
    QUIL_LOG(LOG_LEVEL_INFO, "QuilConfigManager::QuilConfigManager: m_proxyHost[%s] imsi[%s]",
             m_proxyHost.get(), m_imsi.c_str());
}

QuilConfigManager::~QuilConfigManager() = default;

void QuilConfigManager::boundValue(const std::string& key, int highest) {
    const int value = getIntValue(key, 0);
    const int bounded = std::clamp(value, 0, highest);
    if (value != bounded) {
        QUIL_LOG(LOG_LEVEL_WARNING, "QuilConfigManager: %s %s is out of range, %d is used",
                 key.c_str(), getValue(key).c_str(), bounded);
        setValue(key, std::to_string(bounded));
    }
}

bool QuilConfigManager::readConfigFile() {
    std::ifstream file(platformPath(kConfigFile));
    if (!file) {
        QUIL_LOG(LOG_LEVEL_INFO, "Cannot open input file %s.", kConfigFile);
        return false;
    }
    while (file.good()) {
        // A longer line fills the buffer and fails the stream: its first 255 characters count, and
        // reading ends there. Kept on purpose: settings behind a damaged line are not guessed at.
        char buffer[kConfigLineBytes] = {};
        file.getline(buffer, sizeof buffer);
        const std::string line(buffer);
        const std::size_t space = line.find(' ');
        if (space == std::string::npos) {
            continue;
        }
        const std::string name = line.substr(0, space);
        const std::string value = line.substr(space + 1);
        QUIL_LOG(LOG_LEVEL_INFO, "readConfigFile: name[%s] value[%s]", name.c_str(), value.c_str());
        if (name == kRulesKey) {
            m_isRulesSet = !value.empty();
        }
        setValue(name, value);
    }
    return true;
}

std::string QuilConfigManager::getValue(const std::string& key) const {
    if (key.empty()) {
        QUIL_LOG(LOG_LEVEL_WARNING,
                 "QuilConfigManager::getValue -- attempt to get value for EMPTY attribute name.");
        return "";
    }
    std::string result;
    const QuilLock lock(m_mutex);
    try {
        const auto found = m_values.find(key);
        if (found != m_values.end()) {
            result = found->second;
        }
    } catch (...) {
        QUIL_LOG(LOG_LEVEL_WARNING,
                 "QuilConfigManager::getValue: exception occurred when get value for key [%s]",
                 key.c_str());
        result.clear();
    }
    return result;
}

std::string QuilConfigManager::getValueOr(const std::string& key,
                                          const std::string& defaultValue) const {
    const std::string value = getValue(key);
    return value.empty() ? defaultValue : value;
}

int QuilConfigManager::getIntValue(const std::string& key, int defaultValue) const {
    const std::string value = getValue(key);
    if (value.empty()) {
        return defaultValue;
    }
    const long number = std::strtol(value.c_str(), nullptr, 10);
    return number > INT_MAX ? INT_MAX : number < INT_MIN ? INT_MIN : static_cast<int>(number);
}

void QuilConfigManager::setValue(const std::string& key, const std::string& value) {
    const QuilLock lock(m_mutex);
    try {
        m_values.insert_or_assign(key, value);
    } catch (...) {
        QUIL_LOG(LOG_LEVEL_WARNING,
                 "QuilConfigManager::setValue: exception occurred when set value for key [%s]",
                 key.c_str());
    }
}

std::string QuilConfigManager::getName() const {
    return getValueOr("name", "Push Agent");
}

std::string QuilConfigManager::getVersion() const {
    return getValueOr("version", "5.0.0");
}

std::string QuilConfigManager::getGuid() const {
    return getValueOr("guid", "");
}

std::string QuilConfigManager::getTransport() const {
    return getValueOr("transport", "KVTP");
}

std::string QuilConfigManager::getProtocol() const {
    return getValueOr("protocol", "HTTP");
}

std::string QuilConfigManager::getPrName() const {
    return getValueOr("prname", "personal");
}

std::string QuilConfigManager::getConnectionHandler() const {
    return getValueOr("connection-handler", "defaulthandler");
}

std::string QuilConfigManager::getUser() const {
    return getValueOr("user", "44:44,0,320");
}

const char* QuilConfigManager::getProxyHost() const {
    QUIL_LOG(LOG_LEVEL_DEBUG, "getProxyHost: [%s]", m_proxyHost.get());
    return m_proxyHost.get();
}

int QuilConfigManager::getProxyPort() const {
    return getIntValue("proxy-port", kDefaultProxyPort);
}

std::string QuilConfigManager::getListenAddress() const {
    return getValueOr("listen-address", getProxyHost());
}

std::string QuilConfigManager::getAllowedSenders() const {
    return getValueOr("allowed-senders", "");
}

int QuilConfigManager::getPushTimeout() const {
    return getIntValue("push-timeout", kDefaultPushTimeoutSeconds);
}

int QuilConfigManager::getHttpTimeout() const {
    return getIntValue("http-timeout", kDefaultHttpTimeoutSeconds);
}

std::string QuilConfigManager::getImsi() const {
    return m_imsi;
}

std::string QuilConfigManager::getDevicePin() {
    const QuilLock lock(m_deviceMutex);
    if (m_devicePin.empty()) {
        const std::string pin = readPpsAttribute(kDeviceInfoObject, "PIN");
        m_devicePin = pin.starts_with("0x") ? pin.substr(2) : pin;
    }
    return m_devicePin;
}

std::string QuilConfigManager::getOsVersion() {
    const QuilLock lock(m_deviceMutex);
    if (m_osVersion.empty()) {
        m_osVersion = readPpsAttribute(kDevicePropertiesObject, "scmbundle");
    }
    return m_osVersion;
}

std::string QuilConfigManager::getDeviceModel() {
    const QuilLock lock(m_deviceMutex);
    if (m_deviceModel.empty()) {
        m_deviceModel = readPpsAttribute(kDeviceInfoObject, "HardwareID");
    }
    return m_deviceModel;
}

std::string QuilConfigManager::readPpsAttribute(const std::string& objectPath,
                                                const std::string& attribute) {
    const char* path = objectPath.c_str();
    flushLogEcho();  // the object service may be slow to answer
    const int descriptor = open(platformPath(objectPath).c_str(), O_RDONLY | O_CLOEXEC);
    QUIL_LOG(LOG_LEVEL_INFO, "Open [%s] returns fd[%d]", path, descriptor);
    if (descriptor == -1) {
        QUIL_LOG(LOG_LEVEL_INFO, "Open [%s] errno[%d] error[%s]", path, errno, strerror(errno));
        return "";
    }
    std::string value = findInObject(descriptor, path, attribute);
    moveToHighDescriptor(descriptor);
    return value;
}
