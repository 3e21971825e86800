#include "DCOM/rpc/Refusal.h"

#include <fmt/format.h>

#include <utility>

namespace quelm::dcom::rpc {

namespace {

// Client text in a log line: no line breaks or other control characters, and not without end.
std::string printable(std::string_view text) {
    constexpr std::size_t longest = 128;
    std::string result(text.substr(0, longest));
    for (char& c : result) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
            c = '?';
        }
    }
    return result;
}

}  // namespace

std::string Refusal::line(std::string_view settings) const {
    const std::string who = account.empty() ? "no account" : fmt::format("account '{}'", printable(account));
    return fmt::format("Refused OPC client {}: {}, level {}: {}; remedy: {}", peer.remoteAddress, who, levelName(level),
                       fmt::format(fmt::runtime(refusalText(reason)), detail),
                       fmt::format(fmt::runtime(refusalRemedy(reason)), settings));
}

void RefusalReporter::report(RefusalReason reason, std::string_view account, AuthLevel level, std::string detail) {
    if (sink_ && !std::exchange(reported_, true)) {
        sink_({peer_, account, level, reason, std::move(detail)});
    }
}

}  // namespace quelm::dcom::rpc
