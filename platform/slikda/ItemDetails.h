#pragma once

// What the plant says of its items once, beside their values: numbers and texts under a property's number, which
// clients read as item properties. They come into being before the first client does and never change afterwards, so
// that the plant and the network read them side by side.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "base/Variant.h"

namespace quelm {

// Made for 100,000 items: 4 bytes for each item and property, nothing for what is the same of all (as the site of a
// plant that has but one), and a text of many once.
class ItemDetails {
 public:
    struct Kind {
        std::uint32_t property;
        std::string text;  // what the property is called
        bool isText;       // otherwise a 32-bit whole number
    };

    ItemDetails();
    ItemDetails(const ItemDetails&) = delete;
    ItemDetails& operator=(const ItemDetails&) = delete;

    // A text or a 32-bit whole number of an item; 0 and "" say nothing. What is said first of a property decides its
    // name and its type; raises RuntimeError 13 for a value of another one.
    void set(std::uint32_t item, std::uint32_t property, std::string_view name, const Variant& value);
    // After the last set(): gives back what only further ones need.
    void close();

    // By property; empty when nothing was said of any item.
    const std::vector<Kind>& kinds() const { return kinds_; }
    // kind: place among kinds(). Empty when nothing was said of the item.
    Variant value(std::size_t kind, std::uint32_t item) const;
    bool has(std::size_t kind, std::uint32_t item) const { return columns_[kind].cell(item) != 0; }

 private:
    // By item: the number, or the text's place; 0: none.
    struct Column {
        std::vector<std::uint32_t> cells;
        // Of the first items, as many as stand here, in place of cells.
        std::uint32_t common = 0;
        std::uint32_t commonOf = 0;

        std::uint32_t cell(std::uint32_t item) const {
            return item < commonOf ? common : item < cells.size() ? cells[item] : 0;
        }
        void close();
    };

    std::size_t placeOf(std::uint32_t property, std::string_view name, bool isText);
    std::uint32_t keep(std::string_view text);
    std::string_view textAt(std::uint32_t place) const { return texts_.c_str() + place; }

    std::vector<Kind> kinds_;
    std::vector<Column> columns_;       // by kind
    std::string texts_;                 // each with its end
    std::vector<std::uint32_t> known_;  // places of texts that came lately, by their hashes
};

}  // namespace quelm
