#pragma once

// What is asked of opcda: its command line, checked as far as that goes without a server.

#include <chrono>
#include <cstdint>
#include <optional>
#include <set>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "dcom/rpc/AuthLevel.h"

namespace quelm::opcclient {

enum class Command { Help, Version, Discover, Status, Browse, Read, Watch, Properties, Groups, Bench, Check };

// How an answer is written on standard output.
enum class Form { Text, Json, Csv };

struct Options {
    Command command = Command::Help;
    std::string name;  // the command's, as it was given
    std::string host;
    std::uint16_t port = 135;  // of activation
    std::string server;        // ProgID or class id; empty: the only one that is found
    std::vector<std::string> items;

    std::string user;    // empty: without a log-on
    std::string domain;  // may be empty
    std::string passwordFile;
    dcom::rpc::AuthLevel level = dcom::rpc::AuthLevel::Integrity;
    std::chrono::seconds limit{10};  // for one call
    std::string callbackAddress;     // where the server calls back; empty: where it was called from
    std::uint16_t callbackPort = 0;  // 0: any free one

    Form form = Form::Text;
    bool verbose = false;
    bool color = true;

    std::uint32_t depth = 0;  // of browsing, 0: all
    bool isFlat = false;
    std::string filter;
    bool fromDevice = false;
    std::optional<std::uint32_t> maxAge;  // ms
    std::uint32_t rate = 1000;            // ms
    std::uint32_t seconds = 0;            // 0: until interrupted (watch)
    bool plots = false;
    bool polls = false;

    std::set<int> cases;  // empty: all
    bool listsCases = false;
    bool writes = false;
    std::string junit;
    std::string known;
};

// The command line cannot be understood or carried out; what() says why, in words for whoever typed it.
class UsageError : public std::runtime_error {
 public:
    using std::runtime_error::runtime_error;
};

// Reads files of items (--items), nothing else. Raises UsageError.
Options parseOptions(std::span<const std::string> arguments);

// How the program is used, for people.
std::string_view usageText();

// The lines of a file (of items, or of known deviations) without the blanks around them; empty ones and those that
// begin with "#" are passed over. Raises UsageError.
std::vector<std::string> linesFromFile(const std::string& path);

}  // namespace quelm::opcclient
