#include "OPC/Tools/MessageList.h"

#include <algorithm>
#include <array>

#include "Messages/MessageTypeNames.h"
#include "OPC/Tools/Terminal.h"

namespace quelm::tools {

namespace {

// The definitions, the pending record, the snapshot or a new record could not be had from the database.
constexpr std::array databaseFailures{"OPC-0154: ", "OPC-0186: ", "OPC-0192: ", "OPC-0205: "};

bool isError(std::int32_t type) {
    return type == msgtype::error || type == msgtype::multiValueError;
}

// The lines with which a generation's answer changes from the unanswered are the answer's own business.
bool isProgress(std::int32_t type, std::string_view text) {
    return type == msgtype::progress || type == msgtype::information || text.starts_with("OPC-0165: ") ||
           text.starts_with("OPC-0167: ");
}

// A notice of silence up to the seconds, which grow from one look to the next.
std::string_view upToSeconds(std::string_view text) {
    return text.substr(0, text.find("Elapsed="));
}

bool isDatabaseFailure(std::string_view text) {
    return std::any_of(databaseFailures.begin(), databaseFailures.end(),
                       [&](const char* code) { return text.starts_with(code); });
}

}  // namespace

void MessageList::begin(bool isVerbose) {
    entries_.clear();
    isVerbose_ = isVerbose;
}

// Must not throw; a message for which there is no memory is lost.
void MessageList::RaiseMsg(std::int32_t lngMsgType, std::string_view strDescription) {
    counts_.errors += isError(lngMsgType) ? 1 : 0;
    counts_.databaseFailures += isDatabaseFailure(strDescription) ? 1 : 0;
    if (isProgress(lngMsgType, strDescription) && !isVerbose_) {
        return;
    }
    try {
        if (isRepetition(lngMsgType, strDescription)) {
            return;
        }
        showProblem(messageTypeName(lngMsgType) + " " + std::string(strDescription));
        entries_.push_back({lngMsgType, std::string(strDescription)});
    } catch (const std::exception&) {
    }
}

bool MessageList::isRepetition(std::int32_t type, std::string_view text) const {
    return std::any_of(entries_.begin(), entries_.end(), [&](const Entry& entry) {
        return entry.type == type &&
               (entry.text == text || (type == msgtype::notice && upToSeconds(entry.text) == upToSeconds(text)));
    });
}

}  // namespace quelm::tools
