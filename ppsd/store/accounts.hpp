// What each user holds of the service, and how much of it a user may hold.
//
// Every user has the same share of each thing. Whoever is past a share is refused more of it, so
// that one user cannot take what others need; root has no bound. A holder keeps a Charge for as
// long as it holds something, which gives it back when it goes: nothing is ever counted by hand.
//
// Not thread-safe, like all of the store.

#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <map>
#include <memory>
#include <utility>
#include <vector>

enum class Holding {
    kMemory,   // bytes: messages that wait, texts and listings that half-read descriptors keep
    kFiles,    // open files and folders
    kObjects,  // objects and folders of the store
    kStored    // bytes of stored objects
};
inline constexpr std::size_t kHoldings = 4;

// How much of each a user may hold; see the manual page for the defaults.
using Shares = std::array<std::size_t, kHoldings>;

class Accounts;

// What one user holds of one thing in one place. Gives it back when destroyed.
class Charge {
  public:
    Charge() = default;
    Charge(Accounts& accounts, uid_t user, Holding holding)
        : m_accounts(&accounts), m_user(user), m_holding(holding) {}
    ~Charge() { shrink(m_amount); }
    Charge(Charge&& other) noexcept { swap(other); }
    Charge& operator=(Charge&& other) noexcept {
        swap(other);
        return *this;
    }
    Charge(const Charge&) = delete;
    Charge& operator=(const Charge&) = delete;

    // Takes `amount` more. False, with nothing taken, when that is past the user's share.
    bool grow(std::size_t amount);
    // The same, share or not: for what cannot be refused any more.
    void growAnyway(std::size_t amount);
    void shrink(std::size_t amount) noexcept;
    uid_t user() const { return m_user; }
    // What it takes of this user's share.
    std::size_t amountOf(uid_t user) const { return user == m_user ? m_amount : 0; }

  private:
    void swap(Charge& other) noexcept {
        std::swap(m_accounts, other.m_accounts);
        std::swap(m_user, other.m_user);
        std::swap(m_holding, other.m_holding);
        std::swap(m_amount, other.m_amount);
    }

    Accounts* m_accounts = nullptr;
    uid_t m_user = 0;
    Holding m_holding = Holding::kMemory;
    std::size_t m_amount = 0;
};

// Must outlive all charges to it.
class Accounts {
  public:
    explicit Accounts(const Shares& shares) : m_shares(shares) {}
    Accounts(const Accounts&) = delete;
    Accounts& operator=(const Accounts&) = delete;

    // Whether `amount` more would be within the user's share.
    bool hasRoom(uid_t user, Holding holding, std::size_t amount) const;
    // The same for half of it: for what others can make the user hold.
    bool hasRoomInHalf(uid_t user, Holding holding, std::size_t amount) const;
    std::size_t held(uid_t user, Holding holding) const;

  private:
    friend class Charge;

    void add(uid_t user, Holding holding, std::size_t amount);
    void take(uid_t user, Holding holding, std::size_t amount) noexcept;

    const Shares m_shares;
    std::map<uid_t, Shares> m_held;  // of those who hold anything
};

// Something that many descriptors keep at once, and that each user pays for once.
class Shared {
  public:
    explicit Shared(std::size_t bytes) : m_bytes(bytes) {}

    // What a descriptor of `user` keeps together with the thing itself. Null when it would be past
    // the user's share.
    std::shared_ptr<Charge> pin(Accounts& accounts, uid_t user);
    // The same for half of the share.
    std::shared_ptr<Charge> pinInHalf(Accounts& accounts, uid_t user);

  private:
    std::shared_ptr<Charge> findPin(uid_t user);
    std::shared_ptr<Charge> addPin(Accounts& accounts, uid_t user);

    std::size_t m_bytes;
    std::vector<std::pair<uid_t, std::weak_ptr<Charge>>> m_pins;  // at most one of each user
};
