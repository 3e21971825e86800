#pragma once

// The interfaces that an object offers, in one list: they are made, found and told from it.

#include <array>
#include <cstdint>
#include <span>
#include <string_view>
#include <tuple>

#include "dcom/orpc/MethodTable.h"

namespace quelm::opcda::wire {

struct InterfaceRow {
    Uuid iid;
    std::string_view name;
    std::span<const std::string_view> methods;  // from firstOpnum on
};

// The names of an interface's methods, in the order of its table.
template <class Interface>
inline constexpr auto methodNames = [] {
    std::array<std::string_view, Interface::methods.size()> names;
    for (std::size_t i = 0; i < names.size(); ++i) {
        names[i] = Interface::methods[i].name;
    }
    return names;
}();

template <class Interface>
constexpr InterfaceRow rowOf() {
    return {Interface::interfaceId, Interface::interfaceName, methodNames<Interface>};
}

// In the order in which clients ask for them most.
template <class... Interfaces>
class OfferedInterfaces {
 public:
    static constexpr std::array<InterfaceRow, sizeof...(Interfaces)> rows{rowOf<Interfaces>()...};

    // The object outlives them.
    template <class Object>
    explicit OfferedInterfaces(Object& object) : interfaces_(forEach<Interfaces>(object)...) {}

    // nullptr: the object does not offer it.
    dcom::orpc::Interface* find(const Uuid& iid) {
        dcom::orpc::Interface* found = nullptr;
        static_cast<void>(
            ((Interfaces::interfaceId == iid && (found = &std::get<Interfaces>(interfaces_)) != nullptr) || ...));
        return found;
    }
    static constexpr bool has(const Uuid& iid) { return ((Interfaces::interfaceId == iid) || ...); }

 private:
    template <class Interface, class Object>
    static Object& forEach(Object& object) {
        return object;
    }

    std::tuple<Interfaces...> interfaces_;
};

}  // namespace quelm::opcda::wire
