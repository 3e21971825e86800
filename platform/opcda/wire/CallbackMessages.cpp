#include "opcda/wire/CallbackMessages.h"

#include "opcda/wire/Parameters.h"
#include "opcda/wire/StreamFormats.h"
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

void CallbackMessages::begin(ValueForm form) {
    form_ = form;
    places_.clear();
    values_.clear();
    if (values_.capacity() > kept) {
        values_ = {};
        places_ = {};
    }
    out_.emplace(values_);
}

void CallbackMessages::add(const OpcValue& value) {
    if (form_ == ValueForm::marshalled) {
        writeVariant(*out_, value);
    } else {
        out_->align(8);
        places_.push_back(static_cast<std::uint32_t>(values_.size()));
        writeInMemory(*out_, value);
    }
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

// The heads of all items stand behind the one of all, and the values, which they point to, behind both.
Message CallbackMessages::dataStream(const CallbackItems& items, Stream stream) {
    const bool hasTimes = stream == Stream::timedValues;
    const std::size_t count = items.clientHandles.size();
    const std::size_t headSize = hasTimes ? 20 : 12;
    const std::size_t heads = (20 + count * headSize + 7) & ~std::size_t{7};
    const std::size_t size = heads + values_.size();
    Message message = take(streamHeadSize + size);
    Writer out(*message);
    writeStreamHead(out, stream, size);
    const bool isGood = items.masterQuality == S_OK && items.masterError == S_OK;
    std::uint8_t* at = out.extend(heads);
    for (const std::uint32_t word : {static_cast<std::uint32_t>(size), static_cast<std::uint32_t>(count),
                                     items.clientGroup, items.transaction, isGood ? 0U : 1U}) {
        at = put(at, word);
    }
    for (std::size_t i = 0; i < count; ++i) {
        at = put(at, items.clientHandles[i]);
        at = put(at, static_cast<std::uint32_t>(heads + places_[i]));
        at = put(at, std::uint32_t{items.qualities[i]});  // and a reserved half
        at = hasTimes ? put(at, items.fileTimes[i]) : at;
    }
    out.bytes(values_);
    return message;
}

Message CallbackMessages::writeStream(std::uint32_t transaction, std::uint32_t clientGroup, HResult masterError,
                                      std::span<const std::uint32_t> clientHandles, std::span<const HResult> errors) {
    const std::size_t count = clientHandles.size();
    const std::size_t size = 16 + count * 8;
    Message message = take(streamHeadSize + size);
    Writer out(*message);
    writeStreamHead(out, Stream::writes, size);
    std::uint8_t* at = out.extend(size);
    at = put(put(put(put(at, static_cast<std::uint32_t>(count)), clientGroup), transaction), masterError);
    for (std::size_t i = 0; i < count; ++i) {
        at = put(put(at, clientHandles[i]), errors[i]);
    }
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
