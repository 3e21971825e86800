#include "OPC/Client/Advice.h"

#include <fmt/format.h>

namespace quelm::opcclient {

using dcom::client::Trouble;

namespace {

constexpr std::uint32_t faultAccessDenied = 5;

bool isRefusal(const Trouble& trouble) {
    return trouble.kind == Trouble::Kind::LogOnRefused || trouble.kind == Trouble::Kind::AccessDenied ||
           trouble.kind == Trouble::Kind::TooWeak ||
           (trouble.kind == Trouble::Kind::Fault && trouble.code == faultAccessDenied);
}

}  // namespace

ExitCode exitCodeOf(const Trouble& trouble) {
    if (trouble.kind == Trouble::Kind::Interrupted) {
        return ExitCode::Interrupted;
    }
    return isRefusal(trouble) ? ExitCode::Refused : ExitCode::NotReached;
}

ExitCode exitCodeOf(const opcda::client::OpcError& error) {
    if (error.result == REGDB_E_CLASSNOTREG || error.result == CO_E_CLASSSTRING) {
        return ExitCode::NotReached;
    }
    return error.result == E_ACCESSDENIED ? ExitCode::Refused : ExitCode::ItemFailed;
}

std::string adviceOn(const Trouble& trouble, const Options& options) {
    switch (trouble.kind) {
        case Trouble::Kind::LogOnRefused:
        case Trouble::Kind::AccessDenied:
            return options.user.empty() ? "log on by -U DOMAIN\\user" : "";
        case Trouble::Kind::TooWeak:
            return options.level == dcom::rpc::AuthLevel::Privacy ? "" : "--level privacy protects more";
        case Trouble::Kind::ClassUnknown:
            return fmt::format("opcda discover {} lists the servers that there are", options.host);
        case Trouble::Kind::NoAnswer:
            return "--verbose shows which addresses are tried";
        case Trouble::Kind::TimeLimit:
            return "--timeout N waits longer for each call";
        default:
            return "";
    }
}

}  // namespace quelm::opcclient
