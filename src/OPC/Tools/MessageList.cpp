#include "OPC/Tools/MessageList.h"

#include <algorithm>
#include <array>

#include "Messages/MessageTypeNames.h"
#include "OPC/Tools/Terminal.h"

namespace quelm::tools {

namespace {

// The definitions, the pending record, the snapshot or a new record could not be had from the database.
constexpr std::array databaseFailures{"OPC-0154: ", "OPC-0186: ", "OPC-0192: ", "OPC-0205: "};

bool isProgress(std::int32_t type) {
    return type == msgtype::progress || type == msgtype::information;
}

bool isDatabaseFailure(const MessageList::Entry& entry) {
    return std::any_of(databaseFailures.begin(), databaseFailures.end(),
                       [&](const char* code) { return entry.text.starts_with(code); });
}

}  // namespace

void MessageList::begin(bool isVerbose) {
    entries_.clear();
    isVerbose_ = isVerbose;
}

// Must not throw; a message for which there is no memory is lost.
void MessageList::RaiseMsg(std::int32_t lngMsgType, std::string_view strDescription) {
    if (isProgress(lngMsgType) && !isVerbose_) {
        return;
    }
    try {
        showProblem(messageTypeName(lngMsgType) + " " + std::string(strDescription));
        entries_.push_back({lngMsgType, std::string(strDescription)});
    } catch (const std::exception&) {
    }
}

bool MessageList::hasErrorSince(std::size_t count) const {
    return std::any_of(entries_.begin() + static_cast<std::ptrdiff_t>(count), entries_.end(), [](const Entry& entry) {
        return entry.type == msgtype::error || entry.type == msgtype::multiValueError;
    });
}

bool MessageList::hasDatabaseFailureSince(std::size_t count) const {
    return std::any_of(entries_.begin() + static_cast<std::ptrdiff_t>(count), entries_.end(), isDatabaseFailure);
}

}  // namespace quelm::tools
