#include "slikda/PlantItems.h"

#include <algorithm>

#include "base/RuntimeError.h"

namespace quelm {

namespace {

void refuseObject(const Variant& value) {
    if (value.kind() == VariantKind::Object) {
        throw RuntimeError(errors::typeMismatch);
    }
}

}  // namespace

const std::string& PlantTag::Name() const {
    return items_->names_[number_];
}

const Variant& PlantTag::Value() const {
    return items_->blockOf(number_).values[number_].value;
}

std::int16_t PlantTag::Quality() const {
    return static_cast<std::int16_t>(items_->blockOf(number_).values[number_].quality);
}

Date PlantTag::Timestamp() const {
    const ItemBlock& block = items_->blockOf(number_);
    return block.stampOf(block.values[number_]).local;
}

void PlantTag::SetVQT(const Variant& varValue, std::int16_t intQuality, Date dtmTimestamp) {
    refuseObject(varValue);
    items_->set(number_, varValue, intQuality, dtmTimestamp);
}

void PlantTag::SetProperty(std::int32_t lngPropertyID, std::string_view strName, const Variant& varValue) {
    items_->refuseChange();
    items_->details_.set(number_, static_cast<std::uint32_t>(lngPropertyID), strName, varValue);
}

PlantItems::PlantItems()
    : writing_(blocks_.emplace_back(std::make_unique<ItemBlock>()).get()),
      newest_(writing_),
      shown_(names_, details_, *newest_) {}

PlantTag& PlantItems::Add(std::string_view strName, std::int32_t lngAccessRights, const Variant& varValue,
                          std::int16_t intQuality, Date dtmTimestamp) {
    refuseChange();
    refuseObject(varValue);
    const std::uint32_t number = names_.add(strName);
    writing_->values.emplace_back();
    set(number, varValue, intQuality, dtmTimestamp);
    shown_.add(static_cast<std::uint16_t>(varValue.kind()), static_cast<std::uint8_t>(lngAccessRights & 3));
    return tags_.emplace_back(*this, number, static_cast<std::int16_t>(varValue.kind()));
}

void PlantItems::refuseChange() const {
    if (isClosed()) {
        throw RuntimeError(errors::invalidCall,
                           "Items can be added and described only before the server lets clients in");
    }
}

PlantTag& PlantItems::Item(std::string_view strName) {
    const auto number = names_.find(strName);
    if (!number) {
        throw RuntimeError(errors::invalidCall);
    }
    return tags_[*number];
}

void PlantItems::setSourcesLost(bool lost) {
    if ((writing_ != nullptr ? writing_ : newest_)->sourcesLost != lost) {
        (writing_ != nullptr ? *writing_ : begin()).sourcesLost = lost;
    }
}

// The second block comes now, so that no pass has to wait for its memory.
void PlantItems::close(std::function<void()> begun) {
    begun_ = std::move(begun);
    details_.close();
    writing_->values.shrink_to_fit();
    writing_ = nullptr;
    ItemBlock& second = *blocks_.emplace_back(std::make_unique<ItemBlock>());
    second.values.resize(tags_.size());
    second.mark = newest_->mark;
    free_.push_back(&second);
}

ItemBlock& PlantItems::begin() {
    if (free_.empty()) {
        ItemBlock& another = *blocks_.emplace_back(std::make_unique<ItemBlock>());
        another.values.resize(tags_.size());
        free_.push_back(&another);
    }
    writing_ = free_.back();
    free_.pop_back();
    // All its items carry the mark of the batch that it was before.
    writing_->mark ^= 1;
    writing_->stamps.clear();
    writing_->sourcesLost = newest_->sourcesLost;
    written_ = 0;
    begun_();
    return *writing_;
}

const ItemBlock* PlantItems::takeBatch() {
    if (writing_ == nullptr) {
        return nullptr;
    }
    completeBatch();
    newest_ = writing_;
    writing_ = nullptr;
    return newest_;
}

// A site whose pass failed, and an item that the control refused a value for, keep what they had.
void PlantItems::completeBatch() {
    if (written_ == tags_.size()) {
        return;
    }
    for (std::size_t number = 0; number < tags_.size(); ++number) {
        ItemValue& item = writing_->values[number];
        if (item.mark != writing_->mark) {
            const ItemValue& before = newest_->values[number];
            const std::uint32_t place = writing_->placeOf(newest_->stampOf(before));
            item = {before.value, place, before.quality, writing_->mark};
        }
    }
}

void PlantItems::giveBack(const ItemBlock& batch) {
    const auto found =
        std::find_if(blocks_.begin(), blocks_.end(), [&](const auto& each) { return each.get() == &batch; });
    (*found)->shrinkStamps();
    free_.push_back(found->get());
}

}  // namespace quelm
