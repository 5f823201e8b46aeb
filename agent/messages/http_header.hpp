// One header line of a push.

#pragma once

#include <string>
#include <utility>

// Name and value as cut from the line, blanks kept.
class QuilHttpHeader {
  public:
    QuilHttpHeader(std::string name, std::string value)
        : m_name(std::move(name)), m_value(std::move(value)) {}
    virtual ~QuilHttpHeader() = default;

    std::string getName() const { return m_name; }
    std::string getValue() const { return m_value; }

  private:
    std::string m_name;
    std::string m_value;
};
