#include "tests/fuzz/store_model/channel.hpp"

#include <algorithm>

namespace model {

namespace {

std::string keyOf(Opener opener) {
    return std::to_string(opener.user) + "." + std::to_string(opener.process);
}

}  // namespace

void Channel::add(const Pending& item) {
    pending.push_back(item);
    const auto join = [](Ring& ring, std::uint64_t who) {
        if (std::find(ring.begin(), ring.end(), who) == ring.end()) {
            ring.push_back(who);
        }
    };
    join(m_rings["users"], item.opener.user);
    join(m_rings[std::to_string(item.opener.user)],
         static_cast<std::uint64_t>(item.opener.process));
    join(m_rings[keyOf(item.opener)], item.client);
}

Channel::Pending Channel::takeNext() {
    const auto user = static_cast<uid_t>(m_rings["users"].front());
    const auto process = static_cast<pid_t>(m_rings[std::to_string(user)].front());
    const std::uint64_t client = m_rings[keyOf({user, 0, process})].front();
    const auto next = std::find_if(pending.begin(), pending.end(),
                                   [&](const Pending& p) { return p.client == client; });
    return take(static_cast<std::size_t>(next - pending.begin()), true);
}

void Channel::leave(std::uint64_t client, const Pending& notice) {
    const auto isItsOwn = [&](const Pending& p) { return p.client == client; };
    const auto first = std::find_if(pending.begin(), pending.end(), isItsOwn);
    if (first != pending.end() && first->text[0] == '+' &&
        std::count_if(pending.begin(), pending.end(), isItsOwn) == 1) {
        take(static_cast<std::size_t>(first - pending.begin()), false);
    } else if (hasServer) {
        add(notice);
    }
}

void Channel::end() {
    hasServer = false;
    pending.clear();
    m_rings.clear();
}

Channel::Pending Channel::take(std::size_t index, bool isTurn) {
    const Pending item = pending[index];
    pending.erase(pending.begin() + static_cast<std::ptrdiff_t>(index));
    const auto pass = [&](Ring& ring, std::uint64_t who, auto isSame) {
        const bool stays = std::any_of(pending.begin(), pending.end(), isSame);
        if (isTurn || !stays) {
            std::erase(ring, who);
        }
        if (isTurn && stays) {
            ring.push_back(who);
        }
    };
    const Opener by = item.opener;
    pass(m_rings["users"], by.user, [&](const Pending& p) { return p.opener.user == by.user; });
    pass(m_rings[std::to_string(by.user)], static_cast<std::uint64_t>(by.process),
         [&](const Pending& p) { return keyOf(p.opener) == keyOf(by); });
    pass(m_rings[keyOf(by)], item.client,
         [&](const Pending& p) { return p.client == item.client; });
    return item;
}

}  // namespace model
