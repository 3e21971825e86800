#pragma once

// The items as clients see them: what the plant handed over last. Belongs to the network's side, where reading an item
// takes no look-up and no copy, and a new block of values takes the place of the one before in one step, so that no
// client ever sees half a pass.

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "slikda/ItemBlock.h"
#include "slikda/ItemDetails.h"
#include "slikda/ItemNames.h"

namespace quelm {

class ItemStore;

class SLIKTag final {
 public:
    SLIKTag(const ItemStore& store, std::uint32_t number, std::uint16_t varType, std::uint8_t accessRights)
        : store_(&store), number_(number), varType_(varType), accessRights_(accessRights) {}
    SLIKTag(const SLIKTag&) = delete;
    SLIKTag& operator=(const SLIKTag&) = delete;

    const std::string& Name() const;
    // Valid until the control's network side runs its next message.
    const Variant& Value() const;
    std::uint16_t qualityWord() const;
    // The time stamp in UTC as FILETIME; 0: none.
    std::int64_t fileTime() const;
    // VARTYPE of the initial value (0: Empty).
    std::uint16_t varType() const { return varType_; }
    // 1 = readable, 2 = writable
    std::uint8_t accessRights() const { return accessRights_; }
    // What there is to say of items, and by the place in it what is said of this one; Empty: nothing.
    const std::vector<ItemDetails::Kind>& detailKinds() const;
    bool hasDetail(std::size_t kind) const;
    Variant detail(std::size_t kind) const;

 private:
    const ItemStore* store_;
    std::uint32_t number_;
    std::uint16_t varType_;
    std::uint8_t accessRights_;
};

class ItemStore final {
 public:
    // names and details must outlive the store; block as in show().
    ItemStore(const ItemNames& names, const ItemDetails& details, const ItemBlock& block)
        : names_(&names), details_(&details), shown_(&block) {}
    ItemStore(const ItemStore&) = delete;
    ItemStore& operator=(const ItemStore&) = delete;

    std::size_t Count() const { return tags_.size(); }
    // Without regard to case; nullptr when there is no such item. No allocation for names of usual length.
    const SLIKTag* find(std::string_view name) const;
    // index: 0 to Count() - 1, in the order of adding
    const SLIKTag& at(std::size_t index) const { return tags_[index]; }

    bool areSourcesLost() const { return shown_->sourcesLost; }

    // All items ordered by folded name with "." before every other character, so that the items below one branch of
    // the name hierarchy stand together. Made at the first call after an item was added, then kept (4 bytes an item).
    const std::vector<std::uint32_t>& browseOrder() const;

    // For the control: one more item, whose name is in the names and whose value is in the block.
    void add(std::uint16_t varType, std::uint8_t accessRights);
    // For the control: these are the values from now on, as long as nothing else is shown. Gives back those before.
    const ItemBlock& show(const ItemBlock& block);

 private:
    friend class SLIKTag;

    const ItemNames* names_;
    const ItemDetails* details_;
    const ItemBlock* shown_;
    std::deque<SLIKTag> tags_;
    mutable std::vector<std::uint32_t> browseOrder_;
};

inline const std::string& SLIKTag::Name() const {
    return (*store_->names_)[number_];
}

inline const Variant& SLIKTag::Value() const {
    return store_->shown_->values[number_].value;
}

inline std::uint16_t SLIKTag::qualityWord() const {
    return store_->shown_->values[number_].quality;
}

inline std::int64_t SLIKTag::fileTime() const {
    const ItemBlock& block = *store_->shown_;
    return block.stampOf(block.values[number_]).fileTime;
}

inline const std::vector<ItemDetails::Kind>& SLIKTag::detailKinds() const {
    return store_->details_->kinds();
}

inline bool SLIKTag::hasDetail(std::size_t kind) const {
    return store_->details_->has(kind, number_);
}

inline Variant SLIKTag::detail(std::size_t kind) const {
    return store_->details_->value(kind, number_);
}

// Compares two names in the order of ItemStore::browseOrder; both already folded.
int compareBrowseOrder(std::string_view foldedLeft, std::string_view foldedRight);

}  // namespace quelm
