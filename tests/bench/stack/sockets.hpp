// Sockets and object files as the programs of the stack benchmark use them. What fails ends the
// program.

#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace bench {

// A new connection to a port of 127.0.0.1, from `source`, an address of 127.0.0.0/8.
int connectFrom(const std::string& source, std::uint16_t port);

void sendAll(int socket, std::string_view bytes);

// Reads exactly as many bytes.
void receiveAll(int socket, std::span<char> bytes);

// Waits until an object file has something, as an application does, and reads it.
std::string_view waitAndRead(int file, std::span<char> buffer);

// One write, which is one message.
void writeMessage(int file, std::string_view text);

// What stands between `before` and the end of its line; empty where there is no `before`.
std::string_view restOfLine(std::string_view text, std::string_view before);

}  // namespace bench
