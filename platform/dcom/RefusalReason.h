#pragma once

// Why a client is turned away. Each reason has one text for the log and one remedy for the operator, both in one
// table, so that neither is ever guessed from the other's words.

#include <cstdint>
#include <string_view>

namespace quelm::dcom {

enum class RefusalReason : std::uint8_t {
    None,  // not refused
    // The log-on
    MalformedLogOn,
    LogOnOutOfTurn,
    UnknownAccount,
    WrongDomain,
    WrongPassword,
    AlteredLogOn,
    NtlmV1,
    PlainNtlmV1,
    LmOnly,
    Anonymous,
    NoKeys,
    UnknownLevel,
    UnknownService,  // its number is the detail
    NotNtlm,
    NtlmNotOffered,
    MalformedNegotiation,
    NegotiationWithoutBeginning,
    // The log-on with a ticket
    MalformedTicket,
    TicketExpired,
    ClockSkew,
    OtherService,
    OtherKey,
    RepeatedTicket,
    OldEncryption,
    TicketRefused,  // the library's words are the detail
    NoKeytab,       // as above
    NotAdmitted,    // who may come in is the detail
    NobodyAdmitted,
    // The log-on that is passed on to the domain
    DomainPassword,
    DomainUnknown,
    DomainRefused,  // the domain's words are the detail
    DomainAway,     // why it cannot be asked is the detail
    DomainNtlmV1,
    NoWinbindRight,
    // The protection of calls
    NoLogOn,
    LogOnIncomplete,
    LevelTooLow,  // the least level's name is the detail
    Unprotected,
    WrongSignature,
    // The protocol
    NotRpc,
    NotLittleEndian,
    LengthOutOfRange,
    NotForClients,
    DidNotBind,
    MalformedBind,
    MalformedAlterContext,
    MalformedAuth3,
    MalformedCall,
    OtherLevel,
    FragmentsOutOfOrder,
    FragmentsMixed,
    LogOnChanged,
    CallTooLarge,
};

// Plain words, without secrets; "{}" stands where the reason has a detail. Empty for None.
std::string_view refusalText(RefusalReason reason);
// What the operator can do about it; "{}" stands where the settings are to be named.
std::string_view refusalRemedy(RefusalReason reason);

}  // namespace quelm::dcom
