#pragma once

// What may be held for one client, so that none can use up what the server and the others need: a client is an
// account on one host, however many connections and objects it has. The network's layers and the object model both
// take from the same budget without knowing of each other.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

namespace quelm {

// The bounds of one client by the plant's size, and the reason for each figure.
struct ClientLimits {
    // Bytes. An item costs a client 28 bytes in a group and 16 for a sink, 32 in the list of an enumerator, up to 150
    // in the request that adds it and up to 200 in the reply that describes it: room for ten groups with every item and
    // a sink, two enumerators and a large call on its way. What is for all plants alike is two requests of the largest
    // size.
    std::size_t memory = 0;
    // Clients make a group for each update rate or picture: a hundred are many, one for every item is a fault.
    std::size_t groups = 0;
    // Items of one call. A client names each item once; who names many more than there are would only keep all
    // others waiting. At a third of a microsecond for each, 150,000 take 50 ms.
    std::size_t itemsPerCall = 0;
    // Items that the plant is asked for at a time, and writes: half of what it is asked for all clients.
    std::size_t questions = 0;

    // items: how many the server has.
    static constexpr ClientLimits of(std::size_t items) {
        return {(std::size_t{32} << 20U) + items * 1024, 1000 + items / 10, 10'000 + items, 2048 + 4 * items};
    }
};

// How much of one thing is held, and how much may be.
class Ledger {
 public:
    explicit Ledger(std::size_t limit) : limit_(limit) {}
    std::size_t used() const { return used_; }
    std::size_t room() const { return used_ < limit_ ? limit_ - used_ : 0; }
    void limitTo(std::size_t limit) { limit_ = limit; }

 private:
    friend class Hold;
    std::size_t limit_;
    std::size_t used_ = 0;
};

class ClientBudget {
 public:
    explicit ClientBudget(const ClientLimits& limits)
        : memory(limits.memory), groups(limits.groups), questions(limits.questions) {}
    Ledger memory;  // bytes
    Ledger groups;
    Ledger questions;
};

// A part of a ledger that is taken for as long as this lives. One without a ledger has no bounds.
class Hold {
 public:
    Hold() = default;
    explicit Hold(std::shared_ptr<Ledger> ledger) : ledger_(std::move(ledger)) {}
    Hold(Hold&& other) noexcept : ledger_(std::move(other.ledger_)), amount_(std::exchange(other.amount_, 0)) {}
    Hold& operator=(Hold&& other) noexcept {
        if (this != &other) {
            set(0);
            ledger_ = std::move(other.ledger_);
            amount_ = std::exchange(other.amount_, 0);
        }
        return *this;
    }
    ~Hold() { set(0); }

    std::size_t amount() const { return amount_; }
    // What may still be taken.
    std::size_t room() const { return ledger_ != nullptr ? ledger_->room() : SIZE_MAX; }
    // False, and nothing changed, when the ledger has no room for more. Less is always granted.
    bool resize(std::size_t amount) noexcept {
        if (ledger_ != nullptr && amount > amount_ && amount - amount_ > ledger_->room()) {
            return false;
        }
        set(amount);
        return true;
    }
    // Whatever the ledger says: for what is there already. Others are then refused sooner.
    void set(std::size_t amount) noexcept {
        if (ledger_ != nullptr) {
            ledger_->used_ += amount - amount_;
        }
        amount_ = amount;
    }
    // Another hold on the same ledger, still empty.
    Hold another() const { return Hold(ledger_); }

 private:
    std::shared_ptr<Ledger> ledger_;
    std::size_t amount_ = 0;
};

inline Hold memoryOf(const std::shared_ptr<ClientBudget>& budget) {
    return Hold({budget, &budget->memory});
}
inline Hold groupsOf(const std::shared_ptr<ClientBudget>& budget) {
    return Hold({budget, &budget->groups});
}
inline Hold questionsOf(const std::shared_ptr<ClientBudget>& budget) {
    return Hold({budget, &budget->questions});
}

// The budgets of all clients that hold anything.
class ClientBudgets {
 public:
    // itemCount: how many items the server has, asked at each of().
    explicit ClientBudgets(std::function<std::size_t()> itemCount) : itemCount_(std::move(itemCount)) {}

    ClientLimits limits() const { return ClientLimits::of(itemCount_()); }
    // account as it logged on, "DOMAIN\user"; host: numeric address without port.
    std::shared_ptr<ClientBudget> of(std::string_view account, std::string_view host);

 private:
    std::function<std::size_t()> itemCount_;
    std::map<std::pair<std::string, std::string>, std::weak_ptr<ClientBudget>> budgets_;
};

}  // namespace quelm
