// How long things took, in microseconds, and the figures of it that the load programs print.

#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace bench {

class Waits {
  public:
    explicit Waits(std::size_t expected) { m_microseconds.reserve(expected); }

    void addSince(std::chrono::steady_clock::time_point begin);
    // {"p50": .., "p99": .., "count": ..}; at least one wait has been added.
    std::string asJson() const;

  private:
    std::vector<double> m_microseconds;
};

double secondsSince(std::chrono::steady_clock::time_point begin);

// A word of the command line as a number; ends the program with status 2 where it is none.
std::size_t numberOf(const char* word);

// Ends the program with status 1: a measurement that lost something measures nothing.
[[noreturn]] void fail(const char* what);

}  // namespace bench
