#pragma once

// The control as the OPC side sees it, on the network's thread: the items that clients read, who holds the server, and
// what a client asks of the plant. Nothing here waits: the plant's answer comes when its handler has run.

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <unordered_map>
#include <vector>

#include "base/HResult.h"
#include "slikda/ClientDoor.h"
#include "slikda/Crossing.h"
#include "slikda/ISLIKServer.h"
#include "slikda/ItemStore.h"

namespace quelm {

// One item of a device read and what the OnRead handler put into it.
class RequestedItem final : public ISLIKRequestedItem {
 public:
    // stamps: the plant's, which fills the item in.
    RequestedItem(const SLIKTag& tag, StampConverter& stamps) : name_(&tag.Name()), stamps_(&stamps) {}

    const std::string& Name() const override { return *name_; }
    void SetVQT(const Variant& varValue, std::int16_t intQuality, Date dtmTimestamp) override;

    // False: the handler left this item as it was.
    bool isFilled() const { return filled_; }
    const Variant& value() const { return value_; }
    std::uint16_t qualityWord() const { return quality_; }
    std::int64_t fileTime() const { return fileTime_; }  // UTC, FILETIME

 private:
    const std::string* name_;
    StampConverter* stamps_;
    Variant value_;
    std::int64_t fileTime_ = 0;
    std::uint16_t quality_ = 0;
    bool filled_ = false;
};

// What the network asks of the plant's half of the control; each is called on the plant's thread.
class IPlantSide {
 public:
    virtual ~IPlantSide() = default;
    virtual void raiseDisconnect(std::int32_t remaining) noexcept = 0;
    // The event's error code.
    virtual HResult raiseRead(const std::vector<ISLIKRequestedItem*>& items) noexcept = 0;
    virtual HResult raiseWrite(std::size_t count) noexcept = 0;
    // To be used on the plant's thread only.
    virtual StampConverter& stamps() = 0;
};

class SLIKNetwork {
 public:
    // error: of the event; readings: one entry for each tag that was asked for, valid during the call.
    using ReadDone = std::function<void(HResult error, std::span<const RequestedItem> readings)>;
    using WriteDone = std::function<void(HResult error)>;

    SLIKNetwork(ItemStore& items, Crossing& crossing, ClientDoor& door, IPlantSide& plant)
        : items_(&items), crossing_(&crossing), door_(&door), plant_(&plant) {}
    SLIKNetwork(const SLIKNetwork&) = delete;
    SLIKNetwork& operator=(const SLIKNetwork&) = delete;

    const ItemStore& items() const { return *items_; }

    // Called each time that clients see new values, on the network's thread; nullptr: nobody asks for it.
    void onValuesShown(std::function<void()> hook) { valuesShown_ = std::move(hook); }
    // For the control: a new block of values is shown.
    void valuesShown() {
        if (valuesShown_) {
            valuesShown_();
        }
    }

    // A client's server object came into being. False: the server is going and takes nobody any more.
    bool clientCreated() { return door_->enter(); }
    // A client's server object is gone for good (released or run down).
    void clientGone();
    std::int32_t clientCount() const { return door_->count(); }

    // A client's device read: OnRead once with the whole list, done once, maybe before this returns. Nothing is raised
    // for an empty list. What all clients wait for together is bounded by the number of items there are; beyond that
    // the answer is E_OUTOFMEMORY at once.
    void deviceRead(std::span<const SLIKTag* const> tags, ReadDone done);
    // A client's write of so many items: OnWrite once, unless there are none; its error code applies to every item.
    void write(std::size_t count, WriteDone done);
    // Reads of clients that the plant has not answered yet.
    std::size_t waitingReads() const { return reads_.size(); }
    // The network closes: what the plant still answers, nobody waits for any more.
    void forgetQuestions();

 private:
    // Every item several times over, or some small requests of many clients.
    std::size_t mostAsked() const { return 8 * items_->Count() + 4096; }

    ItemStore* items_;
    Crossing* crossing_;
    ClientDoor* door_;
    IPlantSide* plant_;
    std::function<void()> valuesShown_;
    // What the plant has still to answer for, which never leaves this thread: items, and who waits for them.
    std::size_t asked_ = 0;
    std::uint64_t lastQuestion_ = 0;
    std::unordered_map<std::uint64_t, ReadDone> reads_;
    std::unordered_map<std::uint64_t, WriteDone> writes_;
};

}  // namespace quelm
