#pragma once

// Authentication levels of the RPC protocol, and what they amount to here.

#include <cstdint>
#include <string_view>

namespace quelm::dcom::rpc {

enum class AuthLevel : std::uint8_t { None = 1, Connect = 2, Call = 3, Packet = 4, Integrity = 5, Privacy = 6 };

constexpr std::string_view levelName(AuthLevel level) {
    switch (level) {
        case AuthLevel::Connect:
            return "connect";
        case AuthLevel::Call:
            return "call";
        case AuthLevel::Packet:
            return "packet";
        case AuthLevel::Integrity:
            return "integrity";
        case AuthLevel::Privacy:
            return "privacy";
        case AuthLevel::None:
            break;
    }
    return "none";
}

// What a level on the wire amounts to with NTLM over TCP, which protects call and packet like integrity; None for a
// level that does not exist.
constexpr AuthLevel effectiveLevel(std::uint8_t wireLevel) {
    if (wireLevel >= 3 && wireLevel <= 5) {
        return AuthLevel::Integrity;
    }
    return wireLevel == 2 ? AuthLevel::Connect : wireLevel == 6 ? AuthLevel::Privacy : AuthLevel::None;
}

constexpr AuthLevel effectiveMinimum(AuthLevel minimum) {
    return minimum <= AuthLevel::Connect ? minimum : effectiveLevel(static_cast<std::uint8_t>(minimum));
}

}  // namespace quelm::dcom::rpc
