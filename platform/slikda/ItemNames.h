#pragma once

// The names of all items and the way from a name to its item. They come into being before the first client does and
// never change afterwards, so that the plant and the network read them side by side.

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quelm {

class ItemNames {
 public:
    // The new item's number: 0, 1, 2, ... Unique without regard to case; raises RuntimeError 457 for a name in use, 5
    // for an empty one.
    std::uint32_t add(std::string_view name);
    // Without regard to case. No allocation for names of usual length.
    std::optional<std::uint32_t> find(std::string_view name) const;
    const std::string& operator[](std::uint32_t number) const { return names_[number]; }
    std::size_t size() const { return names_.size(); }

 private:
    // Of an open-addressing table; a whole hash beside the number spares nearly every look at a name.
    struct IndexEntry {
        std::uint32_t hash = 0;
        std::uint32_t place = 0;  // number + 1; 0: free
    };

    std::optional<std::uint32_t> numberOf(std::string_view folded, std::uint32_t hash) const;
    void enter(std::uint32_t hash, std::uint32_t place);
    void makeRoom();

    std::deque<std::string> names_;
    std::vector<IndexEntry> index_;
};

}  // namespace quelm
