#pragma once

// The shape of the property blobs in which younger clients ask for objects and get them: a list of properties, each
// serialised by itself, inside an object reference of the custom kind. What the properties say is elsewhere.

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "base/Uuid.h"
#include "dcom/ndr/Writer.h"

namespace quelm::dcom::orpc {

// The properties that matter here, of requests and answers.
inline constexpr Uuid instantiationInfo = Uuid::parse("000001AB-0000-0000-C000-000000000046");
inline constexpr Uuid activationContextInfo = Uuid::parse("000001A5-0000-0000-C000-000000000046");
inline constexpr Uuid serverLocationInfo = Uuid::parse("000001A4-0000-0000-C000-000000000046");
inline constexpr Uuid scmRequestInfo = Uuid::parse("000001AA-0000-0000-C000-000000000046");
inline constexpr Uuid propsOutInfo = Uuid::parse("00000339-0000-0000-C000-000000000046");
inline constexpr Uuid scmReplyInfo = Uuid::parse("000001B6-0000-0000-C000-000000000046");

// What a blob is, and who unmarshals it.
struct BlobKind {
    Uuid iid;
    Uuid unmarshaller;
};
inline constexpr BlobKind propertiesIn{Uuid::parse("000001A2-0000-0000-C000-000000000046"),
                                       Uuid::parse("00000338-0000-0000-C000-000000000046")};
inline constexpr BlobKind propertiesOut{Uuid::parse("000001A3-0000-0000-C000-000000000046"),
                                        Uuid::parse("00000339-0000-0000-C000-000000000046")};

// A property as it stands in a blob. Its body may be padded behind.
struct PropertyView {
    Uuid id;
    std::span<const std::uint8_t> body;
};

// The properties of a marshalled blob, in their order; views into it. Bodies that are not serialised in the
// little-endian form of every known client are empty. Nothing when the blob does not hold together.
std::optional<std::vector<PropertyView>> readPropertyBlob(std::span<const std::uint8_t> objectReference);

struct Property {
    Uuid id;
    std::vector<std::uint8_t> body;
};
// In front of every serialised structure.
inline constexpr std::uint32_t serialisationHeader = 16;
// Bytes of a body with its header and the padding that the header's length field demands.
constexpr std::uint32_t serialisedSize(std::size_t body) {
    return serialisationHeader + static_cast<std::uint32_t>((body + 7) & ~std::size_t{7});
}

// Writes the blob as an interface pointer behind its referent.
void writePropertyBlob(ndr::Writer& out, const BlobKind& kind, const std::vector<Property>& properties);

}  // namespace quelm::dcom::orpc
