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

    struct Counts {
        std::size_t errors = 0;  // refusals and failures, those of the database included
        std::size_t databaseFailures = 0;
    };

    // Forgets the entries so far. Progress messages are kept and shown only with isVerbose. What only repeats, as every
    // look at a silent I/O server does while a command waits, is kept and shown once.
    void begin(bool isVerbose);
    void RaiseMsg(std::int32_t lngMsgType, std::string_view strDescription) override;

    const std::vector<Entry>& entries() const { return entries_; }
    // Since the program's start, repetitions included.
    const Counts& counts() const { return counts_; }

 private:
    bool isRepetition(std::int32_t type, std::string_view text) const;

    std::vector<Entry> entries_;
    Counts counts_;
    bool isVerbose_ = false;
};

}  // namespace quelm::tools
