#pragma once

// Where the server is asked how it is: a socket in the file system, whose rights say who may ask. The server makes it,
// the operators' tools connect to it.

#include <cstdlib>
#include <string>

namespace quelm::health {

inline constexpr const char* controlVariable = "QUELM_CONTROL";
inline constexpr const char* usualControlPath = "/run/quelm/control";

// Bytes of a question, its line end included.
inline constexpr std::size_t longestQuestion = 4096;
// Bytes that an answer has at most, by far.
inline constexpr std::size_t longestAnswer = std::size_t{4} << 20U;

// Out of the environment, where it is set there.
inline std::string controlPath() {
    const char* const value = std::getenv(controlVariable);
    return value != nullptr && *value != '\0' ? value : usualControlPath;
}

}  // namespace quelm::health
