#pragma once

// The monitor's line to the server: asks over the server's control socket and waits for the answer, within bounds.

#include <cstdint>
#include <functional>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

namespace quelm::monitor {

using Json = nlohmann::json;

enum class Trouble {
    Stopped,    // nobody listens: the server is not running
    Forbidden,  // the socket is not for this user
    Failed,     // no answer in time, or none that can be read
    Refused,    // the server answered that it will not
};

// Why there is no answer, in words for the operator.
class LinkTrouble : public std::runtime_error {
 public:
    LinkTrouble(Trouble kind, const std::string& text) : std::runtime_error(text), kind_(kind) {}
    Trouble kind() const { return kind_; }

 private:
    Trouble kind_;
};

// One question to the server: a JSON object for a JSON object. Raises LinkTrouble.
using Asking = std::function<Json(const Json&)>;

class ControlLink {
 public:
    // path: of the socket. Connects when first asked.
    explicit ControlLink(std::string path) : path_(std::move(path)) {}
    ~ControlLink();
    ControlLink(const ControlLink&) = delete;
    ControlLink& operator=(const ControlLink&) = delete;

    // Waits at most three seconds. A server that did not answer in time is asked again a second later at the earliest:
    // until then the same failure is raised at once.
    Json ask(const Json& request);

    // An answer beyond this size (bytes) is not taken.
    static constexpr std::size_t longestAnswer = std::size_t{4} << 20;

 private:
    class Lost;

    void connect();
    void close();
    std::string exchange(const std::string& line);
    std::string receive(std::uint64_t deadline);
    void waitFor(short events, std::uint64_t deadline) const;

    std::string path_;
    int descriptor_ = -1;
    std::uint64_t failedAt_ = 0;  // milliseconds; only while failure_ is not empty
    std::string failure_;
};

}  // namespace quelm::monitor
