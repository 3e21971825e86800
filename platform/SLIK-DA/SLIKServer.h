#pragma once

// The OPC DA server control: owns the items, counts the clients, raises the events. Opening the network and telling
// clients to leave is done by whoever sets the hooks; the OPC side reports its clients and reads here.

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "SLIK-DA/ISLIKServer.h"
#include "SLIK-DA/ItemStore.h"
#include "Shared Types/RuntimeError.h"

namespace quelm {

// One item of a device read and what the OnRead handler put into it.
class RequestedItem final : public ISLIKRequestedItem {
 public:
    const std::string& Name() const override { return tag_->Name(); }
    void SetVQT(const Variant& varValue, std::int16_t intQuality, Date dtmTimestamp) override;

    const SLIKTag& tag() const { return *tag_; }
    // False: the handler left this item as it was.
    bool isFilled() const { return filled_; }
    const Variant& value() const { return value_; }
    std::uint16_t qualityWord() const { return quality_; }
    std::int64_t fileTime() const { return fileTime_; }

 private:
    friend class SLIKServer;
    void ask(const SLIKTag& tag, StampConverter& stamps);

    const SLIKTag* tag_ = nullptr;
    StampConverter* stamps_ = nullptr;
    Variant value_;
    std::int64_t fileTime_ = 0;
    std::uint16_t quality_ = 0;
    bool filled_ = false;
};

class SLIKServer final : public ISLIKServer {
 public:
    // What the control needs done outside; an unset one makes the operation raise (registration, start) or is left
    // out (the others).
    struct Hooks {
        std::function<void()> openNetwork;       // raises RuntimeError when that is not possible
        std::function<void()> registerServer;    // raises RuntimeError
        std::function<void()> unregisterServer;  // raises RuntimeError
        std::function<void(std::string_view reason)> requestDisconnect;
        // A handler of the events let a failure out.
        std::function<void(std::string_view event, const ErrorInfo& failure)> eventFailed;
    };
    static constexpr std::int32_t failed = static_cast<std::int32_t>(0x80004005U);  // E_FAIL

    void setHooks(Hooks hooks) { hooks_ = std::move(hooks); }

    void SetEvents(ISLIKServerEvents* objEvents) override { events_ = objEvents; }
    void RegisterServer() override;
    void UnregisterServer() override;
    void StartServer() override;
    std::string AppID() const override;
    std::string AppName() const override;
    ItemStore& SLIKTags() override { return items_; }
    void RequestDisconnect(std::string_view strReason) override;
    bool InUse() const override { return clients_ > 0; }

    // For the OPC side: a client's server object came into being or is gone for good (released or run down).
    void clientCreated() { ++clients_; }
    void clientGone() noexcept;
    std::int32_t clientCount() const { return clients_; }

    // A client's device read: OnRead once with the whole list. The result is the event's error code (0: success);
    // readings then hold one entry for each tag, valid until the next call. Nothing is raised for an empty list.
    std::int32_t deviceRead(std::span<const SLIKTag* const> tags, std::span<const RequestedItem>& readings) noexcept;
    // A client's write of so many items: OnWrite once; its error code applies to every item.
    std::int32_t write(std::size_t count) noexcept;

 private:
    void reportFailure(std::string_view event) noexcept;

    Hooks hooks_;
    ISLIKServerEvents* events_ = nullptr;
    ItemStore items_;
    std::int32_t clients_ = 0;
    std::vector<RequestedItem> requested_;
    std::vector<ISLIKRequestedItem*> requestedPointers_;
};

}  // namespace quelm
