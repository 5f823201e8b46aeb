#include "ppsd/store/accounts.hpp"

#include <algorithm>

namespace {

constexpr uid_t kRoot = 0;

std::size_t indexOf(Holding holding) {
    return static_cast<std::size_t>(holding);
}

}  // namespace

bool Charge::grow(std::size_t amount) {
    if (!m_accounts->hasRoom(m_user, m_holding, amount)) {
        return false;
    }
    growAnyway(amount);
    return true;
}

void Charge::growAnyway(std::size_t amount) {
    if (amount != 0) {
        m_accounts->add(m_user, m_holding, amount);
        m_amount += amount;
    }
}

void Charge::shrink(std::size_t amount) noexcept {
    if (amount != 0) {
        m_accounts->take(m_user, m_holding, amount);
        m_amount -= amount;
    }
}

bool Accounts::hasRoom(uid_t user, Holding holding, std::size_t amount) const {
    const std::size_t share = m_shares[indexOf(holding)];
    return user == kRoot || (amount <= share && held(user, holding) <= share - amount);
}

bool Accounts::hasRoomInHalf(uid_t user, Holding holding, std::size_t amount) const {
    return user == kRoot || held(user, holding) + amount <= m_shares[indexOf(holding)] / 2;
}

std::size_t Accounts::held(uid_t user, Holding holding) const {
    const auto found = m_held.find(user);
    return found == m_held.end() ? 0 : found->second[indexOf(holding)];
}

void Accounts::add(uid_t user, Holding holding, std::size_t amount) {
    m_held[user][indexOf(holding)] += amount;
}

void Accounts::take(uid_t user, Holding holding, std::size_t amount) noexcept {
    const auto found = m_held.find(user);
    found->second[indexOf(holding)] -= amount;
    if (found->second == Shares{}) {
        m_held.erase(found);
    }
}

std::shared_ptr<Charge> Shared::findPin(uid_t user) {
    std::erase_if(m_pins, [](const auto& pin) { return pin.second.expired(); });
    const auto found = std::find_if(m_pins.begin(), m_pins.end(),
                                    [&](const auto& pin) { return pin.first == user; });
    return found == m_pins.end() ? nullptr : found->second.lock();
}

std::shared_ptr<Charge> Shared::addPin(Accounts& accounts, uid_t user) {
    auto charge = std::make_shared<Charge>(accounts, user, Holding::kMemory);
    charge->growAnyway(m_bytes);
    m_pins.emplace_back(user, charge);
    return charge;
}

std::shared_ptr<Charge> Shared::pin(Accounts& accounts, uid_t user) {
    std::shared_ptr<Charge> charge = findPin(user);
    if (charge == nullptr && accounts.hasRoom(user, Holding::kMemory, m_bytes)) {
        charge = addPin(accounts, user);
    }
    return charge;
}

std::shared_ptr<Charge> Shared::pinInHalf(Accounts& accounts, uid_t user) {
    std::shared_ptr<Charge> charge = findPin(user);
    if (charge == nullptr && accounts.hasRoomInHalf(user, Holding::kMemory, m_bytes)) {
        charge = addPin(accounts, user);
    }
    return charge;
}
