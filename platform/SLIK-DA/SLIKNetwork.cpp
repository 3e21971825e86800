#include "SLIK-DA/SLIKNetwork.h"

#include <utility>

#include "Shared Types/RuntimeError.h"

namespace quelm {

namespace {

// One device read on its way to the plant and back.
struct DeviceRead {
    std::vector<RequestedItem> items;
    std::vector<ISLIKRequestedItem*> list;
    SLIKNetwork::ReadDone done;
};

}  // namespace

void RequestedItem::SetVQT(const Variant& varValue, std::int16_t intQuality, Date dtmTimestamp) {
    if (varValue.kind() == VariantKind::Object) {
        throw RuntimeError(errors::typeMismatch);
    }
    value_ = varValue;
    quality_ = static_cast<std::uint16_t>(intQuality);
    fileTime_ = stamps_->fileTime(dtmTimestamp);
    filled_ = true;
}

void SLIKNetwork::clientGone() {
    crossing_->toPlant([plant = plant_, remaining = door_->leave()] { plant->raiseDisconnect(remaining); });
}

void SLIKNetwork::deviceRead(std::span<const SLIKTag* const> tags, ReadDone done) {
    if (tags.empty()) {
        done(0, {});
        return;
    }
    if (asked_ + tags.size() > mostAsked()) {
        done(outOfMemory, {});
        return;
    }
    const auto read = std::make_shared<DeviceRead>();
    read->items.reserve(tags.size());
    for (const SLIKTag* tag : tags) {
        read->list.push_back(&read->items.emplace_back(*tag, plant_->stamps()));
    }
    read->done = std::move(done);
    asked_ += tags.size();
    crossing_->toPlant([this, read] {
        const std::int32_t error = plant_->raiseRead(read->list);
        crossing_->toNetwork([this, read, error] {
            asked_ -= read->items.size();
            read->done(error, read->items);
        });
    });
}

void SLIKNetwork::write(std::size_t count, WriteDone done) {
    if (count == 0) {
        done(0);
        return;
    }
    if (asked_ >= mostAsked()) {
        done(outOfMemory);
        return;
    }
    ++asked_;
    crossing_->toPlant([this, count, done = std::move(done)]() mutable {
        const std::int32_t error = plant_->raiseWrite(count);
        crossing_->toNetwork([this, error, done = std::move(done)] {
            --asked_;
            done(error);
        });
    });
}

}  // namespace quelm
