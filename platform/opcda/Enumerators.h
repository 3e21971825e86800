#pragma once

// What IEnumString, the item enumerator and the like walk over: a fixed list and a position. A copy is a clone: it
// shares the list, and what is held for it in the client's budget, and stands at the same place.

#include <algorithm>
#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "budget/ClientBudget.h"

namespace quelm::opcda {

template <class T>
class Enumerator {
 public:
    struct List {
        std::vector<T> elements;
        Hold memory;
    };

    Enumerator() : Enumerator(std::vector<T>{}) {}
    explicit Enumerator(std::vector<T> list, Hold memory = {})
        : Enumerator(std::make_shared<const List>(List{std::move(list), std::move(memory)})) {}
    explicit Enumerator(std::shared_ptr<const List> list) : list_(std::move(list)) {}

    // Up to count elements, without going on.
    std::span<const T> ahead(std::size_t count) const {
        return {list_->elements.data() + position_, std::min(count, list_->elements.size() - position_)};
    }
    // Up to count elements; fewer than count: the end is reached (S_FALSE).
    std::span<const T> next(std::size_t count) {
        const std::span<const T> part = ahead(count);
        position_ += part.size();
        return part;
    }
    // False when the end came first (S_FALSE); the position is then at the end.
    bool skip(std::size_t count) {
        const std::size_t left = list_->elements.size() - position_;
        position_ += std::min(count, left);
        return count <= left;
    }
    void reset() { position_ = 0; }
    std::size_t size() const { return list_->elements.size(); }

 private:
    std::shared_ptr<const List> list_;
    std::size_t position_ = 0;
};

// Item and branch names stand in the items themselves, which live as long as the server.
using NameEnumerator = Enumerator<std::string_view>;
using StringEnumerator = Enumerator<std::string>;

}  // namespace quelm::opcda
