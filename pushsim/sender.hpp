// One push on one connection: connect, write, and, when asked, wait for the device's answer.

#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "pushsim/acknowledgement.hpp"

// The exit statuses of `pushsim send`.
enum class Outcome {
    Accepted = 0,     // the acknowledgement came, right in every byte
    Sent = 0,         // nobody waited
    Rejected = 1,     // closed without a byte
    Broken = 3,       // could not connect, or the connection broke
    NotAnswered = 4,  // not a byte and no end in time
    WrongAnswer = 5,  // bytes that are not the acknowledgement
};

struct SendOptions {
    std::string host = "127.0.0.1";
    std::uint16_t port = 0;
    bool wait = false;
    std::chrono::milliseconds timeout{30000};  // to connect, to write, and again for the answer
    std::size_t pieceBytes = 0;                // 0 is all at once
    std::chrono::milliseconds pause{0};        // between two pieces
    std::optional<std::size_t> truncateAt;     // stop after so many bytes
    bool reset = false;                        // end with RST, whatever has arrived
};

struct SendResult {
    Outcome outcome = Outcome::Broken;
    std::string word;    // "accepted", "sent", "rejected", "broken", "not answered", ...
    std::string detail;  // why, for a person; empty when there is nothing to add
    std::size_t sentBytes = 0;
    std::string answer;  // every byte that came back
    AcknowledgementCheck acknowledgement;
    std::chrono::milliseconds took{0};
};

// Sends `push` as it stands. Without `wait` the sender's end is closed together with the last byte,
// in order, so that nothing is lost and the device sees at once that nobody waits. Never throws;
// blocks for at most three times the time-out plus the pauses.
SendResult sendPush(const SendOptions& options, const std::string& push);
