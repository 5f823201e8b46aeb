// The system log of a fuzzer: its lines are news to nobody.

#include "platform/slog/slog.hpp"

void slogf(std::uint32_t /*code*/, int /*severity*/, const char* /*format*/, ...) {}

void slogLines(std::uint32_t /*code*/, const SlogEntry* /*lines*/, std::size_t /*count*/) {}
