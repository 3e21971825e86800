#include "OPC/Client/Options.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <charconv>
#include <fstream>

#include "base/Text.h"

namespace quelm::opcclient {

namespace {

using dcom::rpc::AuthLevel;

struct CommandName {
    Command command;
    const char* name;
    bool takesItems;
};

constexpr std::array<CommandName, 9> commandNames{{{Command::Discover, "discover", false},
                                                   {Command::Status, "status", false},
                                                   {Command::Browse, "browse", false},
                                                   {Command::Read, "read", true},
                                                   {Command::Watch, "watch", true},
                                                   {Command::Properties, "properties", true},
                                                   {Command::Groups, "groups", false},
                                                   {Command::Bench, "bench", true},
                                                   {Command::Check, "check", false}}};

// More than a person or a script means, and well within what the wire can carry.
constexpr std::size_t mostItems = 100'000;
constexpr std::uint32_t mostSeconds = 1'000'000;
constexpr int lastCase = 200;

template <class Number>
Number wholeNumber(std::string_view what, std::string_view text, Number least, Number most) {
    Number number{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || number < least || number > most) {
        throw UsageError(fmt::format("{} must be a whole number from {} to {}, not '{}'", what, least, most, text));
    }
    return number;
}

// One command line with everything that may stand in it; what the words mean is checked in take().
class Parser {
 public:
    Parser();
    Options parse(std::span<const std::string> arguments);

 private:
    void addCommands();
    void addCheck(CLI::App* check);
    CLI::Option* text(CLI::App* app, const std::string& name, std::string& value);
    void number(CLI::App* app, const std::string& name, std::uint32_t& value, std::uint32_t least);
    void takeWords();
    void takeHost();
    void takeUser();
    void takeLevel();
    void takeForm();
    void takeCases();
    void takeItems();
    void takeCallback();

    CLI::App app_;
    Options options_;
    std::string user_, level_, itemsFile_, callback_, server_;
    std::vector<std::string> cases_;
    std::uint32_t limit_ = 10;
    bool json_ = false, csv_ = false, noColor_ = false, help_ = false, version_ = false;
};

Parser::Parser() {
    app_.set_help_flag();
    app_.require_subcommand(0, 1);
    app_.add_flag("--help,-h", help_);
    app_.add_flag("--version", version_);
    app_.add_flag("--json", json_);
    app_.add_flag("--csv", csv_);
    app_.add_flag("--no-color,--no-colour", noColor_);
    app_.add_flag("--verbose,-v", options_.verbose);
    text(&app_, "--server,-s", server_);
    text(&app_, "--user,-U", user_);
    text(&app_, "--password-file", options_.passwordFile);
    text(&app_, "--level", level_);
    text(&app_, "--callback", callback_);
    number(&app_, "--timeout", limit_, 1);
    addCommands();
}

CLI::Option* Parser::text(CLI::App* app, const std::string& name, std::string& value) {
    return app->add_option(name, value)->multi_option_policy(CLI::MultiOptionPolicy::Throw);
}

void Parser::number(CLI::App* app, const std::string& name, std::uint32_t& value, std::uint32_t least) {
    const auto take = [&value, name, least](const std::string& given) {
        value = wholeNumber<std::uint32_t>(name, given, least, name == "--rate" ? 3'600'000 : mostSeconds);
    };
    app->add_option_function<std::string>(name, take)->multi_option_policy(CLI::MultiOptionPolicy::Throw);
}

void Parser::addCommands() {
    for (const CommandName& each : commandNames) {
        CLI::App* const command = app_.add_subcommand(each.name)->fallthrough();
        command->add_option("HOST", options_.host);
        if (each.takesItems) {
            command->add_option("ITEM", options_.items);
            text(command, "--items", itemsFile_);
        }
    }
    app_.get_subcommand("status")->add_option("PROGID", options_.server);
    CLI::App* const browse = app_.get_subcommand("browse");
    browse->add_option("PROGID", options_.server);
    number(browse, "--depth", options_.depth, 1);
    browse->add_flag("--flat", options_.isFlat);
    text(browse, "--filter", options_.filter);
    CLI::App* const read = app_.get_subcommand("read");
    read->add_flag("--device", options_.fromDevice);
    const auto takeAge = [this](const std::string& given) {
        options_.maxAge = wholeNumber<std::uint32_t>("--max-age", given, 0, 0xFFFFFFFE);
    };
    read->add_option_function<std::string>("--max-age", takeAge);
    CLI::App* const watch = app_.get_subcommand("watch");
    number(watch, "--rate", options_.rate, 0);
    number(watch, "--seconds", options_.seconds, 1);
    watch->add_flag("--plot", options_.plots);
    watch->add_flag("--poll", options_.polls);
    number(app_.get_subcommand("bench"), "--seconds", options_.seconds, 1);
    addCheck(app_.get_subcommand("check"));
}

void Parser::addCheck(CLI::App* check) {
    check->add_option("--case", cases_)->delimiter(',')->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    check->add_flag("--list", options_.listsCases);
    check->add_flag("--writes", options_.writes);
    check->add_option("--item", options_.items)->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    text(check, "--junit", options_.junit);
    text(check, "--known", options_.known);
}

void Parser::takeHost() {
    const std::size_t colon = options_.host.rfind(':');
    if (colon != std::string::npos) {
        options_.port = wholeNumber<std::uint16_t>("The port behind HOST", options_.host.substr(colon + 1), 1, 65535);
        options_.host.resize(colon);
    }
    if (options_.host.empty()) {
        throw UsageError(fmt::format("{} needs a HOST", options_.name));
    }
}

void Parser::takeUser() {
    const std::size_t slash = user_.find('\\');
    const std::size_t at = user_.rfind('@');
    if (slash != std::string::npos) {
        options_.domain = user_.substr(0, slash);
        options_.user = user_.substr(slash + 1);
    } else if (at != std::string::npos) {
        options_.user = user_.substr(0, at);
        options_.domain = user_.substr(at + 1);
    } else {
        options_.user = user_;
    }
    if (!user_.empty() && options_.user.empty()) {
        throw UsageError(fmt::format("'{}' names no user; write DOMAIN\\user or user@domain", user_));
    }
    if (options_.user.empty() && !options_.passwordFile.empty()) {
        throw UsageError("--password-file is of no use without --user");
    }
}

void Parser::takeLevel() {
    if (level_.empty() || level_ == "integrity") {
        return;
    }
    if (level_ != "connect" && level_ != "privacy") {
        throw UsageError(fmt::format("--level is connect, integrity or privacy, not '{}'", level_));
    }
    options_.level = level_ == "connect" ? AuthLevel::Connect : AuthLevel::Privacy;
}

void Parser::takeForm() {
    if (json_ && csv_) {
        throw UsageError("--json and --csv exclude each other");
    }
    options_.form = json_ ? Form::Json : csv_ ? Form::Csv : Form::Text;
    options_.color = !noColor_;
}

void Parser::takeCases() {
    for (const std::string& given : cases_) {
        options_.cases.insert(wholeNumber<int>("--case", given, 1, lastCase));
    }
    if (options_.writes && options_.items.empty()) {
        throw UsageError("--writes needs --item: the item that may be written to");
    }
}

void Parser::takeItems() {
    if (!itemsFile_.empty()) {
        const std::vector<std::string> more = linesFromFile(itemsFile_);
        options_.items.insert(options_.items.end(), more.begin(), more.end());
    }
    if (options_.items.empty()) {
        throw UsageError(fmt::format("{} needs at least one ITEM, or --items FILE", options_.name));
    }
    if (options_.items.size() > mostItems) {
        throw UsageError(fmt::format("{} items are too many: at most {}", options_.items.size(), mostItems));
    }
    if (options_.fromDevice && options_.maxAge) {
        throw UsageError("--device and --max-age exclude each other");
    }
}

void Parser::takeCallback() {
    const std::size_t colon = callback_.rfind(':');
    options_.callbackAddress = callback_.substr(0, colon);
    if (colon != std::string::npos) {
        options_.callbackPort = wholeNumber<std::uint16_t>("--callback's port", callback_.substr(colon + 1), 0, 65535);
    }
}

void Parser::takeWords() {
    takeForm();
    takeUser();
    takeLevel();
    takeCallback();
    options_.limit = std::chrono::seconds(std::min<std::uint32_t>(limit_, 3600));
    options_.server = server_.empty() ? options_.server : server_;
    const bool isWordless = options_.command == Command::Help || options_.command == Command::Version;
    if (isWordless || (options_.command == Command::Check && options_.listsCases)) {
        return;
    }
    takeHost();
    takeCases();
    const auto row = std::find_if(commandNames.begin(), commandNames.end(),
                                  [this](const CommandName& each) { return each.command == options_.command; });
    if (row != commandNames.end() && row->takesItems) {
        takeItems();
    }
}

Options Parser::parse(std::span<const std::string> arguments) {
    try {
        app_.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
    } catch (const CLI::ParseError& error) {
        throw UsageError(error.what());
    }
    for (const CommandName& each : commandNames) {
        if (app_.got_subcommand(each.name)) {
            options_.command = each.command;
            options_.name = each.name;
        }
    }
    if (help_ || version_) {
        options_.command = help_ ? Command::Help : Command::Version;
    } else if (options_.command == Command::Help) {
        throw UsageError("no command is given");
    }
    takeWords();
    return std::move(options_);
}

}  // namespace

Options parseOptions(std::span<const std::string> arguments) {
    return Parser().parse(arguments);
}

std::vector<std::string> linesFromFile(const std::string& path) {
    std::ifstream file(path);
    if (!file) {
        throw UsageError(fmt::format("the file {} cannot be read", path));
    }
    std::vector<std::string> lines;
    std::string line;
    while (std::getline(file, line)) {
        if (line.ends_with('\r')) {
            line.pop_back();
        }
        const std::string_view content = trimBlanks(line);
        if (!content.empty() && !content.starts_with('#')) {
            lines.emplace_back(content);
        }
        if (lines.size() > mostItems) {
            throw UsageError(fmt::format("{} is too long: at most {} lines", path, mostItems));
        }
    }
    return lines;
}

std::string_view usageText() {
    return R"(opcda: reads, watches and checks OPC DA servers over the network, from Linux.

  opcda discover HOST                   which OPC servers are there
  opcda status HOST [PROGID]            does it run, since when, which version
  opcda browse HOST [PROGID]            the tree of its items
        --depth N  --flat  --filter PATTERN (names: * ? [A-M])
  opcda read HOST ITEM...               values, qualities, time stamps
        --device  --max-age MS  --items FILE
  opcda watch HOST ITEM...              the same live: the server calls back, or else is asked
        --rate MS  --seconds N  --plot  --poll  --items FILE
  opcda properties HOST ITEM...         what the server says about items
  opcda groups HOST [--server PROGID]   groups that the server shows to a client
  opcda bench HOST ITEM... [--seconds N] how many reads a second, and how long one takes
  opcda check HOST                      does the server do what OPC DA says
        --case N,...  --list  --known FILE  --junit FILE  --writes --item ITEM

HOST is a name or an address, with :PORT where activation is not at port 135.
  -s, --server PROGID      or class id; not needed where HOST has one OPC server only
  -U, --user DOMAIN\user   or user@domain. The password is asked for, or comes from --password-file FILE
                           (mode 0600) or the environment variable OPCDA_PASSWORD. Without -U: no log-on.
      --level LEVEL        connect, integrity (default) or privacy
      --callback HOST:PORT where the server is to call back; chosen by the system unless given
      --timeout N          seconds for one call, 10 unless given
      --json, --csv        for programs: on standard output only, messages go to standard error
      --no-color  -v, --verbose  --help  --version

Ends with 0: good, 1: an item failed or is bad (check: a case failed), 2: usage, 3: not reached, 4: refused,
130: interrupted. The manual page opcda(1) says more.
)";
}

}  // namespace quelm::opcclient
