#pragma once

// How many clients hold the server, and whether another one may. The one number that both sides touch: the network lets
// clients in without asking the plant, which may be busy with a database, and the plant unloads only when there is
// nobody; one of the two comes first, and the other one sees it.

#include <atomic>
#include <cstdint>

namespace quelm {

class ClientDoor {
 public:
    // Network, or the process itself as a client: one client more; false: the server is going.
    bool enter() {
        std::int32_t count = state_.load();
        while (count != closed) {
            if (state_.compare_exchange_weak(count, count + 1)) {
                return true;
            }
        }
        return false;
    }
    // The same: one client less; how many remain.
    std::int32_t leave() { return --state_; }
    // Plant: lets nobody in any more, unless somebody is there; false then.
    bool close() {
        std::int32_t count = 0;
        return state_.compare_exchange_strong(count, closed) || count == closed;
    }
    std::int32_t count() const {
        const std::int32_t count = state_.load();
        return count == closed ? 0 : count;
    }

 private:
    static constexpr std::int32_t closed = -1;
    std::atomic<std::int32_t> state_ = 0;
};

}  // namespace quelm
