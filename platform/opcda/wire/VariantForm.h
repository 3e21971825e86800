#pragma once

// Numbers of a VARIANT's marshalled form that both ends of the wire need.

#include <cstdint>

#include "opcda/Coercion.h"

namespace quelm::opcda::wire {

inline constexpr VarType VT_BYREF = 0x4000;

// The kinds of elements of a marshalled array.
enum ArrayKind : std::uint32_t {
    OfShorts = 2,
    OfLongs = 3,
    OfTexts = 8,
    OfDispatches = 9,
    OfVariants = 12,
    OfUnknowns = 13,
    OfBytes = 16,
    OfHypers = 20,
    OfInterfaces = 0x800D,  // unknowns that are all of one named interface
};

// Array features: the element type is stated; the elements are texts, or variants.
inline constexpr std::uint16_t featureHaveType = 0x0080;
inline constexpr std::uint16_t featureTexts = 0x0100;
inline constexpr std::uint16_t featureVariants = 0x0800;

// How deep variants may stand in arrays of variants before what came counts as malformed.
inline constexpr int deepestVariant = 8;

}  // namespace quelm::opcda::wire
