// A push sender as raw as they come: a TCP connection to a port of the device.

#pragma once

#include <string>
#include <string_view>

#include "tests/support/loopback.hpp"

class PushSender {
  public:
    // Connects to 127.0.0.1.
    explicit PushSender(int port);
    ~PushSender();
    PushSender(const PushSender&) = delete;
    PushSender& operator=(const PushSender&) = delete;

    bool isConnected() const { return m_socket >= 0; }
    // False when the connection broke.
    bool send(std::string_view bytes) const;
    // Says that nothing more will be sent, but goes on reading.
    void finishSending() const;
    void close();
    // Ends the connection with a reset.
    void reset();
    // All bytes until the device closes its end. "(still open)" when it does not in time, "(reset)"
    // after a reset.
    std::string readToEnd(double seconds = 20) const;

  private:
    int m_socket;
};

// A push: request line, "Content-Length", "Push-Message-ID", an empty line and the data.
std::string makePush(const std::string& id, const std::string& data);

// True for the 72 bytes of an acknowledgement with some date.
bool isAcknowledgement(const std::string& bytes);
