#include "slikda/ItemDetails.h"

#include <algorithm>
#include <limits>

#include "base/RuntimeError.h"

namespace quelm {

namespace {

// A power of two. What many items have in common comes again soon; a name that only one has takes its place among the
// known texts from another one.
constexpr std::size_t mostKnown = 1024;
// Bytes. Blocks of this size and above are the system's again once they are let go of; room that grows in smaller steps
// would leave each step behind as a hole.
constexpr std::size_t firstRoom = std::size_t{1} << 20U;

}  // namespace

// The empty text stands at place 0.
ItemDetails::ItemDetails() : texts_(1, '\0'), known_(mostKnown) {}

void ItemDetails::set(std::uint32_t item, std::uint32_t property, std::string_view name, const Variant& value) {
    const bool isText = value.kind() == VariantKind::Text;
    if (!isText && value.kind() != VariantKind::Int32) {
        throw RuntimeError(errors::typeMismatch);
    }
    const std::uint32_t cell = isText ? keep(value.text()) : static_cast<std::uint32_t>(value.int32());
    if (cell == 0) {
        return;
    }
    std::vector<std::uint32_t>& column = columns_[placeOf(property, name, isText)].cells;
    if (column.size() <= item) {
        if (column.capacity() == 0) {
            column.reserve(firstRoom / sizeof(std::uint32_t));
        }
        column.resize(item + 1);
    }
    column[item] = cell;
}

std::size_t ItemDetails::placeOf(std::uint32_t property, std::string_view name, bool isText) {
    const auto found = std::lower_bound(kinds_.begin(), kinds_.end(), property,
                                        [](const Kind& kind, std::uint32_t its) { return kind.property < its; });
    const auto place = found - kinds_.begin();
    if (found == kinds_.end() || found->property != property) {
        kinds_.insert(found, {property, std::string(name), isText});
        columns_.emplace(columns_.begin() + place);
    } else if (found->isText != isText) {
        throw RuntimeError(errors::typeMismatch);
    }
    return static_cast<std::size_t>(place);
}

// Up to its first NUL. A text for which there is no place any more (after 4 GiB) is not kept.
std::uint32_t ItemDetails::keep(std::string_view text) {
    text = text.substr(0, text.find('\0'));
    const std::size_t place = texts_.size();
    if (text.empty() || text.size() >= std::numeric_limits<std::uint32_t>::max() - place) {
        return 0;
    }
    std::uint32_t& known = known_[std::hash<std::string_view>{}(text) % mostKnown];
    if (textAt(known) == text) {
        return known;
    }
    if (place == 1) {
        texts_.reserve(firstRoom);
    }
    texts_.append(text).push_back('\0');
    known = static_cast<std::uint32_t>(place);
    return known;
}

void ItemDetails::Column::close() {
    const auto isTheFirst = [this](std::uint32_t cell) { return cell == cells.front(); };
    if (!cells.empty() && std::all_of(cells.begin(), cells.end(), isTheFirst)) {
        common = cells.front();
        commonOf = static_cast<std::uint32_t>(cells.size());
        cells = {};
    }
    cells.shrink_to_fit();
}

void ItemDetails::close() {
    for (Column& column : columns_) {
        column.close();
    }
    texts_.shrink_to_fit();
    known_ = {};
}

Variant ItemDetails::value(std::size_t kind, std::uint32_t item) const {
    if (!has(kind, item)) {
        return {};
    }
    const std::uint32_t cell = columns_[kind].cell(item);
    return kinds_[kind].isText ? Variant(textAt(cell)) : Variant(static_cast<std::int32_t>(cell));
}

}  // namespace quelm
