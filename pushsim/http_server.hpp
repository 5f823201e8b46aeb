// The HTTP side of the push data server: sockets and threads, one request per connection.

#pragma once

#include <httplib.h>

#include <cstdint>
#include <string>
#include <thread>

#include "pushsim/registration_service.hpp"
#include "pushsim/socket.hpp"

// The library parses requests and writes answers. This class stands between it and the sockets,
// because a device encodes nothing in its URLs (the library refuses a request line with a blank in
// it) and because a server that misbehaves has to hang, hang up or write nonsense.
class HttpServer : private httplib::Server {
  public:
    // Borrows the service.
    explicit HttpServer(RegistrationService* service);
    ~HttpServer() override;

    // Listens; port 0 lets the kernel choose. The port, or 0 with errno set.
    std::uint16_t bindTo(const std::string& address, std::uint16_t port);

    // Serves on threads of its own until stopServing. After bindTo, once.
    void startServing();

    // Ends what is under way, hanging connections too, and waits for the threads.
    void stopServing();

  private:
    bool process_and_close_socket(socket_t socket) override;
    // For the connection that this thread processes.
    static void answer(httplib::Response* response);

    RegistrationService* const m_service;
    Socket m_stop;  // an eventfd: readable from stopServing on
    std::thread m_thread;
};
