#pragma once

// The message sink: every line that the server shows or logs goes through one of these.

#include <cstdint>
#include <string_view>

namespace quelm {

// Message types in use; others travel unchanged.
namespace msgtype {
inline constexpr std::int32_t progress = 0;
inline constexpr std::int32_t information = 1;
inline constexpr std::int32_t notice = 2;
inline constexpr std::int32_t error = 4;
inline constexpr std::int32_t multiValueError = 20484;
}  // namespace msgtype

class IRaiseMsg {
 public:
    virtual ~IRaiseMsg() = default;
    // Must not throw: handlers report through it from inside their catch blocks.
    virtual void RaiseMsg(std::int32_t lngMsgType, std::string_view strDescription) = 0;
    // From true to false the messages are a list, of a line for each item maybe: as ILogWriter::CollectLines().
    virtual void CollectMessages(bool /*blnOn*/) {}
};

// What is raised during its lifetime is a list.
class MessageListing {
 public:
    explicit MessageListing(IRaiseMsg& objRaiseMsg) : objRaiseMsg_(&objRaiseMsg) { objRaiseMsg.CollectMessages(true); }
    ~MessageListing() { objRaiseMsg_->CollectMessages(false); }
    MessageListing(const MessageListing&) = delete;
    MessageListing& operator=(const MessageListing&) = delete;

 private:
    IRaiseMsg* objRaiseMsg_;
};

}  // namespace quelm
