// A named object: the root of the internal messages and of the ports.

#pragma once

#include <string>
#include <utility>

class QuilBaseObject {
  public:
    QuilBaseObject() = default;
    explicit QuilBaseObject(std::string name) : m_name(std::move(name)) {}
    virtual ~QuilBaseObject() = default;

    std::string getName() const { return m_name; }
    void setName(const std::string& name) { m_name = name; }

  protected:
    // Copied and assigned only as part of the whole object.
    QuilBaseObject(const QuilBaseObject&) = default;
    QuilBaseObject& operator=(const QuilBaseObject&) = default;

  private:
    std::string m_name;
};
