#pragma once

// What IEnumString, the item enumerator and the like walk over: a fixed list and a position. A copy is a clone: it
// shares the list and stands at the same place.

#include <algorithm>
#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quelm::opcda {

template <class T>
class Enumerator {
 public:
    Enumerator() : Enumerator(std::vector<T>{}) {}
    explicit Enumerator(std::vector<T> list) : list_(std::make_shared<const std::vector<T>>(std::move(list))) {}

    // Up to count elements; fewer than count: the end is reached (S_FALSE).
    std::span<const T> next(std::size_t count) {
        const std::size_t taken = std::min(count, list_->size() - position_);
        const std::span<const T> part(list_->data() + position_, taken);
        position_ += taken;
        return part;
    }
    // False when the end came first (S_FALSE); the position is then at the end.
    bool skip(std::size_t count) {
        const std::size_t left = list_->size() - position_;
        position_ += std::min(count, left);
        return count <= left;
    }
    void reset() { position_ = 0; }
    std::size_t size() const { return list_->size(); }

 private:
    std::shared_ptr<const std::vector<T>> list_;
    std::size_t position_ = 0;
};

// Item and branch names stand in the items themselves, which live as long as the server.
using NameEnumerator = Enumerator<std::string_view>;
using StringEnumerator = Enumerator<std::string>;

}  // namespace quelm::opcda
