#pragma once

// The parameters of the calls that go to clients' sinks. The values of a callback are written down in their wire form
// while they are converted, and a message is put together from whole columns. One for all sinks, so that a steady load
// allocates nothing.

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "dcom/ndr/Writer.h"
#include "opcda/Callbacks.h"

namespace quelm::opcda::wire {

using Message = std::shared_ptr<std::vector<std::uint8_t>>;

class CallbackMessages final : public IValueWriter {
 public:
    CallbackMessages() = default;
    CallbackMessages(const CallbackMessages&) = delete;
    CallbackMessages& operator=(const CallbackMessages&) = delete;

    void begin(ValueForm form) override;
    void add(const OpcValue& value) override;
    std::size_t size() const override { return values_.size(); }

    // OnDataChange and OnReadComplete: the items with the values that were written since begin(), one each.
    Message items(const CallbackItems& items);
    // OnWriteComplete. Both spans are of one length.
    Message writeComplete(std::uint32_t transaction, std::uint32_t clientGroup, HResult masterError,
                          std::span<const std::uint32_t> clientHandles, std::span<const HResult> errors);
    Message cancelComplete(std::uint32_t transaction, std::uint32_t clientGroup);
    Message shutdownRequest(std::string_view reason);
    // IAdviseSink's OnDataChange: the same items, their values written in memory's form, with their time stamps or
    // without; and what became of writes.
    Message dataStream(const CallbackItems& items, Stream stream);
    Message writeStream(std::uint32_t transaction, std::uint32_t clientGroup, HResult masterError,
                        std::span<const std::uint32_t> clientHandles, std::span<const HResult> errors);

    // One that was answered, to be used again unless somebody else still has it.
    void giveBack(Message message);

 private:
    // Bytes that stay: a callback with 200,000 numbers. What a larger one took is given back.
    static constexpr std::size_t kept = std::size_t{8} << 20U;

    Message take(std::size_t size);

    std::vector<std::uint8_t> values_;
    ValueForm form_ = ValueForm::marshalled;
    std::vector<std::uint32_t> places_;  // of the values, where each has to be told
    // Made anew for each callback, as it counts the pointers that it writes.
    std::optional<dcom::ndr::Writer> out_;
    Message spare_;
};

}  // namespace quelm::opcda::wire
