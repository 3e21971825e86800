#pragma once

// What the domain's controller says in a ticket about who holds it: names and groups. Whoever reads it must know that
// the controller's signature over it is right.

#include <cstdint>
#include <optional>
#include <span>

#include "dcom/domain/Person.h"

namespace quelm::dcom {

// Groups of one account beyond these are none that a directory has.
inline constexpr std::size_t mostGroups = 8192;

// The validation information of a ticket's PAC; nothing when it does not decode. The realm is left empty.
std::optional<Person> readLogonInfo(std::span<const std::uint8_t> encoded);

}  // namespace quelm::dcom
