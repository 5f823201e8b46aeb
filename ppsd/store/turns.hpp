// Entries that are served in turn: each gives one thing, then it is the next one's turn.
//
// An entry has a turn as long as it is not empty, and gets it behind all others; an empty one waits
// aside until it is done. Entries may be turns themselves, so that those of one entry share its
// turn. Changing, taking and looking up cost the same however many entries there are; and only
// making an entry takes memory, so that nothing but that can fail.

#pragma once

#include <list>
#include <unordered_map>

// `Entry` has empty(), isDone() (which it may be when empty) and take().
template <typename Key, typename Entry>
class Turns {
  public:
    bool empty() const { return m_waiting.empty(); }
    bool isDone() const { return m_places.empty(); }

    // Hands the entry of `key`, which is made when there is none, to `action`, which may fill or
    // empty it. When making it throws, nothing has changed.
    template <typename Action>
    void change(Key key, Action action) {
        Place place;
        if (const auto found = m_places.find(key); found != m_places.end()) {
            place = found->second;
        } else {
            place = m_idle.emplace(m_idle.end(), key);
            try {
                m_places.emplace(key, place);
            } catch (...) {
                m_idle.erase(place);
                throw;
            }
        }
        try {
            action(place->entry);
        } catch (...) {
            settle(place);
            throw;
        }
        settle(place);
    }

    // The entry whose turn it is. Not to be called when empty.
    const Entry& front() const { return m_waiting.front().entry; }

    // What the entry gives whose turn it is. Not to be called when empty.
    auto take() {
        const Place place = m_waiting.begin();
        auto taken = place->entry.take();
        m_waiting.splice(m_waiting.end(), m_waiting, place);
        settle(place);
        return taken;
    }

    // Drops everything.
    void clear() {
        m_places.clear();
        m_waiting.clear();
        m_idle.clear();
    }

  private:
    struct Slot {
        explicit Slot(Key slotKey) : key(slotKey) {}

        Key key;
        Entry entry;
        bool isWaiting = false;
    };
    using Ring = std::list<Slot>;
    using Place = typename Ring::iterator;

    // Puts an entry where it belongs now.
    void settle(Place place) noexcept {
        Ring& from = place->isWaiting ? m_waiting : m_idle;
        if (place->entry.isDone()) {
            m_places.erase(place->key);
            from.erase(place);
            return;
        }
        if (place->entry.empty() == place->isWaiting) {
            Ring& to = place->isWaiting ? m_idle : m_waiting;
            to.splice(to.end(), from, place);
            place->isWaiting = !place->isWaiting;
        }
    }

    Ring m_waiting;  // not empty; the first has the next turn
    Ring m_idle;
    std::unordered_map<Key, Place> m_places;
};
