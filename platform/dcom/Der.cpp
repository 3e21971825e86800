#include "dcom/Der.h"

namespace quelm::dcom::der {

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
    const Element element{in[0], in.subspan(header, length)};
    in = in.subspan(header + length);
    return element;
}

std::optional<Bytes> enter(Bytes in, std::uint8_t tag) {
    const auto element = take(in);
    return element && element->tag == tag ? std::optional(element->content) : std::nullopt;
}

std::optional<Bytes> fieldOf(Bytes fields, unsigned number) {
    while (!fields.empty()) {
        const auto element = take(fields);
        if (!element) {
            return std::nullopt;
        }
        if (element->tag == field(number)) {
            return element->content;
        }
    }
    return std::nullopt;
}

}  // namespace quelm::dcom::der
