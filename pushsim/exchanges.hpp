// Which first steps were answered with a parameter, so that a second step can be recognised: its
// target is that of the first step, '&', and the first answer's whole body without the white space
// around it (of a long body a device repeats the first 8191 bytes).

#pragma once

#include <cstddef>
#include <map>
#include <mutex>
#include <string>

// Safe on any thread.
class Exchanges {
  public:
    void remember(const std::string& firstTarget, const std::string& body);

    // True when `secondTarget` is the second step of a remembered exchange, which is then
    // forgotten; *firstTarget is what the first step asked for.
    bool take(const std::string& secondTarget, std::string* firstTarget);

  private:
    std::mutex m_mutex;
    std::map<std::string, std::string> m_bodies;  // by first target; guarded by m_mutex
};
