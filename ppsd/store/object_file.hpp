// An open ordinary object.

#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "ppsd/store/node.hpp"
#include "ppsd/store/open_file.hpp"

class ObjectFile : public OpenFile {
  public:
    // Merges a write into the object: the store's part of the work.
    using Writer = std::function<void(const std::shared_ptr<ObjectNode>&, uid_t, std::string_view,
                                      const Done&)>;
    // Hears that the object has an open file less. It must not throw.
    using Closed = std::function<void(ObjectNode&)>;

    ObjectFile(std::shared_ptr<ObjectNode> node, OpenOptions options, Charge place,
               Accounts& accounts, Writer writer, Closed closed);
    ~ObjectFile() override;

    // A removed object counts for those who have it open: keeps its text, if the user of this file
    // has room for it in half of its share of memory. It was others who removed it, and who cannot
    // keep it loses no more than that text.
    void keep() noexcept;
    void letGo() noexcept;

    ReadOutcome read(uid_t reader, std::size_t size, std::string& bytes) override;
    void write(uid_t writer, std::string_view text, const Done& done) override;
    Readiness readiness() const override;
    bool isStream() const override { return false; }

  private:
    // A text that a small buffer has begun: what comes first, and perhaps lines behind it.
    struct Rest {
        std::string head;
        std::shared_ptr<Content> lines;  // null for none
        std::size_t read = 0;
        std::shared_ptr<Charge> charge;  // for what it keeps

        std::size_t size() const { return head.size() + (lines ? lines->lines.size() : 0) - read; }
        std::string take(std::size_t size);
    };

    bool isNew() const { return m_seenNumber != m_node->content->number; }
    std::string delta() const;
    bool hasDelta() const;
    ReadOutcome readText(uid_t reader, std::size_t size, std::string& bytes);
    ReadOutcome readDelta(uid_t reader, std::size_t size, std::string& bytes);
    void readRest(std::size_t size, std::string& bytes);

    std::shared_ptr<ObjectNode> m_node;
    Accounts& m_accounts;
    Writer m_writer;
    Closed m_closed;
    std::uint64_t m_seenNumber;       // of the content that was read last
    std::shared_ptr<Content> m_seen;  // for "?delta" only: the content itself, null for none
    std::shared_ptr<Charge> m_seenCharge;
    Rest m_rest;
    std::shared_ptr<Charge> m_keptCharge;  // for the text of a removed object
};
