#include "dcom/domain/Person.h"

#include "dcom/Printable.h"

namespace quelm::dcom {

std::string Person::account() const {
    constexpr std::size_t longestAccount = 600;  // never cut: it tells clients apart
    return printable(domain + '\\' + user, longestAccount);
}

}  // namespace quelm::dcom
