#pragma once

// The items as the plant sees them: it adds them, sets them and reads back what it set. What one handler sets is one
// batch: a block of all items' values, made of what the handler set and, for the rest, of what stood before. Made for
// 100,000 items: lean, stable addresses, and a SetVQT that neither allocates nor converts a time stamp twice.

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "slikda/ISLIKServer.h"
#include "slikda/ItemStore.h"

namespace quelm {

class PlantItems;

class PlantTag final : public ISLIKTag {
 public:
    PlantTag(PlantItems& items, std::uint32_t number, std::int16_t dataType)
        : items_(&items), number_(number), dataType_(dataType) {}
    PlantTag(const PlantTag&) = delete;
    PlantTag& operator=(const PlantTag&) = delete;

    const std::string& Name() const override;
    std::int16_t DataType() const override { return dataType_; }
    const Variant& Value() const override;
    std::int16_t Quality() const override;
    Date Timestamp() const override;
    void SetVQT(const Variant& varValue, std::int16_t intQuality, Date dtmTimestamp) override;
    void SetProperty(std::int32_t lngPropertyID, std::string_view strName, const Variant& varValue) override;

 private:
    PlantItems* items_;
    std::uint32_t number_;
    std::int16_t dataType_;
};

class PlantItems final : public ISLIKTags {
 public:
    PlantItems();
    PlantItems(const PlantItems&) = delete;
    PlantItems& operator=(const PlantItems&) = delete;

    // Also raises RuntimeError 5 after close(): clients may be there by then.
    PlantTag& Add(std::string_view strName, std::int32_t lngAccessRights, const Variant& varValue,
                  std::int16_t intQuality, Date dtmTimestamp) override;
    PlantTag& Item(std::string_view strName) override;
    std::size_t Count() const override { return tags_.size(); }
    // index: 0 to Count() - 1, in the order of adding
    const PlantTag& at(std::size_t index) const { return tags_[index]; }

    // A part of the batch like the values.
    void setSourcesLost(bool lost);

    // What clients see. Until close() that is every item as it stands; afterwards only what is shown there, which is
    // the network's affair.
    ItemStore& shown() { return shown_; }
    StampConverter& stamps() { return stamps_; }

    // After the last Add. From now on values are collected in batches: begun is called when one begins.
    void close(std::function<void()> begun);
    bool isClosed() const { return begun_ != nullptr; }
    // The batch that has begun, whole, to be shown; nullptr: none has. May be read from now on, but is not written.
    const ItemBlock* takeBatch();
    // A batch that is no longer shown; its memory serves again.
    void giveBack(const ItemBlock& batch);

 private:
    friend class PlantTag;

    // The item's value as it was set last.
    const ItemBlock& blockOf(std::uint32_t number) const {
        return writing_ != nullptr && writing_->values[number].mark == writing_->mark ? *writing_ : *newest_;
    }
    void set(std::uint32_t number, const Variant& value, std::int16_t quality, Date stamp) {
        ItemBlock& block = writing_ != nullptr ? *writing_ : begin();
        const std::uint32_t place = block.placeOf(stamp, stamps_);
        ItemValue& item = block.values[number];
        if (item.mark != block.mark) {
            item.mark = block.mark;
            ++written_;
        }
        item.value = value;
        item.quality = static_cast<std::uint16_t>(quality);
        item.stamp = place;
    }
    ItemBlock& begin();
    void completeBatch();

    void refuseChange() const;

    ItemNames names_;
    ItemDetails details_;
    std::deque<PlantTag> tags_;
    StampConverter stamps_;
    std::vector<std::unique_ptr<ItemBlock>> blocks_;  // all that there are
    std::vector<ItemBlock*> free_;
    ItemBlock* writing_;       // the batch that has begun; until close() the only block; nullptr: none
    const ItemBlock* newest_;  // the last batch that was taken
    std::size_t written_ = 0;  // items that are set in the batch that has begun
    ItemStore shown_;
    std::function<void()> begun_;
};

}  // namespace quelm
