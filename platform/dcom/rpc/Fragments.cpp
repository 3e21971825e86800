#include "dcom/rpc/Fragments.h"

#include <algorithm>
#include <cstring>

namespace quelm::dcom::rpc {

namespace {

constexpr std::size_t unprotectedUnit = 8;  // stub data is cut at multiples of it, so that alignment survives

std::size_t padded(std::size_t size, std::size_t multiple) {
    return (size + multiple - 1) / multiple * multiple;
}

}  // namespace

void cutIntoFragments(std::vector<std::uint8_t>& out, std::size_t start, const CallHeader& header,
                      std::size_t maxFragment, const MessageGuard* guard) {
    const std::size_t headerBytes = header.size();
    const std::size_t behind = guard != nullptr ? MessageGuard::overhead : 0;
    const std::size_t unit = guard != nullptr ? MessageGuard::padding : unprotectedUnit;
    const std::size_t piece = (maxFragment - headerBytes - behind) / unit * unit;
    const std::size_t stubSize = out.size() - start - headerBytes;
    const std::size_t count = std::max<std::size_t>(1, (stubSize + piece - 1) / piece);
    const std::size_t stride = headerBytes + piece + behind;
    const std::size_t lastPiece = stubSize - (count - 1) * piece;
    const std::size_t lastPadding = guard != nullptr ? padded(lastPiece, unit) - lastPiece : 0;

    out.resize(start + (count - 1) * stride + headerBytes + lastPiece + lastPadding + behind);
    std::uint8_t* const base = out.data() + start;
    // The last one first, so that no piece is overwritten before it has moved.
    for (std::size_t i = count - 1; i > 0; --i) {
        const std::size_t size = i == count - 1 ? lastPiece : piece;
        std::memmove(base + i * stride + headerBytes, base + headerBytes + i * piece, size);
    }
    for (std::size_t i = 0; i < count; ++i) {
        const bool last = i == count - 1;
        const std::size_t padding = last ? lastPadding : 0;
        const std::size_t size = headerBytes + (last ? lastPiece : piece) + padding + behind;
        const auto flags = static_cast<std::uint8_t>((i == 0 ? flagFirst : 0) | (last ? flagLast : 0));
        putCallHeader(base + i * stride, header, flags, size, behind == 0 ? 0 : behind - trailerSize,
                      stubSize - i * piece);
        if (guard != nullptr) {
            guard->protect({base + i * stride, size}, headerBytes, padding);
        }
    }
}

}  // namespace quelm::dcom::rpc
