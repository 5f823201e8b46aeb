// What an object holds at one time. Never changed: a write makes another one, so that whoever is
// reading goes on with what it began, and all who read the same share it.

#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "ppsd/store/accounts.hpp"

class Content : public Shared {
  public:
    // `number` is never used twice while the service lives. `charge` is what the lines take of the
    // share of whoever wrote them.
    Content(std::uint64_t contentNumber, std::string text, Charge charge)
        : Shared(text.size()),
          number(contentNumber),
          lines(std::move(text)),
          stored(std::move(charge)) {}

    const std::uint64_t number;
    const std::string lines;  // of the attributes; empty without any
    Charge stored;  // given back when the object has another text, whoever still reads this one
};

// The size of an object's text, its object line included: 0 without attributes.
inline std::size_t textBytes(const std::string& name, const std::string& lines) {
    return lines.empty() ? 0 : name.size() + 2 + lines.size();
}
