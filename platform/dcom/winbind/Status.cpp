#include "dcom/winbind/Status.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "dcom/Printable.h"

namespace quelm::dcom::winbind {

namespace {

struct Row {
    std::uint32_t code;
    RefusalReason reason;
    std::string_view detail;
};

using enum RefusalReason;

constexpr std::string_view noController = "none of its controllers answers";
constexpr std::string_view badJoin = "this machine's join to it is not valid any more; join it anew";

constexpr std::array<Row, 27> rows = {{
    {0xC0000022, DomainAway, badJoin},
    {0xC000005E, DomainAway, noController},
    {0xC0000064, DomainUnknown, ""},
    {0xC000006A, DomainPassword, ""},
    {0xC000006D, DomainRefused, "the password is wrong, or the client answered to the name of another machine"},
    {0xC000006E, DomainRefused, "its use is restricted"},
    {0xC000006F, DomainRefused, "it may not log on at this time of the week"},
    {0xC0000070, DomainRefused, "it may not log on from the client's machine"},
    {0xC0000071, DomainRefused, "its password has expired"},
    {0xC0000072, DomainRefused, "it is disabled"},
    {0xC00000AC, DomainAway, noController},
    {0xC00000B5, DomainAway, noController},
    {0xC00000BE, DomainAway, noController},
    {0xC00000DF, DomainUnknown, ""},
    {0xC000015B, DomainRefused, "it may not log on over the network"},
    {0xC000018A, DomainAway, badJoin},
    {0xC000018B, DomainAway, badJoin},
    {0xC000018D, DomainAway, badJoin},
    {0xC0000193, DomainRefused, "it has expired"},
    {0xC000020C, DomainAway, noController},
    {0xC000020D, DomainAway, noController},
    {0xC0000224, DomainRefused, "its password must be changed first"},
    {0xC0000233, DomainAway, noController},
    {0xC0000234, DomainRefused, "it is locked after too many wrong passwords"},
    {0xC0000236, DomainAway, noController},
    {0xC0000413, DomainRefused, "its domain does not let it log on to this machine"},
    {0xC0000418, DomainRefused, "the domain forbids NTLM: let the client use the server's name, for a ticket"},
}};
static_assert(std::ranges::is_sorted(rows, {}, &Row::code));

}  // namespace

Status statusOf(std::uint32_t code, const char* name) {
    const auto* const row = std::ranges::lower_bound(rows, code, {}, &Row::code);
    if (row != rows.end() && row->code == code) {
        return {row->reason, std::string(row->detail)};
    }
    return {DomainRefused, fmt::format("{}, {:#010x}", printable(name != nullptr ? name : "status"), code)};
}

}  // namespace quelm::dcom::winbind
