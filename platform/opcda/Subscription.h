#pragma once

// A sink that a client advised to a group, and what it has been sent: it gets what differs from that, no more often
// than the group's update rate allows, and nothing while it has not answered yet. Values that change meanwhile don't
// pile up: the newest one is sent. Where nothing was to be sent for long, an empty callback says that the server lives.

#include <bit>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <vector>

#include "opcda/Callbacks.h"
#include "opcda/Coercion.h"
#include "opcda/Publisher.h"

namespace quelm::opcda {

class Group;

// An item as it was sent: enough to know whether it is another one now.
struct SentItem {
    static constexpr VarType never = std::numeric_limits<VarType>::max();

    std::uint64_t value = 0;  // numbers exactly, others by their hash
    HResult error = S_OK;
    std::uint16_t quality = 0;
    VarType type = never;
    bool operator==(const SentItem&) const = default;
};

static_assert(sizeof(SentItem) == 16);

std::uint64_t hashOfLarge(const OpcValue& value);

// Stands for a value in SentItem.
inline std::uint64_t fingerprint(const OpcValue& value) {
    switch (value.type) {
        case VT_EMPTY:
        case VT_NULL:
            return 0;
        case VT_R4:
            return std::bit_cast<std::uint32_t>(value.single);
        case VT_R8:
        case VT_DATE:
            return std::bit_cast<std::uint64_t>(value.real);
        case VT_BSTR:
        case VT_DECIMAL:
        case VT_BSTR_ARRAY:
            return hashOfLarge(value);
        default:
            return static_cast<std::uint64_t>(value.integer);
    }
}

class Subscription final : public Publisher::Member {
 public:
    // Bytes that it takes without its items, the client's object behind the sink included.
    static constexpr std::size_t footprint = 1024;

    // stream: what it was advised for alone; none: for everything.
    Subscription(Publisher& publisher, Group& group, std::unique_ptr<IDataSink> sink,
                 std::optional<Stream> stream = std::nullopt);

    IDataSink& sink() { return *sink_; }
    std::optional<Stream> stream() const { return stream_; }
    bool isBusy() const { return sink_->unanswered() > 0; }
    // Monotonic milliseconds: when it was called last, or came into being.
    std::uint64_t lastCalled() const { return lastCalled_; }

    std::optional<std::uint64_t> due() const override;
    std::size_t deliver(std::uint64_t now) override;

 private:
    friend class Group;

    void coverSlots(std::size_t slots, std::size_t capacity) {
        if (sent_.size() != slots) {
            sent_.reserve(capacity);
            sent_.resize(slots);
        }
    }

    // Streams have refreshes of their own.
    bool awaitsRefresh() const;
    // As due(), whatever holds them up.
    std::optional<std::uint64_t> changesDue() const;

    Group* group_;
    std::unique_ptr<IDataSink> sink_;
    std::optional<Stream> stream_;
    std::vector<SentItem> sent_;  // by the group's slots; what is not there was not sent
    std::uint64_t seenBlock_ = 0;
    std::optional<std::uint64_t> lastSent_;  // monotonic milliseconds
    std::uint64_t lastCalled_;               // monotonic milliseconds: with data or the end of a transaction
    std::size_t next_ = 0;                   // slot at which a callback was cut
    bool isChanged_ = true;                  // there is something new besides values
    bool isCut_ = false;                     // the rest follows as soon as the sink has answered
};

}  // namespace quelm::opcda
