#include "OPC/Tools/Arguments.h"

#include <fmt/format.h>

#include <array>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <limits>
#include <utility>

#include "OPC/OPC DA Server/PIDFunctions.h"

namespace quelm::tools {

namespace {

constexpr std::int32_t largestChannel = 1999999999;

enum class Takes { Nothing, Value, SecondsIfAny };

struct OptionForm {
    std::string_view name;
    Takes takes;
    std::string_view commands;  // the commands that know it, each between blanks; "" = all
    bool isForWholeRun = false;
};

constexpr std::array options{
    OptionForm{"--site", Takes::Value, "", true},
    OptionForm{"--ini", Takes::Value, "", true},
    OptionForm{"--json", Takes::Nothing, ""},
    OptionForm{"--yes", Takes::Nothing, ""},
    OptionForm{"--verbose", Takes::Nothing, ""},
    OptionForm{"--help", Takes::Nothing, ""},
    OptionForm{"--version", Takes::Nothing, ""},
    OptionForm{"--requestor", Takes::Value, " write refresh-all refresh "},
    OptionForm{"--type", Takes::Value, " write "},
    OptionForm{"--priority", Takes::Nothing, " write "},
    OptionForm{"--frequent", Takes::Nothing, " write "},
    OptionForm{"--require-aoe", Takes::Nothing, " write "},
    OptionForm{"--allow-empty", Takes::Nothing, " write "},
    OptionForm{"--wait", Takes::SecondsIfAny, " refresh "},
    OptionForm{"--blocks", Takes::Value, " list "},
    OptionForm{"--block-length", Takes::Value, " list "},
    OptionForm{"--pid", Takes::Value, " list "},
};

struct GivenOption {
    const OptionForm* form;
    std::optional<std::string> value;
};

struct Words {
    std::vector<std::string> values;
    std::vector<GivenOption> options;

    const GivenOption* find(std::string_view name) const {
        for (const GivenOption& option : options) {
            if (option.form->name == name) {
                return &option;
            }
        }
        return nullptr;
    }
    bool has(std::string_view name) const { return find(name) != nullptr; }
    std::optional<std::string> value(std::string_view name) const {
        const GivenOption* option = find(name);
        return option == nullptr ? std::nullopt : option->value;
    }
};

// The whole text as a plain decimal number; nothing for anything else, a leading "+" and blanks included.
template <class Number>
std::optional<Number> numberOf(std::string_view text) {
    Number number{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

const OptionForm& optionNamed(std::string_view name) {
    for (const OptionForm& form : options) {
        if (form.name == name) {
            return form;
        }
    }
    throw UsageError(fmt::format("unknown option {}", name));
}

std::optional<std::string> takeValue(const OptionForm& form, std::span<const std::string>& rest) {
    switch (form.takes) {
        case Takes::Nothing:
            return std::nullopt;
        case Takes::SecondsIfAny:
            if (rest.empty() || !numberOf<std::int32_t>(rest.front())) {
                return std::nullopt;
            }
            break;
        case Takes::Value:
            if (rest.empty() || rest.front().starts_with("--")) {
                throw UsageError(fmt::format("{} needs a value", form.name));
            }
            break;
    }
    std::string value = rest.front();
    rest = rest.subspan(1);
    return value;
}

GivenOption takeOption(std::string_view word, std::span<const std::string>& rest) {
    const std::size_t equals = word.find('=');
    const OptionForm& form = optionNamed(word.substr(0, equals));
    if (equals == std::string_view::npos) {
        return {&form, takeValue(form, rest)};
    }
    if (form.takes == Takes::Nothing) {
        throw UsageError(fmt::format("{} takes no value", form.name));
    }
    return {&form, std::string(word.substr(equals + 1))};
}

Words sortWords(std::span<const std::string> rest) {
    Words words;
    bool optionsEnded = false;
    while (!rest.empty()) {
        const std::string_view word = rest.front();
        rest = rest.subspan(1);
        if (optionsEnded || !(word.starts_with("--") || word == "-h")) {
            words.values.emplace_back(word);
        } else if (word == "--") {
            optionsEnded = true;
        } else {
            GivenOption option = takeOption(word == "-h" ? "--help" : word, rest);
            if (words.has(option.form->name)) {
                throw UsageError(fmt::format("{} is given twice", option.form->name));
            }
            words.options.push_back(std::move(option));
        }
    }
    return words;
}

std::int32_t wholeNumber(std::string_view what, std::string_view text, std::int32_t least, std::int32_t most) {
    const std::optional<std::int32_t> number = numberOf<std::int32_t>(text);
    if (!number || *number < least || *number > most) {
        throw UsageError(fmt::format("{} must be a whole number from {} to {}, not '{}'", what, least, most, text));
    }
    return *number;
}

std::int32_t channelID(std::string_view text) {
    const bool hasLetter = text.starts_with('C') || text.starts_with('c');
    return wholeNumber("CHANNEL", text.substr(hasLetter ? 1 : 0), 1, largestChannel);
}

// Numbers are taken in one form only: "12,5" and "1 000" are no numbers here, whatever the locale.
Variant numberValue(const std::string& text) {
    if (const auto whole = numberOf<std::int32_t>(text)) {
        return Variant(*whole);
    }
    const auto number = numberOf<double>(text);
    if (!number || !std::isfinite(*number)) {
        throw UsageError(fmt::format("'{}' is not a number (give --type text to write it as text)", text));
    }
    return Variant(*number);
}

Variant booleanValue(std::string_view text) {
    if (text == "true" || text == "1") {
        return Variant(true);
    }
    if (text == "false" || text == "0") {
        return Variant(false);
    }
    throw UsageError(fmt::format("'{}' is neither true nor false", text));
}

void expectValues(const Words& words, std::size_t count, std::string_view form) {
    if (words.values.size() != count + 1) {
        throw UsageError(fmt::format("{} takes {}", words.values.front(), form));
    }
}

Variant valueToWrite(const Words& words) {
    const std::string type = words.value("--type").value_or("number");
    if (type == "null") {
        expectValues(words, 1, "CHANNEL and, with --type null, no VALUE");
        return Variant::null();
    }
    expectValues(words, 2, "CHANNEL and VALUE");
    const std::string& text = words.values[2];
    if (type == "number") {
        return numberValue(text);
    }
    if (type == "bool") {
        return booleanValue(text);
    }
    if (type == "text") {
        return Variant(text);
    }
    throw UsageError(fmt::format("--type must be number, text, bool or null, not '{}'", type));
}

Command writeCommand(const Words& words) {
    WriteCommand command;
    command.value = valueToWrite(words);
    command.channel = channelID(words.values[1]);
    command.isTimeSensitive = words.has("--priority");
    command.isFrequent = words.has("--frequent");
    command.requiresAutoOutput = words.has("--require-aoe");
    command.allowsEmpty = words.has("--allow-empty");
    return command;
}

Command refreshCommand(const Words& words) {
    expectValues(words, 1, "CHANNELLIST (a number right behind --wait is taken as its seconds)");
    RefreshCommand command;
    command.channels = words.values[1];
    if (words.has("--wait")) {
        const auto seconds = words.value("--wait");
        command.waitSeconds = seconds ? wholeNumber("--wait", *seconds, 1, longestWaitSeconds) : defaultWaitSeconds;
    }
    return command;
}

Command showCommand(const Words& words) {
    expectValues(words, 1, "CHANNEL");
    return ShowCommand{channelID(words.values[1])};
}

Command listCommand(const Words& words) {
    expectValues(words, 1, "CHANNEL");
    ListCommand command;
    command.channel = channelID(words.values[1]);
    if (const auto blocks = words.value("--blocks")) {
        command.blocks = wholeNumber("--blocks", *blocks, 1, mostBlocks);
    }
    if (const auto length = words.value("--block-length")) {
        command.blockLength = wholeNumber("--block-length", *length, 1, largestChannel);
    }
    if (command.blocks > 1 && command.blockLength == 0) {
        throw UsageError("--blocks above 1 needs --block-length, the distance between the blocks' channel IDs");
    }
    if (const auto pid = words.value("--pid")) {
        command.pid = ParsePID(*pid, false);
        if (command.pid == 0) {
            throw UsageError(fmt::format("'{}' is not a PID", *pid));
        }
    }
    return command;
}

template <class Plain>
Command plainCommand(const Words& words) {
    expectValues(words, 0, "nothing further");
    return Plain{};
}

Command commandOf(const Words& words, Origin origin) {
    const std::string& name = words.values.front();
    if (name == "write") {
        return writeCommand(words);
    }
    if (name == "refresh-all") {
        return plainCommand<RefreshAllCommand>(words);
    }
    if (name == "refresh") {
        return refreshCommand(words);
    }
    if (name == "health") {
        return plainCommand<HealthCommand>(words);
    }
    if (name == "show") {
        return showCommand(words);
    }
    if (name == "list") {
        return listCommand(words);
    }
    if (name == "help") {
        return plainCommand<HelpCommand>(words);
    }
    if (name == "shell" && origin == Origin::CommandLine) {
        return plainCommand<ShellCommand>(words);
    }
    throw UsageError(fmt::format("unknown command '{}'", name));
}

void checkOptions(const Words& words, Origin origin) {
    const std::string& command = words.values.front();
    for (const GivenOption& option : words.options) {
        const OptionForm& form = *option.form;
        if (!form.commands.empty() && form.commands.find(fmt::format(" {} ", command)) == std::string_view::npos) {
            throw UsageError(fmt::format("{} does not belong to {}", form.name, command));
        }
        if (form.isForWholeRun && origin == Origin::ShellLine) {
            throw UsageError(fmt::format("{} belongs before shell, not into a line of it", form.name));
        }
    }
}

}  // namespace

Request parseArguments(std::span<const std::string> arguments, Origin origin) {
    const Words words = sortWords(arguments);
    Request request;
    request.site = words.value("--site");
    request.ini = words.value("--ini");
    request.requestor = words.value("--requestor");
    request.json = words.has("--json");
    request.yes = words.has("--yes");
    request.verbose = words.has("--verbose");
    if (words.has("--help")) {
        return request;
    }
    if (words.has("--version")) {
        request.command = VersionCommand{};
        return request;
    }
    if (words.values.empty()) {
        throw UsageError("no command is given");
    }
    request.command = commandOf(words, origin);
    checkOptions(words, origin);
    request.name = words.values.front();
    return request;
}

std::vector<std::string> splitLine(std::string_view line) {
    std::vector<std::string> words;
    bool isInWord = false;
    for (std::size_t at = 0; at < line.size(); ++at) {
        const char c = line[at];
        if (c == ' ' || c == '\t' || c == '\r') {
            isInWord = false;
            continue;
        }
        if (!isInWord) {
            words.emplace_back();
            isInWord = true;
        }
        if (c != '"' && c != '\'') {
            words.back() += c;
            continue;
        }
        const std::size_t closing = line.find(c, at + 1);
        if (closing == std::string_view::npos) {
            throw UsageError(fmt::format("the quote {} is not closed", c));
        }
        words.back() += line.substr(at + 1, closing - at - 1);
        at = closing;
    }
    return words;
}

std::string_view helpText() {
    return R"(iosctl - asks a site's I/O servers for data, shows what they say, and has them write to field devices

  iosctl [OPTIONS] write CHANNEL VALUE [--type number|text|bool|null] [--priority] [--frequent]
                         [--require-aoe] [--allow-empty]
  iosctl [OPTIONS] refresh-all
  iosctl [OPTIONS] refresh CHANNELLIST [--wait [SECONDS]]
  iosctl [OPTIONS] health
  iosctl [OPTIONS] show CHANNEL
  iosctl [OPTIONS] list CHANNEL [--blocks N --block-length N] [--pid PID]
  iosctl [OPTIONS] shell

WARNING: write makes an I/O server WRITE TO A FIELD DEVICE (a valve, a set-point, an alarm). It asks before it does,
unless --yes is given; where nobody can be asked, because standard input is not a terminal, it refuses.

Commands
  write        leaves a command for the channel's I/O server and does not wait for it. VALUE is a number with "." as
               decimal point unless --type says otherwise; --type null takes no VALUE. Behind "--" a VALUE may begin
               with two hyphens.
                 --priority       the I/O server is to carry it out before other commands
                 --frequent       the channel is written often
                 --require-aoe    only where automatic output is enabled
                 --allow-empty    lets a text without any character but blanks through
  refresh-all  asks every I/O server in use to read all its devices afresh
  refresh      asks one I/O server to read some channels afresh, such as 12 or "12;13"; the first channel decides which
               I/O server where both generations are in use. --wait waits until it is done (60 seconds unless given).
               Only one such request can be pending in one run of iosctl.
  health       which generations of I/O server are in use, whether they beat, and whether their devices answer
  show         a channel's name, type and value; no value when its I/O server has been silent for over 45 seconds
  list         the values of a multi-value channel, one a line
  shell        takes commands from standard input, one a line, until its end or "quit"; "#" begins a comment

Options
  --site ID          the site, by its SiteID; the entry for this computer unless given
  --ini FILE         the system INI file; else the environment's QUELM_INI, else /etc/quelm/Quelm.ini
  --requestor TEXT   who asks, for the record (write, refresh, refresh-all); else iosctl and the user's name
  --json             one line of JSON for every command that got as far as a site
  --yes              writes without asking
  --verbose          shows progress messages too
  --help, --version

Exit codes
  0 done (health: all devices answer)    1 refused or failed; the messages are on standard error
  2 not understood    3 no INI file, site or database    4 not done within the time to wait
  A shell ends with the code of the first of its commands that did not end with 0.
)";
}

}  // namespace quelm::tools
