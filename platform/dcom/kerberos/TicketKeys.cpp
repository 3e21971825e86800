#include "dcom/kerberos/TicketKeys.h"

namespace quelm::dcom::kerberos {

namespace {

constexpr std::size_t tokenHeader = 16;
constexpr std::size_t numberOffset = 8;

gss_buffer_desc asBuffer(std::span<const std::uint8_t> bytes) {
    return {bytes.size(), const_cast<std::uint8_t*>(bytes.data())};
}

// The number in a token of the kinds that come with AES; nothing for another one.
std::optional<std::uint64_t> numberIn(std::span<const std::uint8_t> token) {
    const bool isKnown = token.size() >= tokenHeader && (token[0] == 4 || token[0] == 5) && token[1] == 4;
    if (!isKnown) {
        return std::nullopt;
    }
    std::uint64_t number = 0;
    for (const std::uint8_t byte : token.subspan(numberOffset, 8)) {
        number = number << 8 | byte;
    }
    return number;
}

}  // namespace

TicketKeys::~TicketKeys() {
    OM_uint32 minor = 0;
    library_.deleteContext(&minor, &context_, GSS_C_NO_BUFFER);
}

bool TicketKeys::ready() {
    OM_uint32 minor = 0;
    std::array<std::uint8_t, tokenHeader> stub{};
    Parts sealed = partsOf(stub, stub, GSS_IOV_BUFFER_TYPE_HEADER, {});
    Parts sign = partsOf(stub, stub, GSS_IOV_BUFFER_TYPE_MIC_TOKEN, {});
    int isSealed = 0;
    if (!isModern() ||
        GSS_ERROR(library_.wrapLength(&minor, context_, 1, GSS_C_QOP_DEFAULT, &isSealed, sealed.buffers.data(),
                                      sealed.count)) ||
        GSS_ERROR(library_.signLength(&minor, context_, GSS_C_QOP_DEFAULT, sign.buffers.data(), sign.count))) {
        return false;
    }
    sealedSize_ = sealed.token().buffer.length;
    signedSize_ = sign.token().buffer.length;
    return true;
}

// Whether the session's key is one of AES: its encryption's number ends what the library says of the key.
bool TicketKeys::isModern() const {
    constexpr std::uint8_t oldest = 17;
    constexpr std::uint8_t newest = 20;
    static std::array<std::uint8_t, 11> number{0x2A, 0x86, 0x48, 0x86, 0xF7, 0x12, 0x01, 0x02, 0x02, 0x05, 0x05};
    gss_OID_desc sessionKey{number.size(), number.data()};
    OM_uint32 minor = 0;
    gss_buffer_set_t found = GSS_C_NO_BUFFER_SET;
    const OM_uint32 major = library_.inquireContextByOid(&minor, context_, &sessionKey, &found);
    bool isGood = false;
    if (!GSS_ERROR(major) && found != GSS_C_NO_BUFFER_SET && found->count == 2 && found->elements[1].length != 0) {
        const gss_buffer_desc& encryption = found->elements[1];
        const std::uint8_t last = static_cast<const std::uint8_t*>(encryption.value)[encryption.length - 1];
        isGood = last >= oldest && last <= newest;
    }
    library_.releaseBufferSet(&minor, &found);
    return isGood;
}

void TicketKeys::Parts::add(OM_uint32 type, std::span<std::uint8_t> bytes) {
    buffers[static_cast<std::size_t>(count++)] = {type, {bytes.size(), bytes.data()}};
}

TicketKeys::Parts TicketKeys::partsOf(std::span<std::uint8_t> message, std::span<std::uint8_t> stub,
                                      OM_uint32 tokenType, std::span<std::uint8_t> token) const {
    Parts parts;
    const auto before = static_cast<std::size_t>(stub.data() - message.data());
    if (coversHeaders_) {
        parts.add(GSS_IOV_BUFFER_TYPE_SIGN_ONLY, message.first(before));
    }
    parts.add(GSS_IOV_BUFFER_TYPE_DATA, stub);
    if (coversHeaders_) {
        parts.add(GSS_IOV_BUFFER_TYPE_SIGN_ONLY, message.subspan(before + stub.size()));
    }
    parts.add(tokenType, token);
    return parts;
}

bool TicketKeys::protect(std::span<std::uint8_t> message, std::span<std::uint8_t> stub, bool seals,
                         std::span<std::uint8_t> token) {
    OM_uint32 minor = 0;
    if (!seals) {
        Parts parts = partsOf(message, stub, GSS_IOV_BUFFER_TYPE_MIC_TOKEN, token);
        return !GSS_ERROR(library_.sign(&minor, context_, GSS_C_QOP_DEFAULT, parts.buffers.data(), parts.count));
    }
    Parts parts = partsOf(message, stub, GSS_IOV_BUFFER_TYPE_HEADER, token);
    int isSealed = 0;
    const OM_uint32 major =
        library_.wrap(&minor, context_, 1, GSS_C_QOP_DEFAULT, &isSealed, parts.buffers.data(), parts.count);
    return !GSS_ERROR(major) && isSealed != 0;
}

bool TicketKeys::unprotect(std::span<std::uint8_t> message, std::span<std::uint8_t> stub, bool seals,
                           std::span<std::uint8_t> token) {
    const auto number = numberIn(token);
    if (!number) {
        return false;
    }
    OM_uint32 minor = 0;
    OM_uint32 major = 0;
    int isSealed = 0;
    if (seals) {
        Parts parts = partsOf(message, stub, GSS_IOV_BUFFER_TYPE_HEADER, token);
        major = library_.unwrap(&minor, context_, &isSealed, nullptr, parts.buffers.data(), parts.count);
    } else {
        Parts parts = partsOf(message, stub, GSS_IOV_BUFFER_TYPE_MIC_TOKEN, token);
        major = library_.verify(&minor, context_, nullptr, parts.buffers.data(), parts.count);
    }
    return !GSS_ERROR(major) && (isSealed != 0) == seals && isNext(*number, major == GSS_S_COMPLETE);
}

bool TicketKeys::signText(std::span<const std::uint8_t> text, std::vector<std::uint8_t>& signature) {
    OM_uint32 minor = 0;
    gss_buffer_desc in = asBuffer(text);
    GssBuffer out(library_);
    if (GSS_ERROR(library_.signText(&minor, context_, GSS_C_QOP_DEFAULT, &in, out.get()))) {
        return false;
    }
    signature.assign(out.bytes().begin(), out.bytes().end());
    return true;
}

bool TicketKeys::verifyText(std::span<const std::uint8_t> text, std::span<const std::uint8_t> signature) {
    const auto number = numberIn(signature);
    OM_uint32 minor = 0;
    gss_buffer_desc in = asBuffer(text);
    gss_buffer_desc token = asBuffer(signature);
    const OM_uint32 major = library_.verifyText(&minor, context_, &in, &token, nullptr);
    if (!number || GSS_ERROR(major)) {
        return false;
    }
    if (*number == 0 && major != GSS_S_COMPLETE && !next_) {
        startsApart_ = true;
        return true;
    }
    return isNext(*number, major == GSS_S_COMPLETE);
}

// Numbers go up by one. The first one is right when the library says so; after a signature apart it cannot, and
// whatever comes first, under keys of this session alone, begins the row.
bool TicketKeys::isNext(std::uint64_t number, bool isInOrder) {
    const bool isRight = next_ ? number == *next_ : isInOrder || startsApart_;
    next_ = number + 1;
    return isRight;
}

}  // namespace quelm::dcom::kerberos
