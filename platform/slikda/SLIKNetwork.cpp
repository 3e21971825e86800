#include "slikda/SLIKNetwork.h"

#include <utility>

#include "base/RuntimeError.h"

namespace quelm {

namespace {

// One device read on its way to the plant and back.
struct DeviceRead {
    std::vector<RequestedItem> items;
    std::vector<ISLIKRequestedItem*> list;
    std::uint64_t question = 0;
    HResult error = S_OK;
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
        done(S_OK, {});
        return;
    }
    if (asked_ + tags.size() > mostAsked()) {
        done(E_OUTOFMEMORY, {});
        return;
    }
    const auto read = std::make_shared<DeviceRead>();
    read->items.reserve(tags.size());
    for (const SLIKTag* tag : tags) {
        read->list.push_back(&read->items.emplace_back(*tag, plant_->stamps()));
    }
    read->question = ++lastQuestion_;
    reads_.emplace(read->question, std::move(done));
    asked_ += tags.size();
    crossing_->toPlant([this, read] {
        read->error = plant_->raiseRead(read->list);
        crossing_->toNetwork([this, read] {
            asked_ -= read->items.size();
            if (const auto waiting = reads_.extract(read->question)) {
                waiting.mapped()(read->error, read->items);
            }
        });
    });
}

void SLIKNetwork::write(std::size_t count, WriteDone done) {
    if (count == 0) {
        done(S_OK);
        return;
    }
    if (asked_ >= mostAsked()) {
        done(E_OUTOFMEMORY);
        return;
    }
    ++asked_;
    writes_.emplace(++lastQuestion_, std::move(done));
    crossing_->toPlant([this, count, question = lastQuestion_] {
        const HResult error = plant_->raiseWrite(count);
        crossing_->toNetwork([this, error, question] {
            --asked_;
            if (const auto waiting = writes_.extract(question)) {
                waiting.mapped()(error);
            }
        });
    });
}

void SLIKNetwork::forgetQuestions() {
    reads_.clear();
    writes_.clear();
}

}  // namespace quelm
