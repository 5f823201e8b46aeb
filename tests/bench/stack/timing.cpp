#include "tests/bench/stack/timing.hpp"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>

namespace bench {

void Waits::addSince(std::chrono::steady_clock::time_point begin) {
    m_microseconds.push_back(secondsSince(begin) * 1e6);
}

std::string Waits::asJson() const {
    std::vector<double> sorted = m_microseconds;
    std::sort(sorted.begin(), sorted.end());
    std::array<char, 128> text{};
    std::snprintf(text.data(), text.size(), R"({"p50": %.2f, "p99": %.2f, "count": %zu})",
                  sorted[sorted.size() / 2], sorted[sorted.size() * 99 / 100], sorted.size());
    return text.data();
}

double secondsSince(std::chrono::steady_clock::time_point begin) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

std::size_t numberOf(const char* word) {
    char* end = nullptr;
    const unsigned long number = std::strtoul(word, &end, 10);
    if (end == word || *end != '\0') {
        std::fprintf(stderr, "not a number: %s\n", word);
        std::exit(2);
    }
    return number;
}

void fail(const char* what) {
    std::perror(what);
    // Without destructors: other threads are still at work.
    _exit(1);
}

}  // namespace bench
