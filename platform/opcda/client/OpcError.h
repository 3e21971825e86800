#pragma once

// A result of a server that leaves a program nothing to go on with, in a sentence: what was asked, what was answered.

#include <stdexcept>
#include <string>

#include "base/HResult.h"
#include "opcda/client/Words.h"

namespace quelm::opcda::client {

class OpcError : public std::runtime_error {
 public:
    // asked: "browsing 'Plant.Unit1'".
    OpcError(const std::string& asked, HResult answered)
        : std::runtime_error("The server answered " + asked + " with: " + resultText(answered)), result(answered) {}
    // For what is no result of a call, such as a list without an end.
    explicit OpcError(const std::string& sentence) : std::runtime_error(sentence) {}

    HResult result = E_FAIL;
};

// The out parameters of a reply that is no failure.
template <class Reply>
auto need(Reply&& reply, const std::string& asked) {
    if (failed(reply.result)) {
        throw OpcError(asked, reply.result);
    }
    return std::forward<Reply>(reply).out;
}

}  // namespace quelm::opcda::client
