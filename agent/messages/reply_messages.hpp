// The messages that end as a reply to a request, and the one that carries a registration to the
// push data server.

#pragma once

#include <climits>
#include <string>

#include "agent/messages/base_message.hpp"
#include "agent/support/channel.hpp"

// What a deregistration remembers of the moment when it was asked for.
struct DeregistrationOrigin {
    // Channels that the application had asked for by then (QuilSession::getChannelRequests); as
    // many as there can be where nobody counted.
    int channelRequests = INT_MAX;
    bool isSimChange = false;  // a changed SIM began it
};

// Answer to "createSession".
class QuilCreateSessionCompleteMessage : public QuilBaseMessage {
  public:
    QuilCreateSessionCompleteMessage(const std::string& appId, const std::string& id,
                                     const std::string& clientId);
    bool hasData() const override { return false; }
};

// Answer to "createChannel". A success carries the token, which is the device PIN.
class QuilCreateChannelCompleteMessage : public QuilBaseMessage {
  public:
    QuilCreateChannelCompleteMessage(const std::string& appId, const std::string& id,
                                     const std::string& clientId);
    bool addData(pps_encoder_t* encoder) const override;

    const std::string& getToken() const { return m_token; }
    void setToken(const std::string& token) { m_token = token; }

  private:
    std::string m_token;
};

// Answer to "destroyChannel", and under another callback name the news of a changed SIM.
class QuilDestroyChannelCompleteMessage : public QuilBaseMessage {
  public:
    QuilDestroyChannelCompleteMessage(const std::string& appId, const std::string& id,
                                      const std::string& clientId);
    bool hasData() const override { return false; }

    const DeregistrationOrigin& getOrigin() const { return m_origin; }
    void setOrigin(const DeregistrationOrigin& origin) { m_origin = origin; }

  private:
    DeregistrationOrigin m_origin;
};

// Answer to "queryChannel". Never queued, so it has no number to be dispatched by.
class QuilQueryChannelCompleteMessage : public QuilBaseMessage {
  public:
    QuilQueryChannelCompleteMessage(const std::string& appId, const std::string& id,
                                    const std::string& clientId);
    bool addData(pps_encoder_t* encoder) const override;

    void setChannel(const QuilChannel& channel) { m_channel = channel; }

  private:
    QuilChannel m_channel;
};

// Answer to "registerToLaunch" and "unregisterFromLaunch"; has no callback name.
class QuilResponseMessage : public QuilBaseMessage {
  public:
    QuilResponseMessage(const std::string& appId, const std::string& id,
                        const std::string& clientId);
    bool hasData() const override { return false; }
};

// A channel to be registered (type 7) or deregistered (type 8) with the push data server.
class QuilServerRegMessage : public QuilBaseMessage {
  public:
    QuilServerRegMessage(const std::string& appId, const std::string& id,
                         const std::string& clientId, const std::string& ppgUrl);
    // The result code is for the handler, never for a reply.
    bool hasError() const override { return false; }

    const std::string& getPpgUrl() const { return getArgument(); }
    bool isRegister() const { return m_isRegister; }
    void setRegister(bool isRegister) { m_isRegister = isRegister; }

    // Of a deregistration.
    const DeregistrationOrigin& getOrigin() const { return m_origin; }
    void setOrigin(const DeregistrationOrigin& origin) { m_origin = origin; }

  private:
    DeregistrationOrigin m_origin;
    bool m_isRegister = true;
};
