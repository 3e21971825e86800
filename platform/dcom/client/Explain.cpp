#include "dcom/client/Explain.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>

namespace quelm::dcom::client {

namespace {

using Kind = Trouble::Kind;
using outgoing::Reason;
using outgoing::Step;

std::string_view firewallRemedy(Purpose purpose) {
    return purpose == Purpose::Calling
               ? "the machine itself answers, so let its firewall pass the OPC server's program, whose port is another "
                 "one than that of the activation"
               : "check the address, that the machine is up, and that firewalls pass the activation port and the OPC "
                 "server's program";
}

std::string_view listenRemedy(Purpose purpose) {
    return purpose == Purpose::Calling ? "the OPC server's program has ended, or a firewall turns its port away: try "
                                         "again, then check both"
                                       : "check that the OPC server (on Windows: DCOM) runs there and that the port is "
                                         "the one on which it takes activations";
}

Trouble explainLogOn(const outgoing::Trouble& trouble, const std::string& who) {
    if (who.empty()) {
        return {Kind::LogOnRefused, trouble.address,
                fmt::format("{} takes nobody without a log-on; name a user and a password", trouble.address)};
    }
    return {Kind::LogOnRefused, trouble.address,
            fmt::format("{} refused the log-on of {}; check user, domain and password, that the account may use DCOM "
                        "over the network there, and whether the server asks for a higher level",
                        trouble.address, who)};
}

Trouble explainBinding(const outgoing::Trouble& trouble, const std::string& who) {
    if (trouble.failure != rpc::ClientFailure::BindRefused) {
        return {Kind::TooWeak, trouble.address,
                fmt::format("{}: {}; set the other end up for NTLMv2, or use another account", trouble.address,
                            trouble.detail)};
    }
    return {who.empty() ? Kind::AccessDenied : Kind::LogOnRefused, trouble.address,
            fmt::format("{} speaks RPC and takes no binding {}; check that DCOM is served on this port and {}",
                        trouble.address, who.empty() ? std::string("without a log-on") : "of " + who,
                        who.empty() ? "name a user" : "that it takes log-ons by NTLM")};
}

std::string_view faultText(Fault fault) {
    if (outgoing::isAccessDenied(fault)) {
        return "access denied";
    }
    switch (fault) {
        case Fault::BadStubData:
            return "the parameters cannot be read";
        case Fault::OpnumRange:
            return "no such method";
        case Fault::UnknownInterface:
            return "no such interface";
        case Fault::ServerTooBusy:
            return "the server is too busy";
        case Fault::Disconnected:
            return "the object is gone";
        case Fault::Server:
            return "the method broke down in the server";
        case Fault::VersionMismatch:
            return "another version of DCOM";
        case Fault::OutOfMemory:
            return "the server has no memory left";
        default:
            return "unknown to this program";
    }
}

}  // namespace

std::string nameOf(const LogOn& logOn, rpc::AuthLevel level) {
    if (!logOn.account) {
        return {};
    }
    const auto& account = *logOn.account;
    return fmt::format("{}{}{} at level {}", account.domain, account.domain.empty() ? "" : "\\", account.user,
                       rpc::levelName(level));
}

Trouble explain(const outgoing::Trouble& trouble, Purpose purpose, const std::string& who) {
    const std::string& at = trouble.address;
    switch (trouble.reason) {
        case Reason::Unreachable:
            if (trouble.detail == std::strerror(ECONNREFUSED)) {
                return {Kind::Refused, at,
                        fmt::format("nobody listens at {} ({}); {}", at, trouble.detail, listenRemedy(purpose))};
            }
            return {Kind::NoAnswer, at,
                    fmt::format("no way to {} ({}); {}", at, trouble.detail, firewallRemedy(purpose))};
        case Reason::Silent:
            if (trouble.step == Step::Connect) {
                return {Kind::NoAnswer, at,
                        fmt::format("{} did not answer for {}; {}", at, trouble.detail, firewallRemedy(purpose))};
            }
            return {Kind::TimeLimit, at,
                    fmt::format("{} took the connection and did not answer for {}; the server hangs or is busy: try "
                                "again, or look at it",
                                at, trouble.detail)};
        case Reason::Closed:
        case Reason::Broken:
            return {Kind::Closed, at,
                    fmt::format("{} closed the connection{}; check whether the server has ended, and what its log says",
                                at, trouble.detail.empty() ? "" : " (" + trouble.detail + ")")};
        case Reason::LogOnRefused:
            return explainLogOn(trouble, who);
        case Reason::LogOnUnavailable:
            return explainBinding(trouble, who);
        case Reason::NoAddress:
            return {Kind::Address, at, "the server named no address that can be dialled; check its network settings"};
        default:
            return garbage(at, trouble.detail.empty() ? "what answers there" : trouble.detail);
    }
}

Trouble explainFault(Fault fault, const std::string& address, const std::string& what) {
    const auto code = static_cast<std::uint32_t>(fault);
    const bool isDenied = outgoing::isAccessDenied(fault);
    return {isDenied ? Kind::AccessDenied : Kind::Fault, address,
            fmt::format("{} answered {} with fault {:#010x} ({}){}", address, what, code, faultText(fault),
                        isDenied ? "; give the account the right to do this there, or come with a higher level"
                                 : "; the server's log may say more"),
            code};
}

Trouble garbage(const std::string& address, const std::string& what) {
    return {Kind::Garbage, address,
            fmt::format("{} sent what cannot be used: {}; check which program answers there, and ask its maker",
                        address, what)};
}

}  // namespace quelm::dcom::client
