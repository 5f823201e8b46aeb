// What an application says to a push, back to the push's sender.

#pragma once

#include <string>

// The application's answer to a push: the acknowledgement and a close, or only a close. The
// application hears nothing back, also when the push id is unknown (which is logged). Main thread.
void quilAccept(const std::string& appId, const std::string& pushId, const std::string& clientId);
void quilRejectPush(const std::string& appId, const std::string& pushId,
                    const std::string& clientId);
