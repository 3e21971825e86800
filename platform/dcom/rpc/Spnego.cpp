#include "dcom/rpc/Spnego.h"

#include <algorithm>
#include <array>
#include <utility>

#include "dcom/Der.h"

namespace quelm::dcom::rpc::spnego {

namespace {

using der::Bytes;
using der::enter;
using der::field;
using der::take;

constexpr std::uint8_t tagInitial = 0xA0;
constexpr std::uint8_t tagLater = 0xA1;

constexpr std::array<std::uint8_t, 6> spnegoOid{0x2B, 0x06, 0x01, 0x05, 0x05, 0x02};
constexpr std::array<std::uint8_t, 9> kerberosOid{0x2A, 0x86, 0x48, 0x86, 0xF7, 0x12, 0x01, 0x02, 0x02};
// The same under a number that an early Windows got wrong, and all have offered first ever since.
constexpr std::array<std::uint8_t, 9> windowsKerberosOid{0x2A, 0x86, 0x48, 0x82, 0xF7, 0x12, 0x01, 0x02, 0x02};

bool readMechanisms(Bytes content, Token& token) {
    token.mechanisms = content;
    auto list = enter(content, der::sequence);
    if (!list) {
        return false;
    }
    for (bool first = true; !list->empty(); first = false) {
        const auto mechanism = take(*list);
        if (!mechanism) {
            return false;
        }
        if (mechanism->tag != der::objectId) {
            continue;
        }
        if (first) {
            token.preferred = mechanism->content;
        }
        if (std::ranges::equal(mechanism->content, ntlmMechanism)) {
            token.offersNtlm = true;
            token.prefersNtlm |= first;
        }
    }
    return true;
}

bool readFields(Bytes fields, Token& token) {
    while (!fields.empty()) {
        const auto element = take(fields);
        if (!element) {
            return false;
        }
        if (element->tag == field(0) && token.initial && !readMechanisms(element->content, token)) {
            return false;
        }
        if (element->tag == field(2)) {
            token.inner = enter(element->content, der::octets).value_or(Bytes{});
        }
        if (element->tag == field(3)) {
            token.signature = enter(element->content, der::octets).value_or(Bytes{});
        }
    }
    return true;
}

std::vector<std::uint8_t> wrap(std::uint8_t tag, Bytes content) {
    std::vector<std::uint8_t> out{tag};
    const std::size_t size = content.size();
    if (size < 0x80) {
        out.push_back(static_cast<std::uint8_t>(size));
    } else if (size < 0x100) {
        out.insert(out.end(), {0x81, static_cast<std::uint8_t>(size)});
    } else {
        out.insert(out.end(), {0x82, static_cast<std::uint8_t>(size >> 8), static_cast<std::uint8_t>(size)});
    }
    out.insert(out.end(), content.begin(), content.end());
    return out;
}

void appendField(std::vector<std::uint8_t>& out, unsigned number, std::uint8_t tag, Bytes content) {
    const auto element = wrap(field(number), wrap(tag, content));
    out.insert(out.end(), element.begin(), element.end());
}

}  // namespace

bool isKerberos(Bytes mechanism) {
    return std::ranges::equal(mechanism, windowsKerberosOid) || std::ranges::equal(mechanism, kerberosOid);
}

std::optional<Token> parse(Bytes token) {
    Token result;
    Bytes choice = token;
    if (auto application = enter(token, der::application)) {
        const auto oid = take(*application);
        if (!oid || oid->tag != der::objectId || !std::ranges::equal(oid->content, spnegoOid)) {
            return std::nullopt;
        }
        result.initial = true;
        choice = *application;
    }
    const auto content = enter(choice, result.initial ? tagInitial : tagLater);
    const auto fields = content ? enter(*content, der::sequence) : std::nullopt;
    if (!fields || !readFields(*fields, result)) {
        return std::nullopt;
    }
    return result;
}

std::vector<std::uint8_t> response(State state, Bytes mechanism, Bytes inner, Bytes signature) {
    std::vector<std::uint8_t> fields;
    const auto stateByte = static_cast<std::uint8_t>(state);
    appendField(fields, 0, der::enumerated, {&stateByte, 1});
    if (!mechanism.empty()) {
        appendField(fields, 1, der::objectId, mechanism);
    }
    if (!inner.empty()) {
        appendField(fields, 2, der::octets, inner);
    }
    if (!signature.empty()) {
        appendField(fields, 3, der::octets, signature);
    }
    return wrap(tagLater, wrap(der::sequence, fields));
}

std::vector<std::uint8_t> offeredMechanisms() {
    return wrap(der::sequence, wrap(der::objectId, ntlmMechanism));
}

std::vector<std::uint8_t> initial(Bytes inner) {
    std::vector<std::uint8_t> fields = wrap(field(0), offeredMechanisms());
    appendField(fields, 2, der::octets, inner);
    std::vector<std::uint8_t> content = wrap(der::objectId, spnegoOid);
    const auto choice = wrap(tagInitial, wrap(der::sequence, fields));
    content.insert(content.end(), choice.begin(), choice.end());
    return wrap(der::application, content);
}

std::vector<std::uint8_t> answer(Bytes inner, Bytes signature) {
    std::vector<std::uint8_t> fields;
    appendField(fields, 2, der::octets, inner);
    appendField(fields, 3, der::octets, signature);
    return wrap(tagLater, wrap(der::sequence, fields));
}

}  // namespace quelm::dcom::rpc::spnego
