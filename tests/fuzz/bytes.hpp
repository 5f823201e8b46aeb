// What a fuzzer draws from its input.

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

// Ends the process unless the condition holds: that is how a fuzzer tells what it found.
inline void require(bool condition, int line = __builtin_LINE(),
                    const char* file = __builtin_FILE()) {
    if (!condition) {
        std::fprintf(stderr, "not as it should be: %s line %d\n", file, line);
        std::abort();
    }
}

// The input byte by byte; zeros behind its end.
class Bytes {
  public:
    Bytes(const std::uint8_t* data, std::size_t size) : m_at(data), m_end(data + size) {}

    bool isAtEnd() const { return m_at == m_end; }
    unsigned next() { return m_at == m_end ? 0U : *m_at++; }
    unsigned below(unsigned bound) { return next() % bound; }
    bool flag() { return (next() & 1U) != 0; }

  private:
    const std::uint8_t* m_at;
    const std::uint8_t* m_end;
};

// The parts of the input between its zero bytes; at least one.
inline std::vector<std::string> splitAtZeros(const std::uint8_t* data, std::size_t size) {
    std::vector<std::string> parts(1);
    for (std::size_t i = 0; i < size; ++i) {
        if (data[i] == 0) {
            parts.emplace_back();
        } else {
            parts.back().push_back(static_cast<char>(data[i]));
        }
    }
    return parts;
}
