#include "opcda/wire/ValueColumns.h"

#include <algorithm>

namespace quelm::opcda::wire {

namespace {

// Bytes of a reply behind its values.
std::size_t sizeBehindValues(std::size_t count) {
    return 64 + count * (sizeof(std::uint16_t) + sizeof(std::int64_t) + sizeof(HResult));
}

}  // namespace

ValueColumns::ValueColumns(dcom::ndr::Writer& out, std::size_t memoryLeft, std::size_t count,
                           std::vector<BehindValue>& behind)
    : out_(out),
      room_(out, memoryLeft),
      behind_(behind),
      behindSize_(sizeBehindValues(count)),
      hasRoom_(room_.has(behindSize_ + count * (sizeof referent_ + scalarVariantSize))) {
    behind_.clear();
    if (hasRoom_) {
        behind_.reserve(count);
        out.buffer().reserve(out.buffer().size() + behindSize_ + count * (sizeof referent_ + scalarVariantSize));
        writeArrayHead(out, count);
        nextReferent_ = out.buffer().size();
        out.extend(count * sizeof referent_);
    }
}

template <class Column>
void ValueColumns::writeColumn(Column BehindValue::*column) {
    writeArrayHead(out_, behind_.size());
    std::uint8_t* at = out_.extend(behind_.size() * sizeof(Column));
    for (const BehindValue& each : behind_) {
        at = put(at, each.*column);
    }
}

bool ValueColumns::end(HResult result) {
    if (failed(result) || !hasRoom_) {
        clear();
        refuseColumns(out_, failed(result) ? result : E_OUTOFMEMORY);
        return false;
    }
    out_.align(4);
    writeColumn(&BehindValue::quality);
    writeColumn(&BehindValue::fileTime);
    writeColumn(&BehindValue::error);
    out_.hresult(result);
    return std::any_of(behind_.begin(), behind_.end(), [](const BehindValue& each) { return each.error == S_OK; });
}

dcom::Fault refuseColumns(dcom::ndr::Writer& out, HResult result) {
    out.nullPointer();
    out.nullPointer();
    out.nullPointer();
    writeErrors(out, result, {});
    return dcom::Fault::None;
}

}  // namespace quelm::opcda::wire
