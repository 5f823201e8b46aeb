// The C library's conversions take signs and have no defined overflow; peers must not be able to
// use either.

#include "agent/support/decimal.hpp"

#include <climits>
#include <cstdint>

int leadingDecimal(std::string_view text) {
    std::int64_t number = 0;
    for (const char digit : text) {
        if (digit < '0' || digit > '9') {
            break;
        }
        number = number * 10 + (digit - '0');
        if (number > INT_MAX) {
            return INT_MAX;
        }
    }
    return static_cast<int>(number);
}

int leadingDecimalAfterBlanks(std::string_view text) {
    const std::size_t start = text.find_first_not_of(" \t\n\v\f\r");
    return start == std::string_view::npos ? 0 : leadingDecimal(text.substr(start));
}
