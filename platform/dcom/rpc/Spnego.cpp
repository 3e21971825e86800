#include "dcom/rpc/Spnego.h"

#include <algorithm>
#include <array>
#include <utility>

namespace quelm::dcom::rpc::spnego {

namespace {

using Bytes = std::span<const std::uint8_t>;

constexpr std::uint8_t tagOctets = 0x04;
constexpr std::uint8_t tagOid = 0x06;
constexpr std::uint8_t tagEnumerated = 0x0A;
constexpr std::uint8_t tagSequence = 0x30;
constexpr std::uint8_t tagApplication = 0x60;
constexpr std::uint8_t tagInitial = 0xA0;
constexpr std::uint8_t tagLater = 0xA1;

constexpr std::uint8_t field(unsigned number) {
    return static_cast<std::uint8_t>(0xA0 + number);
}

constexpr std::array<std::uint8_t, 6> spnegoOid{0x2B, 0x06, 0x01, 0x05, 0x05, 0x02};
constexpr std::array<std::uint8_t, 10> ntlmOid{0x2B, 0x06, 0x01, 0x04, 0x01, 0x82, 0x37, 0x02, 0x02, 0x0A};

struct Element {
    std::uint8_t tag = 0;
    Bytes whole;  // with tag and length
    Bytes content;
};

// Takes the first element off the front of in; nothing when it is not whole.
std::optional<Element> take(Bytes& in) {
    if (in.size() < 2) {
        return std::nullopt;
    }
    std::size_t length = in[1];
    std::size_t header = 2;
    if (length >= 0x80) {
        const std::size_t digits = length & 0x7F;
        if (digits == 0 || digits > 3 || in.size() < header + digits) {
            return std::nullopt;
        }
        length = 0;
        for (std::size_t i = 0; i < digits; ++i) {
            length = length << 8 | in[header++];
        }
    }
    if (length > in.size() - header) {
        return std::nullopt;
    }
    const Element element{in[0], in.first(header + length), in.subspan(header, length)};
    in = in.subspan(header + length);
    return element;
}

// The content of the one element of this kind at the front; nothing when something else stands there.
std::optional<Bytes> enter(Bytes in, std::uint8_t tag) {
    const auto element = take(in);
    return element && element->tag == tag ? std::optional(element->content) : std::nullopt;
}

bool readMechanisms(Bytes content, Token& token) {
    token.mechanisms = content;
    auto list = enter(content, tagSequence);
    if (!list) {
        return false;
    }
    for (bool first = true; !list->empty(); first = false) {
        const auto mechanism = take(*list);
        if (!mechanism) {
            return false;
        }
        if (mechanism->tag == tagOid && std::ranges::equal(mechanism->content, ntlmOid)) {
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
            token.inner = enter(element->content, tagOctets).value_or(Bytes{});
        }
        if (element->tag == field(3)) {
            token.signature = enter(element->content, tagOctets).value_or(Bytes{});
        }
    }
    return true;
}

std::vector<std::uint8_t> wrap(std::uint8_t tag, Bytes content) {
    std::vector<std::uint8_t> out{tag};
    const std::size_t size = content.size();
    if (size < 0x80) {
        out.push_back(static_cast<std::uint8_t>(size));
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

std::optional<Token> parse(Bytes token) {
    Token result;
    Bytes choice = token;
    if (auto application = enter(token, tagApplication)) {
        const auto oid = take(*application);
        if (!oid || oid->tag != tagOid || !std::ranges::equal(oid->content, spnegoOid)) {
            return std::nullopt;
        }
        result.initial = true;
        choice = *application;
    }
    const auto content = enter(choice, result.initial ? tagInitial : tagLater);
    const auto fields = content ? enter(*content, tagSequence) : std::nullopt;
    if (!fields || !readFields(*fields, result)) {
        return std::nullopt;
    }
    return result;
}

std::vector<std::uint8_t> response(State state, bool namesMechanism, Bytes inner, Bytes signature) {
    std::vector<std::uint8_t> fields;
    const auto stateByte = static_cast<std::uint8_t>(state);
    appendField(fields, 0, tagEnumerated, {&stateByte, 1});
    if (namesMechanism) {
        appendField(fields, 1, tagOid, ntlmOid);
    }
    if (!inner.empty()) {
        appendField(fields, 2, tagOctets, inner);
    }
    if (!signature.empty()) {
        appendField(fields, 3, tagOctets, signature);
    }
    return wrap(tagLater, wrap(tagSequence, fields));
}

std::vector<std::uint8_t> offeredMechanisms() {
    return wrap(tagSequence, wrap(tagOid, ntlmOid));
}

std::vector<std::uint8_t> initial(Bytes inner) {
    std::vector<std::uint8_t> fields = wrap(field(0), offeredMechanisms());
    appendField(fields, 2, tagOctets, inner);
    std::vector<std::uint8_t> content = wrap(tagOid, spnegoOid);
    const auto choice = wrap(tagInitial, wrap(tagSequence, fields));
    content.insert(content.end(), choice.begin(), choice.end());
    return wrap(tagApplication, content);
}

std::vector<std::uint8_t> answer(Bytes inner, Bytes signature) {
    std::vector<std::uint8_t> fields;
    appendField(fields, 2, tagOctets, inner);
    appendField(fields, 3, tagOctets, signature);
    return wrap(tagLater, wrap(tagSequence, fields));
}

}  // namespace quelm::dcom::rpc::spnego
