// Settings and device identity: the key/value pairs of "/etc/quilagent.conf", each with a built-in
// default, and four values of the device read from the platform's objects.

#pragma once

#include <map>
#include <memory>
#include <string>

#include "agent/support/locks.hpp"

class QuilConfigManager {
  public:
    // The one instance, built by the first call, which start-up makes before any other thread
    // exists; lives until the process ends. Null when it could not be built.
    static QuilConfigManager* getInstance();

    virtual ~QuilConfigManager();
    QuilConfigManager(const QuilConfigManager&) = delete;
    QuilConfigManager& operator=(const QuilConfigManager&) = delete;

    // The stored value; "" when the key is absent. The empty key has no value, and asking for it is
    // logged.
    std::string getValue(const std::string& key) const;
    // The stored value; the default when it is absent or empty.
    std::string getValueOr(const std::string& key, const std::string& defaultValue) const;
    // The stored value's leading decimal number (0 when it has none), the default when it is absent
    // or empty.
    int getIntValue(const std::string& key, int defaultValue) const;
    // Inserts or replaces. Without memory for it the key keeps what it had, which is logged.
    void setValue(const std::string& key, const std::string& value);

    std::string getName() const;
    std::string getVersion() const;
    std::string getGuid() const;
    std::string getTransport() const;
    std::string getProtocol() const;
    std::string getPrName() const;
    std::string getConnectionHandler() const;
    std::string getUser() const;
    // Valid as long as the instance lives.
    const char* getProxyHost() const;
    int getProxyPort() const;
    // Host on which pushes are awaited: the key "listen-address", else what getProxyHost gives.
    std::string getListenAddress() const;
    // Who may push: addresses and networks, "" for everybody.
    std::string getAllowedSenders() const;
    // Whether the key "rules" names a file of who may act for which application. True as well when
    // it could not be kept for want of memory: then its value is "".
    bool isRulesSet() const { return m_isRulesSet; }
    // Longest that one push may take to arrive, in seconds; 0 for no limit.
    int getPushTimeout() const;
    // Longest that one request to a push data server may take, in seconds; 0 for libcurl's own
    // limits.
    int getHttpTimeout() const;

    // Device values. The IMSI is read once, by the constructor: a SIM inserted later counts from
    // the next start on. The others are read on the first call, and again on later calls as long as
    // that failed. Any thread; one that reads holds up others that ask.
    std::string getImsi() const;
    std::string getDevicePin();
    std::string getOsVersion();
    std::string getDeviceModel();

    // The value of one attribute of an object as it stands there, or "". Every call leaves one
    // descriptor open, with a high number. Kept on purpose: each value is read successfully at most
    // once; it also means that an attribute that stays missing costs a descriptor per attempt.
    static std::string readPpsAttribute(const std::string& objectPath,
                                        const std::string& attribute);

  protected:
    // Reads everything. For getInstance, and for whoever tests one file after the other.
    QuilConfigManager();

  private:
    bool readConfigFile();
    // A number that is not within 0 and `highest` is replaced by the nearest that is.
    void boundValue(const std::string& key, int highest);

    std::map<std::string, std::string> m_values GUARDED_BY(m_mutex);
    mutable QuilMutex m_mutex;
    QuilMutex m_deviceMutex;  // held while a value is read
    std::string m_osVersion GUARDED_BY(m_deviceMutex);
    std::string m_devicePin GUARDED_BY(m_deviceMutex);
    std::string m_imsi;
    bool m_isRulesSet = false;
    std::string m_deviceModel GUARDED_BY(m_deviceMutex);
    std::unique_ptr<char[]> m_proxyHost;
};
