#pragma once

// The methods of an interface as a table, by which its calls find them: what the numbers, the names and the code of an
// interface are stands in one row each, for the calls, the tests, the fuzzers and the documents alike.

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "dcom/orpc/ComObject.h"
#include "dcom/orpc/OrpcTypes.h"

namespace quelm::dcom::orpc {

// The three methods of IUnknown before it never travel.
inline constexpr std::uint16_t firstOpnum = 3;

// Method: pointer to the member that carries the call out.
template <class Method>
struct MethodRow {
    template <class Opnum>
    constexpr MethodRow(Opnum number, std::string_view itsName, Method itsMethod)
        : opnum(opnumOf(number)), name(itsName), method(itsMethod) {}

    std::uint16_t opnum;
    std::string_view name;
    Method method;
};

// Of an interface whose methods need nothing but their parameters.
template <class Self>
using CallRow = MethodRow<Fault (Self::*)(ndr::Reader&, ndr::Writer&, CallContext&)>;

// Whether a table has a row for each opnum from the first one's on, in their order.
template <class Table>
constexpr bool isInOrder(const Table& table) {
    for (std::size_t i = 0; i < table.size(); ++i) {
        if (table[i].opnum != table[0].opnum + i) {
            return false;
        }
    }
    return true;
}

// The method of an opnum; nullptr when the table has none. Table: an array of rows that is in order.
template <const auto& table>
constexpr auto methodOf(std::uint16_t opnum) {
    static_assert(isInOrder(table), "a row for each opnum, in their order");
    const std::size_t at = std::size_t{opnum} - table[0].opnum;  // too small a number becomes a huge one
    return at < table.size() ? table[at].method : nullptr;
}

// An interface whose class Self has the table "methods", from firstOpnum on; they are members with parameters and
// result as Interface::invoke.
// Rest: what its methods take before the parameters.
template <class Self, class Base, class... Rest>
class TableInterface : public Base {
 public:
    using Base::Base;

 protected:
    using Row = MethodRow<Fault (Self::*)(Rest..., ndr::Reader&, ndr::Writer&, CallContext&)>;

    // As Interface::invoke.
    Fault dispatch(std::uint16_t opnum, Rest... rest, ndr::Reader& in, ndr::Writer& out, CallContext& context) {
        static_assert(Self::methods[0].opnum == firstOpnum);
        const auto method = methodOf<Self::methods>(opnum);
        return method != nullptr ? (static_cast<Self&>(*this).*method)(rest..., in, out, context) : Fault::OpnumRange;
    }
};

// The interface of an object that needs nothing but the parameters of its calls.
template <class Self, class Base = Interface>
class Dispatched : public TableInterface<Self, Base> {
 public:
    using TableInterface<Self, Base>::TableInterface;
    Fault invoke(std::uint16_t opnum, ndr::Reader& in, ndr::Writer& out, CallContext& context) final {
        return this->dispatch(opnum, in, out, context);
    }
};

}  // namespace quelm::dcom::orpc
