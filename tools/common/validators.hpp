// Checks of what was typed. CLI11's own validators would add their ranges to the help.

#pragma once

#include <CLI/CLI.hpp>
#include <charconv>
#include <string>

namespace validators {

inline bool isNumberUpTo(const std::string& text, double most) {
    double value = 0;
    return CLI::detail::lexical_cast(text, value) && value > 0 && value <= most;
}

inline CLI::Validator notEmpty() {
    return {[](std::string& text) { return text.empty() ? std::string("must not be empty") : ""; },
            ""};
}

inline CLI::Validator seconds() {
    return {[](std::string& text) {
                const bool isGood = isNumberUpTo(text, 1e9);
                return isGood ? "" : std::string("must be a number of seconds above 0");
            },
            ""};
}

inline CLI::Validator positive() {
    return {[](std::string& text) {
                return isNumberUpTo(text, 1e18) ? "" : std::string("must be a number above 0");
            },
            ""};
}

// What fits into an int.
inline CLI::Validator wholeNumber() {
    return {[](std::string& text) {
                int value = 0;
                const char* end = text.data() + text.size();
                const auto [stop, error] = std::from_chars(text.data(), end, value);
                const bool isGood = error == std::errc{} && stop == end;
                return isGood ? "" : std::string("must be a whole number, such as 10103");
            },
            ""};
}

}  // namespace validators
