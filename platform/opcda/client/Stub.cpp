#include "opcda/client/Stub.h"

namespace quelm::opcda::client {

std::span<const std::uint8_t> Stub::Answer::pointer() {
    return in_.pointer() ? dcom::orpc::readInterfacePointer(in_) : std::span<const std::uint8_t>{};
}

HResult Stub::Answer::done() {
    const HResult result = in_.hresult();
    if (!in_.good()) {
        using dcom::client::Trouble;
        throw Trouble(Trouble::Kind::Garbage, {},
                      "The server's answer to " + std::string(method_) +
                          " cannot be read: it is shorter than it says, or contradicts itself");
    }
    return result;
}

Maybe<Interface> Stub::Answer::object(std::span<const std::uint8_t> reference) const {
    return reference.empty() ? std::nullopt : target_.adopt(reference);
}

}  // namespace quelm::opcda::client
