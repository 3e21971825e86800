// The NTLM messages of clients: as arbitrary bytes, and as a proper log-on that was altered on its way. Nobody gets in
// without the password, and a message that carries a checksum lets no alteration pass.

#include <optional>

#include "FuzzInput.h"
#include "dcom/ntlm/AccountTable.h"
#include "dcom/ntlm/Messages.h"
#include "dcom/ntlm/ServerContext.h"
#include "ntlm/NtlmClient.h"

namespace quelm::fuzz {
namespace {

namespace ntlm = dcom::ntlm;
using namespace ntlm::test;

bool inside(Bytes part, Bytes whole) {
    return part.empty() || (part.data() >= whole.data() && part.data() + part.size() <= whole.data() + whole.size());
}

void parseAlone(Bytes message) {
    ntlm::messageType(message);
    ntlm::parseNegotiate(message);
    ntlm::clientAvFlags(message);
    if (const auto read = ntlm::parseAuthenticate(message)) {
        for (const Bytes part : {read->lmResponse, read->ntResponse, read->encryptedSessionKey}) {
            require(inside(part, message), "what is read lies inside the message");
        }
        require(read->user.size() <= 256 && read->domain.size() <= 256, "names are of a sane length");
    }
    if (const auto pairs = ntlm::parseAvPairs(message)) {
        for (const ntlm::AvPair& pair : *pairs) {
            require(inside(pair.value, message), "what is read lies inside the list");
        }
    }
}

// Takes the last message, and protected messages after it whatever became of the log-on. Whether it succeeded.
bool finish(ntlm::ServerContext& context, Bytes last, Bytes traffic) {
    const bool loggedOn = context.authenticate(last) == dcom::RefusalReason::None;
    require(context.authenticated() == loggedOn, "either logged on or a reason why not");
    requireOneLine(context.account());
    require(context.authenticate(last) != dcom::RefusalReason::None, "a log-on is not repeated");
    ntlm::ServerContext::Signature signature{};
    context.sign(traffic, signature);
    const Bytes given = traffic.first(std::min<std::size_t>(16, traffic.size()));
    require(!context.verify(traffic, given), "no signature by chance");
    Buffer sealed(traffic.begin(), traffic.end());
    context.seal(sealed, std::span(sealed).subspan(sealed.size() / 2), signature);
    if (context.canSeal()) {
        context.unseal(sealed, std::span(sealed).subspan(sealed.size() / 2), given);
    }
    return loggedOn;
}

void logOnWithBytes(ntlm::ServerContext& context, bool anonymous, Input& input) {
    ExactCopy first(input.part());
    ExactCopy last(input.part());
    parseAlone(first.bytes());
    parseAlone(last.bytes());
    const bool begun = context.challenge(first.bytes()).has_value();
    if (finish(context, last.bytes(), input.rest())) {
        require(begun && anonymous && context.account().empty(), "nobody logs on without the password");
    }
}

void logOnAltered(ntlm::ServerContext& context, bool anonymous, std::uint8_t mode, Input& input) {
    const std::uint32_t asked = (mode & 8) != 0 ? connectFlags : sealingFlags;
    const Buffer first = negotiate(asked);
    const auto challenge = context.challenge(first);
    require(challenge.has_value(), "a proper message is answered");
    NtlmClient client("PLANT", (mode & 16) != 0 ? "opc" : "nobody", (mode & 32) != 0 ? "secret" : "guess");
    const bool checksum = (mode & 64) != 0;
    const bool versionOne = (mode & 128) != 0;
    const Buffer proper = versionOne ? client.answerV1Ess(*challenge)
                                     : client.answerV2(*challenge, checksum ? std::optional(first) : std::nullopt);
    Buffer last = proper;
    for (unsigned changes = input.u8() % 8; changes > 0; --changes) {
        const std::size_t at = input.u16() % last.size();
        last[at] = input.u8();
    }
    const std::size_t cut = input.u16();
    if (cut < last.size()) {
        last.resize(cut == 0 ? last.size() : cut);
    }
    ExactCopy exact(last);
    const bool loggedOn = finish(context, exact.bytes(), input.rest());
    const bool rightPassword = (mode & 48) == 48;
    if (!anonymous) {
        require(!loggedOn || rightPassword, "nobody logs on without the password");
        require(!loggedOn || versionOne || !checksum || last == proper, "an altered message is refused");
    }
    if (rightPassword && last == proper && !versionOne) {
        require(loggedOn, "a proper log-on goes through");
    }
}

}  // namespace

void runInput(Input input) {
    const std::uint8_t mode = input.u8();
    ntlm::AccountTable accounts;
    accounts.add("*", "opc", ntlm::ntHash("secret"));
    ntlm::ServerSettings settings;
    settings.computerName = "SERVER";
    settings.domainName = "PLANT";
    settings.dnsDomainName = "plant.example";
    settings.allowAnonymous = (mode & 2) != 0;
    settings.allowNtlmV1Ess = (mode & 4) != 0;
    ntlm::ServerContext context(accounts, settings, std::array<std::uint8_t, 8>{1, 2, 3, 4, 5, 6, 7, 8});
    if ((mode & 1) == 0) {
        logOnWithBytes(context, settings.allowAnonymous, input);
    } else {
        logOnAltered(context, settings.allowAnonymous, mode, input);
    }
}

}  // namespace quelm::fuzz
