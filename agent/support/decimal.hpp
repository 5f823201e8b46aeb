// Numbers as peers write them.

#pragma once

#include <string_view>

// The number that `text` begins with: decimal digits only, no sign. 0 without digits; INT_MAX when
// it is larger.
int leadingDecimal(std::string_view text);

// The same after leading white space.
int leadingDecimalAfterBlanks(std::string_view text);
