#pragma once

// The values of one callback in the form of the wire: VARIANT bodies one behind the other.

#include <cstdint>
#include <span>
#include <vector>

#include "opcda/Callbacks.h"
#include "opcda/wire/WireVariant.h"

namespace quelm::opcda::wire {

class CallbackValues final : public IValueWriter {
 public:
    void begin() override { bytes_.clear(); }
    void add(const OpcValue& value) override {
        dcom::ndr::Writer out(bytes_);
        writeVariant(out, value);
        out.align(8);
    }
    std::size_t size() const override { return bytes_.size(); }

    std::span<const std::uint8_t> bytes() const { return bytes_; }

 private:
    std::vector<std::uint8_t> bytes_;
};

}  // namespace quelm::opcda::wire
