#pragma once

// The reply of a read by maximum age: values, qualities, time stamps and errors, a column each. The values go into the
// reply as they are read; what stands behind them is kept until all are there.

#include <vector>

#include "opcda/CallBuffers.h"
#include "opcda/wire/Parameters.h"
#include "opcda/wire/WireVariant.h"

namespace quelm::opcda::wire {

class ValueColumns {
 public:
    // For so many items. memoryLeft: bytes that the client's budget has left. behind: reused without allocation when it
    // is large enough.
    ValueColumns(dcom::ndr::Writer& out, std::size_t memoryLeft, std::size_t count, std::vector<BehindValue>& behind);

    // False: the reply is too large, and what is added makes no difference any more.
    bool hasRoom() const { return hasRoom_; }
    void add(HResult error, std::uint16_t quality, std::int64_t fileTime, const OpcValue& value) {
        if (hasRoom_) {
            put(out_.buffer().data() + nextReferent_, referent_ += 4);
            nextReferent_ += sizeof referent_;
            writeVariant(out_, value);
            behind_.push_back({fileTime, error, quality});
            hasRoom_ = room_.has(behindSize_);
        }
    }
    // Takes back what was written.
    void clear() { room_.clear(); }
    // The other columns and the read's result; E_OUTOFMEMORY alone when there was no room. True: a value was sent.
    bool end(HResult result);

 private:
    template <class Column>
    void writeColumn(Column BehindValue::*column);

    dcom::ndr::Writer& out_;
    ReplyRoom room_;
    std::vector<BehindValue>& behind_;
    std::size_t behindSize_;
    bool hasRoom_;
    std::size_t nextReferent_ = 0;
    // Apart from those that the writer itself gives, so that no two pointers of the reply look alike.
    std::uint32_t referent_ = 0x40000000;
};

// The reply of such a read that failed as a whole. Gives Fault::None, the call being answered.
dcom::Fault refuseColumns(dcom::ndr::Writer& out, HResult result);

}  // namespace quelm::opcda::wire
