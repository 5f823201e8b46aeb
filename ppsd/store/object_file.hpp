// An open ordinary object.

#pragma once

#include <functional>
#include <memory>
#include <string>

#include "ppsd/store/node.hpp"
#include "ppsd/store/open_file.hpp"

class ObjectFile : public OpenFile {
  public:
    // `writer` merges a write into the object: the store's part of the work.
    using Writer = std::function<int(ObjectNode&, std::string_view)>;

    ObjectFile(std::shared_ptr<ObjectNode> node, OpenOptions options, Writer writer);
    ~ObjectFile() override;

    ReadOutcome read(std::size_t size, std::string& bytes) override;
    int write(std::string_view text) override;
    Readiness readiness() const override;
    bool isStream() const override { return false; }

  private:
    std::string unreadText() const;

    std::shared_ptr<ObjectNode> m_node;
    Writer m_writer;
    std::shared_ptr<const AttributeList> m_seen;  // null before the first read
    std::string m_rest;                           // of a text that a small buffer has begun
    std::size_t m_restRead = 0;                   // bytes of m_rest that were read
};
