#pragma once

// A keyed collection: items in insertion order with optional text keys. Keys compare without regard to case
// (Unicode simple folding); looking one up is O(1) and does not allocate for keys of usual length.

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "base/RuntimeError.h"
#include "base/Text.h"

namespace quelm {

template <class T>
class Collection {
 public:
    std::size_t Count() const { return items_.size(); }

    // Raises RuntimeError 457 when the key is taken; the collection is then unchanged.
    void Add(T item, std::string_view key) {
        if (!keys_.emplace(foldCase(key), items_.size()).second) {
            throw RuntimeError(errors::duplicateKey);
        }
        items_.push_back(std::move(item));
    }
    void Add(T item) { items_.push_back(std::move(item)); }

    // The item of that key, or nullptr. Valid until the next Add.
    const T* Find(std::string_view key) const {
        const FoldedKey folded(key);
        const auto found = keys_.find(folded.view());
        return found == keys_.end() ? nullptr : &items_[found->second];
    }
    T* Find(std::string_view key) { return const_cast<T*>(std::as_const(*this).Find(key)); }

    // Raises RuntimeError 5 when there is no such key.
    const T& Item(std::string_view key) const {
        const T* found = Find(key);
        if (found == nullptr) {
            throw RuntimeError(errors::invalidCall);
        }
        return *found;
    }

    auto begin() const { return items_.begin(); }
    auto end() const { return items_.end(); }
    auto begin() { return items_.begin(); }
    auto end() { return items_.end(); }

 private:
    struct Hash {
        using is_transparent = void;
        std::size_t operator()(std::string_view text) const { return std::hash<std::string_view>{}(text); }
    };
    std::vector<T> items_;
    std::unordered_map<std::string, std::size_t, Hash, std::equal_to<>> keys_;
};

}  // namespace quelm
