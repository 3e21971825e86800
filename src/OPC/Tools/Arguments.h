#pragma once

// What an operator asks of iosctl: the command line, or one line of its shell, as a command with its options. Nothing
// that could be meant in two ways is guessed at, for a command may move a valve.

#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "base/Variant.h"

namespace quelm::tools {

struct WriteCommand {
    std::int32_t channel = 0;
    Variant value;  // a 32-bit integer, double, text, Boolean or Null
    bool isTimeSensitive = false;
    bool isFrequent = false;
    bool requiresAutoOutput = false;
    bool allowsEmpty = false;
};

struct RefreshAllCommand {};

struct RefreshCommand {
    std::string channels;  // for the I/O server to interpret
    std::optional<std::int32_t> waitSeconds;
};

struct HealthCommand {};
struct ChannelsCommand {};

struct ShowCommand {
    std::int32_t channel = 0;
};

struct ListCommand {
    std::int32_t channel = 0;
    std::int32_t blocks = 1;
    std::int32_t blockLength = 0;
    std::int32_t pid = 0;  // 0: none
};

struct ShellCommand {};
struct HelpCommand {};
struct VersionCommand {};

using Command = std::variant<HelpCommand, VersionCommand, WriteCommand, RefreshAllCommand, RefreshCommand,
                             HealthCommand, ChannelsCommand, ShowCommand, ListCommand, ShellCommand>;

struct Request {
    std::string name;  // the command's, as it was given; "" for help and version
    Command command;
    std::optional<std::string> site;
    std::optional<std::string> ini;
    std::optional<std::string> requestor;
    bool json = false;
    bool yes = false;
    bool verbose = false;
};

// The command line cannot be understood; what() says why, in words for the operator.
class UsageError : public std::runtime_error {
 public:
    using std::runtime_error::runtime_error;
};

enum class Origin { CommandLine, ShellLine };

// Options may stand anywhere behind the command that knows them, those of all commands anywhere; numbers may be
// negative, and behind "--" everything is a value. Raises UsageError.
Request parseArguments(std::span<const std::string> arguments, Origin origin);

// The words of a shell line: blanks and tabs part them, quotes (double or single) hold them together, and everything
// between quotes stands for itself. Raises UsageError when a quote is not closed.
std::vector<std::string> splitLine(std::string_view line);

// How the tool is used, for people.
std::string_view helpText();

inline constexpr std::int32_t defaultWaitSeconds = 60;
inline constexpr std::int32_t longestWaitSeconds = 86400;
inline constexpr std::int32_t mostBlocks = 1000;

}  // namespace quelm::tools
