#include "opcda/wire/CallbackMessages.h"

#include "opcda/wire/Parameters.h"
#include "opcda/wire/WireVariant.h"

namespace quelm::opcda::wire {

using dcom::ndr::Writer;

namespace {

// What stands before, between and behind the columns.
constexpr std::size_t betweenColumns = 64;

// An [in, size_is(count)] array: an empty one has its conformance, for there are no null pointers here.
template <class T>
void writeColumn(Writer& out, std::span<const T> column) {
    out.u32(static_cast<std::uint32_t>(column.size()));
    out.bytes({reinterpret_cast<const std::uint8_t*>(column.data()), column.size_bytes()});
}

// Pointers ahead of what they point to.
void writeReferents(Writer& out, std::uint32_t count) {
    constexpr std::uint32_t first = 0x00020004;
    out.u32(count);
    std::uint8_t* at = out.extend(std::size_t{count} * 4);
    for (std::uint32_t i = 0; i < count; ++i) {
        at = put(at, first + 4 * i);
    }
}

}  // namespace

void CallbackMessages::begin() {
    values_.clear();
    if (values_.capacity() > kept) {
        values_ = {};
    }
    out_.emplace(values_);
}

void CallbackMessages::add(const OpcValue& value) {
    writeVariant(*out_, value);
}

// Nothing is written between the last value and the next column but what that needs itself: clients exist that fail
// over more.
Message CallbackMessages::items(const CallbackItems& items) {
    constexpr std::size_t itemSize = 4 + 4 + 2 + 8 + 4;
    const std::size_t count = items.clientHandles.size();
    Message message = take(betweenColumns + count * itemSize + values_.size());
    Writer out(*message);
    out.u32(items.transaction);
    out.u32(items.clientGroup);
    out.hresult(items.masterQuality);
    out.hresult(items.masterError);
    out.u32(static_cast<std::uint32_t>(count));
    writeColumn<std::uint32_t>(out, items.clientHandles);
    writeReferents(out, static_cast<std::uint32_t>(count));
    if (count != 0) {
        out.align(8);
        out.bytes(values_);
    }
    writeColumn<std::uint16_t>(out, items.qualities);
    writeColumn<std::int64_t>(out, items.fileTimes);
    writeColumn<HResult>(out, items.errors);
    return message;
}

Message CallbackMessages::writeComplete(std::uint32_t transaction, std::uint32_t clientGroup, HResult masterError,
                                        std::span<const std::uint32_t> clientHandles, std::span<const HResult> errors) {
    Message message = take(betweenColumns + clientHandles.size_bytes() + errors.size_bytes());
    Writer out(*message);
    out.u32(transaction);
    out.u32(clientGroup);
    out.hresult(masterError);
    out.u32(static_cast<std::uint32_t>(clientHandles.size()));
    writeColumn(out, clientHandles);
    writeColumn(out, errors);
    return message;
}

Message CallbackMessages::cancelComplete(std::uint32_t transaction, std::uint32_t clientGroup) {
    Message message = take(betweenColumns);
    Writer out(*message);
    out.u32(transaction);
    out.u32(clientGroup);
    return message;
}

Message CallbackMessages::shutdownRequest(std::string_view reason) {
    Message message = take(betweenColumns + 2 * reason.size());
    Writer out(*message);
    out.wideString(reason);
    return message;
}

Message CallbackMessages::take(std::size_t size) {
    Message message =
        spare_ != nullptr ? std::exchange(spare_, nullptr) : std::make_shared<std::vector<std::uint8_t>>();
    message->clear();
    message->reserve(size);
    return message;
}

void CallbackMessages::giveBack(Message message) {
    if (message.use_count() == 1 && message->capacity() <= kept) {
        spare_ = std::move(message);
    }
}

}  // namespace quelm::opcda::wire
