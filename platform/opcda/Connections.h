#pragma once

// What a client has advised to one connection point, by the cookies that it got for it.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "opcda/HResults.h"

namespace quelm::opcda {

template <class T>
class Connections {
 public:
    // Clients advise one sink; another one comes where a program takes over from itself.
    static constexpr std::size_t most = 8;

    // S_OK with a cookie that is not 0 and no other's; CONNECT_E_ADVISELIMIT.
    HResult advise(std::unique_ptr<T> advised, std::uint32_t& cookie) {
        cookie = 0;
        if (all_.size() == most) {
            return CONNECT_E_ADVISELIMIT;
        }
        do {
            ++lastCookie_;
        } while (lastCookie_ == 0 || find(lastCookie_) != nullptr);
        cookie = lastCookie_;
        all_.push_back({cookie, std::move(advised)});
        return S_OK;
    }
    // CONNECT_E_NOCONNECTION for an unknown cookie.
    HResult unadvise(std::uint32_t cookie) {
        const auto found =
            std::find_if(all_.begin(), all_.end(), [cookie](const Connection& each) { return each.cookie == cookie; });
        if (found == all_.end()) {
            return CONNECT_E_NOCONNECTION;
        }
        // Out of the list before its end, which may ask for it.
        const std::unique_ptr<T> gone = std::move(found->advised);
        all_.erase(found);
        return S_OK;
    }
    void clear() { all_.clear(); }
    // nullptr for an unknown cookie.
    T* find(std::uint32_t cookie) const {
        const auto found =
            std::find_if(all_.begin(), all_.end(), [cookie](const Connection& each) { return each.cookie == cookie; });
        return found == all_.end() ? nullptr : found->advised.get();
    }

    bool empty() const { return all_.empty(); }
    std::size_t size() const { return all_.size(); }
    // The action may unadvise.
    template <class Action>
    void forEach(Action&& action) const {
        for (std::size_t i = 0; i < all_.size();) {
            const std::uint32_t cookie = all_[i].cookie;
            action(*all_[i].advised);
            i += i < all_.size() && all_[i].cookie == cookie ? 1 : 0;
        }
    }

 private:
    struct Connection {
        std::uint32_t cookie;
        std::unique_ptr<T> advised;
    };

    std::vector<Connection> all_;
    std::uint32_t lastCookie_ = 0;
};

}  // namespace quelm::opcda
