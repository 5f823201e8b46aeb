// A device decides by the state of the connection whether its sender waits: an end that is still
// open after the last byte waits, one that is closed does not. So without `wait` the end of the
// stream has to be there together with the last byte. MSG_MORE holds that byte back until
// shutdown(2) sends it and the end in one segment.

#include "pushsim/sender.hpp"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <thread>

#include "pushsim/socket.hpp"

namespace {

constexpr std::size_t kLongestAnswerBytes = 4096;

SendResult& finish(SendResult& result, Outcome outcome, const char* word,
                   const std::string& detail = "") {
    result.outcome = outcome;
    result.word = word;
    result.detail = detail;
    return result;
}

SendResult& broken(SendResult& result, const std::string& what, int error) {
    return finish(result, Outcome::Broken, "broken", what + ": " + std::strerror(error));
}

// 0, or the errno of the failure.
int writePiece(int socket, std::string_view piece, int flags, Clock::time_point deadline,
               std::size_t* sent) {
    while (!piece.empty()) {
        const ssize_t count = send(socket, piece.data(), piece.size(), flags | MSG_NOSIGNAL);
        if (count >= 0) {
            piece.remove_prefix(static_cast<std::size_t>(count));
            *sent += static_cast<std::size_t>(count);
        } else if (errno == EAGAIN) {
            if (waitFor(socket, POLLOUT, deadline) == Ready::TimedOut) {
                return ETIMEDOUT;
            }
        } else if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

int writePush(int socket, const SendOptions& options, std::string_view push, std::size_t* sent) {
    const std::size_t pieceBytes = options.pieceBytes == 0 ? push.size() : options.pieceBytes;
    const bool closesAfter = !options.wait && !options.reset;
    while (!push.empty()) {
        const std::string_view piece = push.substr(0, pieceBytes);
        push.remove_prefix(piece.size());
        const int flags = push.empty() && closesAfter ? MSG_MORE : 0;
        const int error = writePiece(socket, piece, flags, Clock::now() + options.timeout, sent);
        if (error != 0) {
            return error;
        }
        if (!push.empty()) {
            std::this_thread::sleep_for(options.pause);
        }
    }
    return 0;
}

// How reading the answer ended.
enum class End { Closed, TooLong, TimedOut, Failed };

End readAnswer(int socket, Clock::time_point deadline, std::string* answer, int* error) {
    std::array<char, kLongestAnswerBytes> buffer{};
    while (answer->size() <= kLongestAnswerBytes) {
        if (waitFor(socket, POLLIN, deadline) == Ready::TimedOut) {
            return End::TimedOut;
        }
        const ssize_t count = recv(socket, buffer.data(), buffer.size(), 0);
        if (count == 0) {
            return End::Closed;
        }
        if (count > 0) {
            answer->append(buffer.data(), static_cast<std::size_t>(count));
        } else if (errno != EINTR && errno != EAGAIN) {
            *error = errno;
            return End::Failed;
        }
    }
    return End::TooLong;
}

void judgeAnswer(End end, int error, SendResult* result) {
    if (result->answer.empty()) {
        if (end == End::Closed) {
            finish(*result, Outcome::Rejected, "rejected", "closed without a byte");
        } else if (end == End::TimedOut) {
            finish(*result, Outcome::NotAnswered, "not answered", "neither a byte nor the end");
        } else {
            broken(*result, "no answer", error);
        }
        return;
    }
    result->acknowledgement = checkAcknowledgement(result->answer);
    if (!result->acknowledgement.isValid()) {
        if (end == End::Failed) {
            broken(*result, "in the middle of an answer", error);
        } else {
            finish(*result, Outcome::WrongAnswer, "wrong answer", result->acknowledgement.fault);
        }
        return;
    }
    const bool open = end == End::TimedOut;
    finish(*result, Outcome::Accepted, "accepted",
           open ? "the connection was not closed behind the acknowledgement" : "");
}

// Makes the close that follows a RST.
int armReset(int socket) {
    const linger now{1, 0};
    return setsockopt(socket, SOL_SOCKET, SO_LINGER, &now, sizeof now) == 0 ? 0 : errno;
}

void exchange(const SendOptions& options, std::string_view push, SendResult* result) {
    std::string why;
    Socket socket = connectTo(options.host, options.port, Clock::now() + options.timeout, &why);
    if (!socket.isOpen()) {
        finish(*result, Outcome::Broken, "broken",
               "cannot connect to " + options.host + " port " + std::to_string(options.port) +
                   ": " + why);
        return;
    }
    int error = writePush(socket.get(), options, push, &result->sentBytes);
    if (error == 0 && options.reset) {
        error = armReset(socket.get());
    } else if (error == 0 && !options.wait && shutdown(socket.get(), SHUT_WR) != 0) {
        error = errno;
    }
    if (error != 0) {
        broken(*result, "after " + std::to_string(result->sentBytes) + " bytes", error);
        return;
    }
    if (!options.wait) {
        finish(*result, Outcome::Sent, "sent");
        return;
    }
    const End end =
        readAnswer(socket.get(), Clock::now() + options.timeout, &result->answer, &error);
    judgeAnswer(end, error, result);
}

}  // namespace

SendResult sendPush(const SendOptions& options, const std::string& push) {
    SendResult result;
    const auto start = Clock::now();
    const std::string_view all = push;
    exchange(options, all.substr(0, options.truncateAt.value_or(all.size())), &result);
    result.took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
    return result;
}
