#include "dcom/outgoing/Trouble.h"

#include <fmt/format.h>

namespace quelm::dcom::outgoing {

namespace {

std::string_view stepText(Step step) {
    switch (step) {
        case Step::Connect:
            return "connecting";
        case Step::LogOn:
            return "log-on";
        case Step::Resolve:
            return "asking where its program is called";
        case Step::AskInterface:
            return "asking for the callback interface";
        case Step::Call:
            return "call";
        case Step::Ping:
            return "ping";
    }
    return {};
}

std::string reasonText(const Trouble& trouble) {
    switch (trouble.reason) {
        case Reason::NoAddress:
            return "the client gave no numeric IPv4 address that can be tried";
        case Reason::NoLogOn:
            return "there is no account to log on with";
        case Reason::Unreachable:
            return fmt::format("no connection ({})", trouble.detail);
        case Reason::Silent:
            return fmt::format("no answer for {}", trouble.detail);
        case Reason::Closed:
            return "the other end closed the connection";
        case Reason::Broken:
            return fmt::format("the connection broke ({})", trouble.detail);
        case Reason::Rpc:
        case Reason::LogOnUnavailable:
            return trouble.detail;
        case Reason::LogOnRefused:
            return "the other end refused the log-on";
        case Reason::Garbage:
            return "the answer cannot be read";
        case Reason::UnknownProcess:
            return "the client's program is not known there";
        case Reason::UnknownObject:
            return "the client's program no longer has this sink";
        case Reason::NoInterface:
            return "the client's object does not have the interface";
        case Reason::Fault:
            return fmt::format("the other end answered with {}", trouble.detail);
    }
    return {};
}

std::string remedyOf(const Trouble& trouble, std::string_view settingsPath) {
    const auto ofAccount = [&](std::string_view otherwise) {
        return fmt::format(
            "set an account in [Callbacks] of {} that the client's machine knows and that may call the client's "
            "program{} (a change counts once the server has read it: systemctl reload quelm-opc-server)",
            settingsPath, otherwise);
    };
    switch (trouble.reason) {
        case Reason::NoLogOn:
            return ofAccount(", or AllowNoLogOn = yes");
        case Reason::LogOnRefused:
            return ofAccount("");
        case Reason::LogOnUnavailable:
            return fmt::format(
                "if this program takes no log-ons, allow calls without them: AllowNoLogOn = yes in "
                "[Callbacks] of {} (a change counts once the server has read it: systemctl reload quelm-opc-server)",
                settingsPath);
        case Reason::Silent:
            if (trouble.step != Step::Connect) {
                return "check whether the client's program hangs";
            }
            [[fallthrough]];
        case Reason::NoAddress:
        case Reason::Unreachable:
            return "let the firewalls on the way and on the client's machine pass connections from this server to port "
                   "135 and to the client's program";
        case Reason::Closed:
        case Reason::Broken:
            return "check whether the client's program has ended or a firewall cuts idle connections";
        case Reason::Rpc:
        case Reason::Garbage:
            return "check which program answers there";
        case Reason::UnknownProcess:
        case Reason::UnknownObject:
            return "none if the client's program has ended; else let it subscribe again";
        case Reason::NoInterface:
        case Reason::Fault:
            return "ask the maker of the client's program";
    }
    return {};
}

}  // namespace

bool Trouble::isFinal() const {
    return reason == Reason::NoAddress || reason == Reason::NoLogOn || reason == Reason::UnknownProcess ||
           reason == Reason::UnknownObject || reason == Reason::NoInterface;
}

Reason reasonOf(rpc::ClientFailure failure) {
    switch (failure) {
        case rpc::ClientFailure::LogOnRefused:
            return Reason::LogOnRefused;
        case rpc::ClientFailure::BindRefused:
        case rpc::ClientFailure::LogOnTooWeak:
            return Reason::LogOnUnavailable;
        default:
            return Reason::Rpc;
    }
}

bool isAccessDenied(Fault fault) {
    return fault == Fault::AccessDenied || fault == faultOf(E_ACCESSDENIED);
}

std::string describe(const Trouble& trouble, std::string_view settingsPath) {
    return fmt::format("sink{}, {}: {}; remedy: {}", trouble.address.empty() ? "" : " at " + trouble.address,
                       stepText(trouble.step), reasonText(trouble), remedyOf(trouble, settingsPath));
}

std::string kindOf(const Trouble& trouble) {
    return fmt::format("callback {} {}", static_cast<int>(trouble.step), static_cast<int>(trouble.reason));
}

}  // namespace quelm::dcom::outgoing
