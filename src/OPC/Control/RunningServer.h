#pragma once

// The server that runs on this machine, asked over its control socket, and what it answers in words for people.

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

namespace quelm::control {

using Answer = nlohmann::ordered_json;

// Why there is no answer, and what to do about it.
class NoAnswer : public std::runtime_error {
 public:
    using std::runtime_error::runtime_error;
};

// One question, at the socket of that path, which is waited for some seconds. Throws NoAnswer.
Answer askServer(const std::string& path, const Answer& question);

// Lines for people.
std::vector<std::string> statusLines(const Answer& status);
std::vector<std::string> clientLines(const Answer& clients);

}  // namespace quelm::control
