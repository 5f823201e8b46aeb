// The HTTP side of the push data server: sockets and threads, one request per connection.

#pragma once

#include <cstdint>
#include <string>

#include "pushsim/registration_service.hpp"
#include "pushsim/socket.hpp"

struct MHD_Connection;
struct MHD_Daemon;

// The library parses requests and writes answers. Targets are taken as they came, since a device
// encodes nothing in its URLs.
class HttpServer {
  public:
    // Borrows the service.
    explicit HttpServer(RegistrationService* service);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    // Listens; port 0 lets the kernel choose. The port, or 0 with the reason in *error.
    std::uint16_t bindTo(const std::string& address, std::uint16_t port, std::string* error);

    // Serves on threads of its own until stopServing. After bindTo, once. False when the library
    // cannot.
    bool startServing();

    // Ends what is under way, hanging connections too, and waits for the threads.
    void stopServing();

    // Answers the request for that target, or does what its answer is to do instead. False ends the
    // connection. On the thread of the connection.
    bool serve(MHD_Connection* connection, const std::string& target, bool isGet);

  private:
    RegistrationService* const m_service;
    Socket m_listener;  // the library's once it serves
    Socket m_stop;      // an eventfd: readable from stopServing on
    MHD_Daemon* m_daemon = nullptr;
};
