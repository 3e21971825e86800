#pragma once

// Why a call to a server came to nothing, in a sentence for whoever runs the program: what was being done, at which
// address, what happened, and what to do about it.

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace quelm::dcom::client {

class Trouble : public std::runtime_error {
 public:
    enum class Kind : std::uint8_t {
        Address,       // the name is not known, or is none that can be dialled
        NoAnswer,      // no connection within the time limit, or no way to the network
        Refused,       // the machine is there, and nobody listens on the port
        Closed,        // the connection ended before the answer
        LogOnRefused,  // account, password, or the right to log on
        AccessDenied,  // logged on, and not allowed to do this
        TooWeak,       // what the other end offers, or the level that it was come with
        Garbage,       // an answer that cannot be read, or that leads astray
        Fault,         // the server answered with a fault; code has it
        TimeLimit,     // connected, and no answer within the time limit
        ClassUnknown,  // the machine has no such class
        Interrupted,   // by Session::interrupt()
    };

    // at: "host:port", empty where nothing was dialled. number: the fault's or the result's, where there is one.
    Trouble(Kind what, std::string at, const std::string& sentence, std::uint32_t number = 0)
        : std::runtime_error(sentence), kind(what), address(std::move(at)), code(number) {}

    Kind kind;
    std::string address;
    std::uint32_t code;
};

// "LogOnRefused": the kind as a word, for programs that read another one's output.
std::string_view kindName(Trouble::Kind kind);

}  // namespace quelm::dcom::client
