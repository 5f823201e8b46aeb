// One header line of a push.

#pragma once

#include <string>
#include <utility>

// Name and value as cut from the line, blanks kept.
class QuilHttpHeader {
  public:
    QuilHttpHeader() = default;
    QuilHttpHeader(std::string name, std::string value)
        : m_name(std::move(name)), m_value(std::move(value)) {}
    virtual ~QuilHttpHeader() = default;

    std::string getName() const { return m_name; }
    std::string getValue() const { return m_value; }
    void setName(const std::string& name) { m_name = name; }
    void setValue(const std::string& value) { m_value = value; }

  private:
    std::string m_name;
    std::string m_value;
};
