#include "dcom/rpc/Fragments.h"

#include <algorithm>
#include <cstring>

namespace quelm::dcom::rpc {

namespace {

constexpr std::size_t unprotectedUnit = 8;  // stub data is cut at multiples of it, so that alignment survives

std::size_t padded(std::size_t size, std::size_t multiple) {
    return (size + multiple - 1) / multiple * multiple;
}

// Fills in header, padding and protection of the fragment whose stub data stands behind the room for its header.
void finishFragment(std::span<std::uint8_t> fragment, const CallHeader& header, const StubPiece& piece,
                    std::size_t padding, const MessageGuard* guard) {
    const auto flags = static_cast<std::uint8_t>((piece.isFirst ? flagFirst : 0) | (piece.isLast ? flagLast : 0));
    putCallHeader(fragment.data(), header, flags, fragment.size(), guard != nullptr ? guard->tokenSize() : 0,
                  piece.remaining);
    if (guard != nullptr) {
        guard->protect(fragment, header.size(), padding);
    }
}

}  // namespace

std::size_t pieceSize(const CallHeader& header, std::size_t maxFragment, const MessageGuard* guard) {
    const std::size_t behind = guard != nullptr ? guard->overhead() : 0;
    const std::size_t unit = guard != nullptr ? MessageGuard::padding : unprotectedUnit;
    return (maxFragment - header.size() - behind) / unit * unit;
}

void appendFragment(std::vector<std::uint8_t>& out, const CallHeader& header, const StubPiece& piece,
                    const MessageGuard* guard) {
    const std::size_t start = out.size();
    const std::size_t stubSize = piece.front.size() + piece.back.size();
    const std::size_t padding = guard != nullptr ? padded(stubSize, MessageGuard::padding) - stubSize : 0;
    out.resize(start + header.size());
    out.insert(out.end(), piece.front.begin(), piece.front.end());
    out.insert(out.end(), piece.back.begin(), piece.back.end());
    out.resize(out.size() + padding + (guard != nullptr ? guard->overhead() : 0));
    finishFragment(std::span(out).subspan(start), header, piece, padding, guard);
}

void cutIntoFragments(std::vector<std::uint8_t>& out, std::size_t start, const CallHeader& header,
                      std::size_t maxFragment, const MessageGuard* guard) {
    const std::size_t headerBytes = header.size();
    const std::size_t behind = guard != nullptr ? guard->overhead() : 0;
    const std::size_t piece = pieceSize(header, maxFragment, guard);
    const std::size_t stubSize = out.size() - start - headerBytes;
    const std::size_t count = std::max<std::size_t>(1, (stubSize + piece - 1) / piece);
    const std::size_t stride = headerBytes + piece + behind;
    const std::size_t lastPiece = stubSize - (count - 1) * piece;
    const std::size_t lastPadding = guard != nullptr ? padded(lastPiece, MessageGuard::padding) - lastPiece : 0;

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
        finishFragment({base + i * stride, size}, header, {{}, {}, i == 0, last, stubSize - i * piece}, padding, guard);
    }
}

}  // namespace quelm::dcom::rpc
