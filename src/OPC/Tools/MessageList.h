#pragma once

// The messages of the I/O server link while one command runs: shown on standard error as they come, kept for the
// command's answer, and asked afterwards whether the command was refused or the database failed.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Messages/IRaiseMsg.h"

namespace quelm::tools {

class MessageList final : public IRaiseMsg {
 public:
    struct Entry {
        std::int32_t type;
        std::string text;
    };

    // Progress messages are kept and shown only with isVerbose.
    void begin(bool isVerbose);
    void RaiseMsg(std::int32_t lngMsgType, std::string_view strDescription) override;

    const std::vector<Entry>& entries() const { return entries_; }
    // What came after the first count entries.
    bool hasErrorSince(std::size_t count) const;
    bool hasDatabaseFailureSince(std::size_t count) const;

 private:
    std::vector<Entry> entries_;
    bool isVerbose_ = false;
};

}  // namespace quelm::tools
