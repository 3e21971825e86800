#include "dcom/rpc/Refusal.h"

#include <fmt/format.h>

#include <utility>

#include "dcom/Printable.h"

namespace quelm::dcom::rpc {

std::string Refusal::line(std::string_view settings) const {
    const std::string who = account.empty() ? "no account" : fmt::format("account '{}'", printable(account));
    return fmt::format("Refused OPC client {}: {}, level {}: {}; remedy: {}", peer.remoteAddress, who, levelName(level),
                       fmt::format(fmt::runtime(refusalText(reason)), detail),
                       fmt::format(fmt::runtime(refusalRemedy(reason)), settings));
}

std::string Refusal::kind() const {
    return fmt::format("{} {} {}", static_cast<int>(reason), levelName(level), account);
}

void RefusalReporter::report(RefusalReason reason, std::string_view account, AuthLevel level, std::string detail) {
    if (sink_ && !std::exchange(reported_, true)) {
        sink_({peer_, account, level, reason, std::move(detail)});
    }
}

}  // namespace quelm::dcom::rpc
