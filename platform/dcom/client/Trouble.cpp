#include "dcom/client/Trouble.h"

namespace quelm::dcom::client {

std::string_view kindName(Trouble::Kind kind) {
    using Kind = Trouble::Kind;
    switch (kind) {
        case Kind::Address:
            return "Address";
        case Kind::NoAnswer:
            return "NoAnswer";
        case Kind::Refused:
            return "Refused";
        case Kind::Closed:
            return "Closed";
        case Kind::LogOnRefused:
            return "LogOnRefused";
        case Kind::AccessDenied:
            return "AccessDenied";
        case Kind::TooWeak:
            return "TooWeak";
        case Kind::Garbage:
            return "Garbage";
        case Kind::Fault:
            return "Fault";
        case Kind::TimeLimit:
            return "TimeLimit";
        case Kind::ClassUnknown:
            return "ClassUnknown";
        case Kind::Interrupted:
            return "Interrupted";
    }
    return {};
}

}  // namespace quelm::dcom::client
