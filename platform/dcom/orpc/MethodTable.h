#pragma once

// The methods of an interface as a table, by which its calls find them: what the numbers, the names and the code of an
// interface are stands in one row each, for the calls, the tests, the fuzzers and the documents alike.

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "dcom/orpc/ComObject.h"

namespace quelm::dcom::orpc {

// The three methods of IUnknown before it never travel.
inline constexpr std::uint16_t firstOpnum = 3;

// Method: pointer to the member that carries the call out, with parameters and status as Interface::invoke.
template <class Method>
struct MethodRow {
    template <class Opnum>
    constexpr MethodRow(Opnum number, std::string_view itsName, Method itsMethod)
        : opnum(static_cast<std::uint16_t>(number)), name(itsName), method(itsMethod) {}

    std::uint16_t opnum;
    std::string_view name;
    Method method;
};

// An interface whose class Self has the table "methods", with a row for each opnum from firstOpnum on, in their order.
// Rest: what its methods take before the parameters.
template <class Self, class Base, class... Rest>
class TableInterface : public Base {
 public:
    using Base::Base;

 protected:
    using Row = MethodRow<std::uint32_t (Self::*)(Rest..., ndr::Reader&, ndr::Writer&, CallContext&)>;

    // As Interface::invoke.
    std::uint32_t dispatch(std::uint16_t opnum, Rest... rest, ndr::Reader& in, ndr::Writer& out, CallContext& context) {
        static_assert(isInOrder(Self::methods), "a row for each opnum, in their order");
        const std::size_t at = std::size_t{opnum} - firstOpnum;  // too small a number becomes a huge one
        return at < Self::methods.size()
                   ? (static_cast<Self&>(*this).*Self::methods[at].method)(rest..., in, out, context)
                   : faultOpnumRange;
    }

 private:
    template <class Table>
    static constexpr bool isInOrder(const Table& table) {
        for (std::size_t i = 0; i < table.size(); ++i) {
            if (table[i].opnum != firstOpnum + i) {
                return false;
            }
        }
        return true;
    }
};

// The interface of an object that needs nothing but the parameters of its calls.
template <class Self, class Base = Interface>
class Dispatched : public TableInterface<Self, Base> {
 public:
    using TableInterface<Self, Base>::TableInterface;
    std::uint32_t invoke(std::uint16_t opnum, ndr::Reader& in, ndr::Writer& out, CallContext& context) final {
        return this->dispatch(opnum, in, out, context);
    }
};

}  // namespace quelm::dcom::orpc
