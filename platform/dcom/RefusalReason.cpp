#include "dcom/RefusalReason.h"

#include <algorithm>
#include <array>

namespace quelm::dcom {

namespace {

struct Row {
    RefusalReason reason;
    std::string_view text;
    std::string_view remedy;
};

using enum RefusalReason;

constexpr std::string_view checkPeer = "check which program connects to this port";
constexpr std::string_view useNtlm = "let the client log on by NTLM or Negotiate";
constexpr std::string_view useNtlmV2 = "let the client use NTLMv2";
constexpr std::string_view useAccount = "let the client log on with an account of {}";
constexpr std::string_view checkLogOn = "check the client's account and its NTLM settings";
constexpr std::string_view checkKeytab =
    "make the keytab that {} names anew, for the account that has the SPN host/ and this machine's name";
constexpr std::string_view checkLevel =
    "set the client's authentication level to packet integrity or packet privacy, or lower MinimumLevel in {}";
constexpr std::string_view lookBetween =
    "look for a program or device that changes or repeats messages between client and server";

constexpr Row rows[] = {
    {None, "", ""},
    {MalformedLogOn, "malformed message", checkLogOn},
    {LogOnOutOfTurn, "message out of turn", checkLogOn},
    {UnknownAccount, "unknown account", "add the account to {}, or let the client use one that is there"},
    {WrongDomain, "wrong domain", "let the client give the account's domain, or free the account of its domain in {}"},
    {WrongPassword, "wrong password", "give the client and {} the same password"},
    {AlteredLogOn, "message altered on its way", lookBetween},
    {NtlmV1, "NTLMv1 is not allowed", "let the client use NTLMv2, or set AllowNTLMv1 in {}"},
    {PlainNtlmV1, "plain NTLMv1 is never allowed", useNtlmV2},
    {LmOnly, "LM and LMv2 are never allowed", useNtlmV2},
    {Anonymous, "anonymous access is not allowed", useAccount},
    {NoKeys, "the log-on gives no keys for signing and sealing at this level", checkLogOn},
    {UnknownLevel, "its authentication level does not exist", "check the client's authentication settings"},
    {UnknownService, "authentication service {} is not supported", useNtlm},
    {NotNtlm, "its log-on is not an NTLM message", useNtlm},
    {NtlmNotOffered, "it offers log-ons, but none by NTLM", useNtlm},
    {MalformedNegotiation, "its log-on negotiation is malformed", useNtlm},
    {NegotiationWithoutBeginning, "its log-on negotiation has no beginning", useNtlm},
    {MalformedTicket, "its Kerberos message is malformed, or not the one that DCOM clients send", useNtlm},
    {TicketExpired, "its Kerberos ticket has expired", "let the client log on to its domain anew, and check its clock"},
    {ClockSkew, "its clock and this machine's are more than five minutes apart",
     "set the clocks of both machines from the domain's time"},
    {OtherService, "its Kerberos ticket is for a service of which the keytab has no key", checkKeytab},
    {OtherKey, "its Kerberos ticket does not open with the keytab's keys", checkKeytab},
    {RepeatedTicket, "its Kerberos message was sent before", lookBetween},
    {OldEncryption, "its Kerberos session is encrypted with RC4 or DES, which are never allowed",
     "let the domain give AES keys to the account that has the SPN host/ and this machine's name"},
    {TicketRefused, "its Kerberos ticket is refused ({})", checkKeytab},
    {NoKeytab, "log-ons with tickets are not possible ({})", "correct the keytab that {} names, and its rights"},
    {NotAdmitted, "the account is none of those, and a member of none of the groups, that may come in ({})",
     "add the account to one of the groups, or name it or one of its groups under [Access] in {}"},
    {NobodyAdmitted, "no account of the domain may come in",
     "name the domain's users or groups that may under [Access] in {}"},
    {DomainPassword, "the domain calls its password wrong", "give the client program the account's present password"},
    {DomainUnknown, "neither this server nor its domain knows the account",
     "let the client use an account of the domain, or add the account to {}"},
    {DomainRefused, "the domain refuses the account ({})", "see to the account in the domain"},
    {DomainAway, "the domain cannot be asked ({})",
     "see to winbind (\"wbinfo -P\") and the way to the domain's controllers; log-ons with tickets and accounts of "
     "this "
     "server's own go on"},
    {DomainNtlmV1, "NTLMv1 is never passed on to the domain", useNtlmV2},
    {NoWinbindRight, "winbind does not let this server ask about log-ons",
     "put the server's user into the group winbindd_priv (usermod -aG winbindd_priv quelm) and restart the server"},
    {NoLogOn, "the client did not log on", useAccount},
    {LogOnIncomplete, "the client called before its log-on was complete", checkLogOn},
    {LevelTooLow, "the level is below {}", checkLevel},
    {Unprotected, "a call lacks the protection that its log-on promised", checkLevel},
    {WrongSignature, "a message's signature is wrong", lookBetween},
    {NotRpc, "what it sent is not RPC version 5", checkPeer},
    {NotLittleEndian, "its data representation is not little endian, ASCII and IEEE", checkPeer},
    {LengthOutOfRange, "a message's length is out of range", checkPeer},
    {NotForClients, "it sent a message that no client may send", checkPeer},
    {DidNotBind, "it did not bind first", checkPeer},
    {MalformedBind, "a bind message is malformed", checkPeer},
    {MalformedAlterContext, "a change of context is malformed", checkPeer},
    {MalformedAuth3, "the end of its log-on is malformed", checkPeer},
    {MalformedCall, "a call is malformed", checkPeer},
    {OtherLevel, "a call has another authentication level than its log-on", checkPeer},
    {FragmentsOutOfOrder, "the fragments of a call are out of order", checkPeer},
    {FragmentsMixed, "the fragments of different calls are mixed", checkPeer},
    {LogOnChanged, "a log-on changed in the middle of a call", checkPeer},
    {CallTooLarge, "a call is larger than this server takes", checkPeer},
};

constexpr bool standsAtItsNumber(const Row& row) {
    return &row - rows == static_cast<std::ptrdiff_t>(row.reason);
}
static_assert(std::ranges::all_of(rows, standsAtItsNumber));

const Row& row(RefusalReason reason) {
    return rows[static_cast<std::size_t>(reason)];
}

}  // namespace

std::string_view refusalText(RefusalReason reason) {
    return row(reason).text;
}

std::string_view refusalRemedy(RefusalReason reason) {
    return row(reason).remedy;
}

}  // namespace quelm::dcom
