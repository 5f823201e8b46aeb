// Entries that are served in turn: each gives one thing, then it is the next one's turn.
//
// An entry has a place as long as it is not empty, and gets it behind all others. Entries may be
// turns themselves, so that those of one entry share its turn. Adding, taking and looking up cost
// the same however many entries there are.

#pragma once

#include <iterator>
#include <list>
#include <unordered_map>
#include <utility>

// `Entry` has empty() and take(), and is empty when made.
template <typename Key, typename Entry>
class Turns {
  public:
    bool empty() const { return m_ring.empty(); }

    // Hands the entry of `key` to `action`, which may fill or empty it.
    template <typename Action>
    void change(Key key, Action action) {
        const auto [found, isNew] = m_places.try_emplace(key);
        if (isNew) {
            found->second = m_ring.emplace(m_ring.end(), key, Entry());
        }
        const Place place = found->second;
        action(place->second);
        if (place->second.empty()) {
            leave(place);
        }
    }

    // What the entry gives whose turn it is. Not to be called when empty.
    auto take() {
        const Place place = m_ring.begin();
        auto taken = place->second.take();
        if (place->second.empty()) {
            leave(place);
        } else {
            m_ring.splice(m_ring.end(), m_ring, place);
        }
        return taken;
    }

    void clear() {
        m_places.clear();
        m_ring.clear();
    }

  private:
    using Ring = std::list<std::pair<Key, Entry>>;
    using Place = typename Ring::iterator;

    void leave(Place place) {
        m_places.erase(place->first);
        m_ring.erase(place);
    }

    Ring m_ring;  // the first has the next turn
    std::unordered_map<Key, Place> m_places;
};
