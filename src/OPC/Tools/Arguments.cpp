#include "OPC/Tools/Arguments.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <charconv>
#include <cmath>
#include <cstddef>

#include "OPC/OPC DA Server/PIDFunctions.h"

namespace quelm::tools {

namespace {

constexpr std::int32_t largestChannel = 1999999999;

// The whole text as a plain decimal number; nothing for anything else, a leading "+" and blanks included.
template <class Number>
std::optional<Number> numberOf(std::string_view text) {
    Number number{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
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

// One command line with everything that may stand in it. Words are taken as they stand: what they mean is checked here.
class Reader {
 public:
    explicit Reader(Origin origin);
    Request read(std::span<const std::string> arguments);

 private:
    CLI::App* command(const std::string& name);
    static CLI::Option* text(CLI::App* app, const std::string& name, std::optional<std::string>& value);
    static void flag(CLI::App* app, const std::string& name, bool& value);
    void addSiteCommands();
    Command commandGiven() const;
    Command writeCommand() const;
    Command refreshCommand() const;
    Command listCommand() const;
    Variant valueToWrite() const;

    CLI::App app_;
    Request request_;
    WriteCommand write_;
    CLI::Option* wait_ = nullptr;
    bool isHelpWanted_ = false;
    bool isVersionWanted_ = false;
    std::optional<std::string> channel_, channels_, value_, type_, waitSeconds_, blocks_, blockLength_, pid_;
};

CLI::Option* Reader::text(CLI::App* app, const std::string& name, std::optional<std::string>& value) {
    const auto take = [&value, name](const std::string& given) {
        if (name.starts_with("--") && given.starts_with("--")) {
            throw UsageError(fmt::format("{} needs a value", name));
        }
        value = given;
    };
    return app->add_option_function<std::string>(name, take)->multi_option_policy(CLI::MultiOptionPolicy::Throw);
}

void Reader::flag(CLI::App* app, const std::string& name, bool& value) {
    app->add_flag(name, value)->disable_flag_override()->multi_option_policy(CLI::MultiOptionPolicy::Throw);
}

CLI::App* Reader::command(const std::string& name) {
    return app_.add_subcommand(name)->fallthrough();
}

Reader::Reader(Origin origin) {
    app_.set_help_flag();
    app_.require_subcommand(0, 1);
    app_.allow_extras();
    if (origin == Origin::CommandLine) {
        text(&app_, "--site", request_.site);
        text(&app_, "--ini", request_.ini);
    }
    flag(&app_, "--json", request_.json);
    flag(&app_, "--yes", request_.yes);
    flag(&app_, "--verbose", request_.verbose);
    flag(&app_, "--help,-h", isHelpWanted_);
    flag(&app_, "--version", isVersionWanted_);
    for (const char* plain : {"health", "channels", "help"}) {
        command(plain);
    }
    if (origin == Origin::CommandLine) {
        command("shell");
    }
    addSiteCommands();
}

void Reader::addSiteCommands() {
    text(command("show"), "CHANNEL", channel_);

    CLI::App* const write = command("write");
    text(write, "CHANNEL", channel_);
    text(write, "VALUE", value_);
    text(write, "--type", type_);
    flag(write, "--priority", write_.isTimeSensitive);
    flag(write, "--frequent", write_.isFrequent);
    flag(write, "--require-aoe", write_.requiresAutoOutput);
    flag(write, "--allow-empty", write_.allowsEmpty);

    CLI::App* const refresh = command("refresh");
    text(refresh, "CHANNELLIST", channels_);
    wait_ = text(refresh, "--wait", waitSeconds_)->expected(0, 1);

    CLI::App* const list = command("list");
    text(list, "CHANNEL", channel_);
    text(list, "--blocks", blocks_);
    text(list, "--block-length", blockLength_);
    text(list, "--pid", pid_);

    for (CLI::App* const asking : {write, refresh, command("refresh-all")}) {
        text(asking, "--requestor", request_.requestor);
    }
}

Request Reader::read(std::span<const std::string> arguments) {
    try {
        app_.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
    } catch (const CLI::ParseError& error) {
        throw UsageError(error.what());
    }
    if (isHelpWanted_) {
        return request_;
    }
    if (isVersionWanted_) {
        request_.command = VersionCommand{};
        return request_;
    }
    const auto given = app_.get_subcommands();
    auto notTaken = app_.remaining(true);
    std::erase(notTaken, "--");  // the mark itself is among them even where it served
    if (given.empty()) {
        throw UsageError(notTaken.empty() ? "no command is given"
                                          : fmt::format("'{}' is no command or option here", notTaken.front()));
    }
    request_.name = given.front()->get_name();
    if (!notTaken.empty()) {
        throw UsageError(fmt::format("{} does not take '{}'", request_.name, notTaken.front()));
    }
    request_.command = commandGiven();
    return request_;
}

// What a command cannot do without.
const std::string& needed(const std::optional<std::string>& word, std::string_view what) {
    return word ? *word : throw UsageError(fmt::format("{} is missing", what));
}

Command Reader::commandGiven() const {
    const std::string& name = request_.name;
    if (name == "write") {
        return writeCommand();
    }
    if (name == "refresh") {
        return refreshCommand();
    }
    if (name == "refresh-all") {
        return RefreshAllCommand{};
    }
    if (name == "health") {
        return HealthCommand{};
    }
    if (name == "channels") {
        return ChannelsCommand{};
    }
    if (name == "show") {
        return ShowCommand{channelID(needed(channel_, "CHANNEL"))};
    }
    if (name == "list") {
        return listCommand();
    }
    return name == "shell" ? Command(ShellCommand{}) : Command(HelpCommand{});
}

Variant Reader::valueToWrite() const {
    const std::string type = type_.value_or("number");
    if (type == "null") {
        if (value_) {
            throw UsageError("write takes CHANNEL and, with --type null, no VALUE");
        }
        return Variant::null();
    }
    const std::string& text = needed(value_, "VALUE");
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

Command Reader::writeCommand() const {
    WriteCommand command = write_;
    command.channel = channelID(needed(channel_, "CHANNEL"));
    command.value = valueToWrite();
    return command;
}

Command Reader::refreshCommand() const {
    RefreshCommand command;
    command.channels = needed(channels_, "CHANNELLIST (what stands right behind --wait is taken as its seconds)");
    if (wait_->count() > 0) {
        command.waitSeconds = waitSeconds_ && !waitSeconds_->empty()
                                  ? wholeNumber("--wait", *waitSeconds_, 1, longestWaitSeconds)
                                  : defaultWaitSeconds;
    }
    return command;
}

Command Reader::listCommand() const {
    ListCommand command;
    command.channel = channelID(needed(channel_, "CHANNEL"));
    if (blocks_) {
        command.blocks = wholeNumber("--blocks", *blocks_, 1, mostBlocks);
    }
    if (blockLength_) {
        command.blockLength = wholeNumber("--block-length", *blockLength_, 1, largestChannel);
    }
    if (command.blocks > 1 && command.blockLength == 0) {
        throw UsageError("--blocks above 1 needs --block-length, the distance between the blocks' channel IDs");
    }
    if (pid_) {
        command.pid = ParsePID(*pid_, false);
        if (command.pid == 0) {
            throw UsageError(fmt::format("'{}' is not a PID", *pid_));
        }
    }
    return command;
}

}  // namespace

Request parseArguments(std::span<const std::string> arguments, Origin origin) {
    return Reader(origin).read(arguments);
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
  iosctl [OPTIONS] channels
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
  channels     the site's channels: number, type and name
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
  --help, -h         prints this text
  --version          prints the version

Exit codes
  0 done (health: all devices answer)    1 refused or failed; the messages are on standard error
  2 not understood    3 no INI file, site or database    4 not done within the time to wait
  A shell ends with the code of the first of its commands that did not end with 0.
)";
}

}  // namespace quelm::tools
