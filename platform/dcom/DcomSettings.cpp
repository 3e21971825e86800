#include "dcom/DcomSettings.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <map>
#include <optional>
#include <span>
#include <utility>

#include "base/IniFile.h"
#include "base/Text.h"
#include "base/Utf.h"
#include "dcom/ntlm/Crypto.h"

namespace quelm::dcom {

namespace {

constexpr std::size_t longestComputerName = 15;  // characters of a NetBIOS name
constexpr std::size_t longestName = 256;         // characters, as a log-on message may carry
constexpr std::size_t mostProblems = 50;         // a file of another kind must not swamp the log

constexpr std::array<std::string_view, 3> listenKeys = {"Address", "ActivationPort", "ObjectPort"};
constexpr std::array<std::string_view, 8> securityKeys = {
    "MinimumLevel", "AllowNTLMv1", "AllowAnonymous", "OpenServerList", "ComputerName", "Domain", "Keytab", "Winbind"};
constexpr std::array<std::string_view, 4> clientsKeys = {"PingTimeout", "FirstPing", "CloseGrace", "KeepRunning"};
constexpr std::array<std::string_view, 1> itemsKeys = {"SystemBranch"};
constexpr std::array<std::string_view, 4> callbacksKeys = {"Account", "Secret", "MinimumLevel", "AllowNoLogOn"};
constexpr std::array<std::string_view, 2> accessKeys = {"Users", "Groups"};

// Sections of settings, which have a place each in the parser.
struct NamedSection {
    std::string_view name;
    std::span<const std::string_view> keys;
    std::string_view remedy;
};
constexpr std::array<NamedSection, 6> namedSections = {{
    {"Listen", listenKeys, "Use Address, ActivationPort or ObjectPort"},
    {"Security", securityKeys,
     "Use MinimumLevel, AllowNTLMv1, AllowAnonymous, OpenServerList, ComputerName, Domain, Keytab or Winbind"},
    {"Clients", clientsKeys, "Use PingTimeout, FirstPing, CloseGrace or KeepRunning"},
    {"Items", itemsKeys, "Use SystemBranch"},
    {"Callbacks", callbacksKeys, "Use Account, Secret, MinimumLevel or AllowNoLogOn"},
    {"Access", accessKeys, "Use Users or Groups"},
}};

// Seconds. What a client left behind is of no use to anybody for longer than an hour.
constexpr std::uint32_t longestPeriod = 3600;
// Outside text as a problem line may show it: short and on one line.
std::string shownValue(std::string_view value) {
    const bool plain = characterCount(value) <= 64 && std::none_of(value.begin(), value.end(), [](char c) {
                           return static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
                       });
    return plain ? std::string(value) : "(unreadable)";
}

// The same for a name: not shown at all when a secret may have slipped into it.
std::string shownName(std::string_view name) {
    return name.find(':') == std::string_view::npos ? shownValue(name) : "(unreadable)";
}

bool isUtf8(std::string_view text) {
    return utf16ToUtf8(utf8ToUtf16(text)) == text;
}

template <class Number>
std::optional<Number> wholeNumber(std::string_view text, Number smallest) {
    Number number{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool whole = error == std::errc() && end == text.data() + text.size() && number >= smallest;
    return whole ? std::optional(number) : std::nullopt;
}

std::optional<ntlm::NtHash> hashFromHex(std::string_view digits) {
    ntlm::NtHash hash{};
    if (digits.size() != 2 * hash.size()) {
        return std::nullopt;
    }
    for (std::size_t i = 0; i < hash.size(); ++i) {
        const char* at = digits.data() + 2 * i;
        const auto [end, error] = std::from_chars(at, at + 2, hash[i], 16);
        if (error != std::errc() || end != at + 2) {
            return std::nullopt;
        }
    }
    return hash;
}

struct AccountName {
    std::string_view domain;
    std::string_view user;
};

// "DOMAIN\\user", or "user" alone, which gets anyDomain; nothing when it is no such name.
std::optional<AccountName> accountName(std::string_view text, std::string_view anyDomain) {
    const auto isName = [](std::string_view name) {
        return !name.empty() && characterCount(name) <= longestName &&
               name.find_first_of("\"/\\[]:;|=,+*?<>") == std::string_view::npos;
    };
    const std::size_t backslash = text.find('\\');
    if (backslash == std::string_view::npos) {
        const AccountName name{anyDomain, trimWhiteSpace(text)};
        return isName(name.user) ? std::optional(name) : std::nullopt;
    }
    const AccountName name{trimWhiteSpace(text.substr(0, backslash)), trimWhiteSpace(text.substr(backslash + 1))};
    const bool fits = isName(name.user) && (name.domain == anyDomain || isName(name.domain));
    return fits ? std::optional(name) : std::nullopt;
}

class Parser {
 public:
    Parser(DcomSettings& settings, std::string file) : settings_(settings), file_(std::move(file)) {}

    void parse(const IniFile& file);

 private:
    void sortOut(const IniFile::Section& section);
    IniFile::Section* sectionOf(std::string_view name);
    void lookForRepeats(IniFile::Section& section, std::string_view name);
    void lookForUnknownNames(const IniFile::Section& section, const NamedSection& named);
    void readListen();
    void readAddresses(std::string_view value);
    void readSecurity();
    void readKeytab();
    void readAccess();
    void readAccessList(std::string_view key, bool (AccessList::*add)(std::string_view), const char* remedy);
    void readCallbacks();
    void readAccount(const IniFile::Key& key);
    void addAccount(const std::string& place, const AccountName& name, const ntlm::NtHash& hash);
    std::optional<ntlm::NtHash> accountHash(const std::string& place, std::string_view value);
    template <class Apply>
    void readKey(std::string_view section, std::string_view key, Apply apply);
    void readLevel(std::string_view section, rpc::AuthLevel& level);
    void readSwitch(std::string_view section, std::string_view key, bool& isOn);
    template <class Value>
    void readChoice(std::string_view section, std::string_view key, const char* remedy, const char* fallback,
                    std::initializer_list<std::pair<std::string_view, Value>> choices, Value& setting);
    void readPort(std::string_view key, std::uint16_t smallest, std::uint16_t& port);
    void readPeriod(std::string_view key, std::uint32_t& seconds);
    void readNetBiosName(std::string_view key, std::string& name);
    void problem(const std::string& place, std::string_view what, std::string_view remedy);

    DcomSettings& settings_;
    std::string file_;
    // Sections of one name are read as one.
    std::array<IniFile::Section, namedSections.size()> sections_;
    IniFile::Section accounts_;
    std::map<std::string, std::optional<ntlm::NtHash>>
        hashes_;  // by folded domain\user; nothing after two different ones
};

void Parser::problem(const std::string& place, std::string_view what, std::string_view remedy) {
    auto& problems = settings_.problems;
    if (problems.size() < mostProblems) {
        problems.push_back(fmt::format("{}: {}: {}. {}.", file_, place, what, remedy));
    } else if (problems.size() == mostProblems) {
        problems.push_back(fmt::format("{}: further faults are not listed. Check that this is the right file.", file_));
    }
}

void Parser::parse(const IniFile& file) {
    for (const IniFile::Fault& fault : file.faults()) {
        problem(fmt::format("line {}", fault.line), fault.what, fault.remedy);
    }
    for (const IniFile::Section& section : file.sections()) {
        sortOut(section);
    }
    for (std::size_t i = 0; i < namedSections.size(); ++i) {
        lookForRepeats(sections_[i], namedSections[i].name);
        lookForUnknownNames(sections_[i], namedSections[i]);
    }
    readListen();
    readSecurity();
    readAccess();
    readCallbacks();
    readPeriod("PingTimeout", settings_.pingTimeout);
    readPeriod("FirstPing", settings_.firstPing);
    readPeriod("CloseGrace", settings_.closeGrace);
    readSwitch("Clients", "KeepRunning", settings_.keepRunning);
    readKey("Items", "SystemBranch", [this](const std::string& place, std::string_view value) {
        if (characterCount(value) <= longestName && value.find('.') == std::string_view::npos) {
            settings_.systemBranch = value;
        } else {
            problem(place, "it is no name of a branch, there are no items about the server",
                    fmt::format("Write a name of at most {} characters, without a dot", longestName));
        }
    });
    for (const IniFile::Key& key : accounts_.keys) {
        readAccount(key);
    }
    for (auto& [name, hash] : hashes_) {
        if (hash) {
            const std::size_t backslash = name.find('\\');
            settings_.accounts.add(name.substr(0, backslash), name.substr(backslash + 1), *hash);
            ntlm::wipe(*hash);
        }
    }
}

// nullptr: there is no section of that name.
IniFile::Section* Parser::sectionOf(std::string_view name) {
    for (std::size_t i = 0; i < namedSections.size(); ++i) {
        if (equalsIgnoringCase(name, namedSections[i].name)) {
            return &sections_[i];
        }
    }
    return equalsIgnoringCase(name, "Accounts") ? &accounts_ : nullptr;
}

// What is no UTF-8 is left out line by line; the rest joins what stands in other sections of the same name.
void Parser::sortOut(const IniFile::Section& section) {
    IniFile::Section* const known = sectionOf(section.name);
    if (known == nullptr) {
        problem(section.name.empty() ? "before the first section" : fmt::format("[{}]", shownName(section.name)),
                "lines outside the known sections are left out",
                "Use [Listen], [Security], [Clients], [Items], [Callbacks], [Access] and [Accounts]");
        return;
    }
    if (section.isRepeated()) {
        problem(fmt::format("line {}", section.line),
                fmt::format("[{}] stands in line {} already, both are read as one", section.name, section.firstLine),
                "Put all its lines into one section");
    }
    for (const IniFile::Key& key : section.keys) {
        if (isUtf8(key.name) && isUtf8(key.value)) {
            known->keys.push_back(key);
        } else {
            problem(fmt::format("line {}", key.line), "it is not UTF-8, the line is left out",
                    "Save the file as UTF-8");
        }
    }
}

// Which of two values is meant cannot be told, so that the default, which is the strict one, holds.
void Parser::lookForRepeats(IniFile::Section& section, std::string_view name) {
    std::vector<std::string> contradicted;
    for (const auto& repeat : IniFile::repeats(section)) {
        problem(fmt::format("[{}] {}", name, shownName(repeat.first->name)),
                fmt::format("it stands twice (lines {} and {}){}", repeat.first->line, repeat.again->line,
                            repeat.isContradiction() ? " with two values, its default holds" : ""),
                "Leave one of them");
        if (repeat.isContradiction()) {
            contradicted.push_back(foldCase(repeat.first->name));
        }
    }
    std::erase_if(section.keys, [&](const IniFile::Key& key) {
        return std::find(contradicted.begin(), contradicted.end(), foldCase(key.name)) != contradicted.end();
    });
}

void Parser::lookForUnknownNames(const IniFile::Section& section, const NamedSection& named) {
    for (const IniFile::Key& key : section.keys) {
        if (std::none_of(named.keys.begin(), named.keys.end(),
                         [&](auto each) { return equalsIgnoringCase(each, key.name); })) {
            problem(fmt::format("[{}] {}", named.name, shownName(key.name)), "there is no setting of that name",
                    named.remedy);
        }
    }
}

// Hands place and value of a setting that the file gives to apply; a setting that it does not give keeps its default.
template <class Apply>
void Parser::readKey(std::string_view section, std::string_view key, Apply apply) {
    if (const IniFile::Key* found = sectionOf(section)->find(key)) {
        apply(fmt::format("[{}] {}", section, key), found->value);
    }
}

template <class Value>
void Parser::readChoice(std::string_view section, std::string_view key, const char* remedy, const char* fallback,
                        std::initializer_list<std::pair<std::string_view, Value>> choices, Value& setting) {
    readKey(section, key, [&](const std::string& place, std::string_view value) {
        for (const auto& [name, choice] : choices) {
            if (equalsIgnoringCase(name, value)) {
                setting = choice;
                return;
            }
        }
        problem(place, fmt::format("\"{}\" is none of the choices, {} holds", shownValue(value), fallback), remedy);
    });
}

void Parser::readPort(std::string_view key, std::uint16_t smallest, std::uint16_t& port) {
    readKey("Listen", key, [&](const std::string& place, std::string_view value) {
        if (const auto number = wholeNumber<std::uint16_t>(value, smallest)) {
            port = *number;
        } else {
            problem(place, fmt::format("\"{}\" is not a port, {} holds", shownValue(value), port),
                    fmt::format("Write a whole number from {} to 65535", smallest));
        }
    });
}

void Parser::readListen() {
    readKey("Listen", "Address", [this](const std::string&, std::string_view value) { readAddresses(value); });
    readPort("ActivationPort", 1, settings_.activationPort);
    readPort("ObjectPort", 0, settings_.objectPort);
    if (settings_.objectPort == settings_.activationPort) {
        problem("[Listen] ObjectPort", "it is the same as ActivationPort, any free port is taken",
                "Give each a port of its own");
        settings_.objectPort = 0;
    }
}

void Parser::readAddresses(std::string_view value) {
    std::vector<std::string> addresses;
    for (const std::string_view part : splitAtCommas(value)) {
        const std::string address(part);
        in_addr binary{};
        // What stands behind a NUL would pass unread.
        if (address.find('\0') != std::string::npos || inet_pton(AF_INET, address.c_str(), &binary) != 1) {
            problem("[Listen] Address",
                    fmt::format("\"{}\" is not an IPv4 address and is left out", shownValue(address)),
                    "Write numeric addresses such as 192.168.1.5, with commas between them");
        } else if (std::find(addresses.begin(), addresses.end(), address) == addresses.end()) {
            addresses.push_back(address);
        }
    }
    if (!addresses.empty()) {
        settings_.addresses = std::move(addresses);
    }
}

void Parser::readSecurity() {
    readLevel("Security", settings_.minimumLevel);
    readSwitch("Security", "AllowNTLMv1", settings_.ntlm.allowNtlmV1Ess);
    readSwitch("Security", "AllowAnonymous", settings_.ntlm.allowAnonymous);
    readSwitch("Security", "OpenServerList", settings_.openServerList);
    readNetBiosName("ComputerName", settings_.ntlm.computerName);
    readNetBiosName("Domain", settings_.ntlm.domainName);
    readSwitch("Security", "Winbind", settings_.winbind);
    readKeytab();
}

void Parser::readKeytab() {
    readKey("Security", "Keytab", [this](const std::string& place, std::string_view value) {
        if (value.starts_with('/') && value.find('\0') == std::string_view::npos) {
            settings_.keytab = value;
        } else {
            problem(place, fmt::format("\"{}\" is no full path, no tickets are taken", shownValue(value)),
                    "Write where the keytab is, such as /etc/quelm/opc.keytab");
        }
    });
}

void Parser::readAccess() {
    readAccessList("Users", &AccessList::addUser,
                   "Write DOMAIN\\user, user@dns.name or a SID, with commas between them");
    readAccessList("Groups", &AccessList::addGroup,
                   "Write the group's SID, or with Winbind = yes DOMAIN\\group, with commas between them");
}

void Parser::readAccessList(std::string_view key, bool (AccessList::*add)(std::string_view), const char* remedy) {
    readKey("Access", key, [&](const std::string& place, std::string_view value) {
        for (const std::string_view part : splitAtCommas(value)) {
            if (!part.empty() && !(settings_.access.*add)(part)) {
                problem(place,
                        fmt::format("\"{}\" is neither an account's name nor a SID and is left out", shownValue(part)),
                        remedy);
            }
        }
    });
}

void Parser::readLevel(std::string_view section, rpc::AuthLevel& level) {
    readChoice<rpc::AuthLevel>(section, "MinimumLevel", "Write connect, integrity or privacy", "integrity",
                               {{"connect", rpc::AuthLevel::Connect},
                                {"integrity", rpc::AuthLevel::Integrity},
                                {"privacy", rpc::AuthLevel::Privacy}},
                               level);
}

void Parser::readSwitch(std::string_view section, std::string_view key, bool& isOn) {
    readChoice<bool>(section, key, "Write yes or no", "no", {{"yes", true}, {"no", false}}, isOn);
}

// An account without its secret, or the other way round, is none: nobody is called with half of it.
void Parser::readCallbacks() {
    readLevel("Callbacks", settings_.callbacks.minimumLevel);
    readSwitch("Callbacks", "AllowNoLogOn", settings_.callbacks.allowNoLogOn);
    const IniFile::Key* const account = sectionOf("Callbacks")->find("Account");
    const IniFile::Key* const secret = sectionOf("Callbacks")->find("Secret");
    if (account == nullptr || secret == nullptr) {
        if (account != secret) {
            problem("[Callbacks]", "of Account and Secret only one is there, no account is used",
                    "Write both, or neither");
        }
        return;
    }
    const auto name = accountName(account->value, "");
    if (!name) {
        problem("[Callbacks] Account", "this is not an account name, no account is used",
                "Write DOMAIN\\user, or user alone where the client's machine is to choose the domain");
    } else if (auto hash = accountHash("[Callbacks] Secret", secret->value)) {
        settings_.callbacks.account = {std::string(name->domain), std::string(name->user), *hash,
                                       settings_.ntlm.computerName};
        ntlm::wipe(*hash);
    }
}

void Parser::readPeriod(std::string_view key, std::uint32_t& seconds) {
    readKey("Clients", key, [&](const std::string& place, std::string_view value) {
        const auto number = wholeNumber<std::uint32_t>(value, 1);
        if (number && *number <= longestPeriod) {
            seconds = *number;
        } else {
            problem(place, fmt::format("\"{}\" is not a time, {} holds", shownValue(value), seconds),
                    fmt::format("Write whole seconds from 1 to {}", longestPeriod));
        }
    });
}

void Parser::readNetBiosName(std::string_view key, std::string& name) {
    readKey("Security", key, [&](const std::string& place, std::string_view value) {
        const bool fits = !value.empty() && characterCount(value) <= longestComputerName &&
                          value.find_first_of("\\/:*?\"<>|, \t") == std::string_view::npos;
        if (fits) {
            name = toUpperCase(value);
        } else {
            problem(place, fmt::format("\"{}\" is not a NetBIOS name, {} holds", shownValue(value), name),
                    "Write 1 to 15 letters, digits or hyphens");
        }
    });
}

void Parser::readAccount(const IniFile::Key& key) {
    const std::string place = fmt::format("[Accounts] {}", shownName(key.name));
    const auto name = accountName(key.name, ntlm::AccountTable::anyDomain);
    if (!name) {
        problem(place, "this is not an account name, the account is left out",
                "Write DOMAIN\\user, or user alone for an account that answers to any domain");
    } else if (const auto hash = accountHash(place, key.value)) {
        addAccount(place, *name, *hash);
    }
}

// Of two passwords the one that was meant to go might be taken, so that neither is.
void Parser::addAccount(const std::string& place, const AccountName& name, const ntlm::NtHash& hash) {
    const auto [account, isNew] = hashes_.try_emplace(foldCase(name.domain) + '\\' + foldCase(name.user), hash);
    if (isNew) {
        return;
    }
    const bool isSame = account->second == hash;
    problem(place, isSame ? "the account stands twice" : "the account stands twice with two passwords and is left out",
            "Leave one of them");
    if (!isSame) {
        account->second.reset();
    }
}

std::optional<ntlm::NtHash> Parser::accountHash(const std::string& place, std::string_view value) {
    constexpr std::string_view hashMark = "nt:";
    constexpr std::string_view passwordMark = "password:";
    std::optional<ntlm::NtHash> hash;
    if (equalsIgnoringCase(value.substr(0, hashMark.size()), hashMark)) {
        hash = hashFromHex(trimWhiteSpace(value.substr(hashMark.size())));
    } else if (equalsIgnoringCase(value.substr(0, passwordMark.size()), passwordMark)) {
        hash = ntlm::ntHash(value.substr(passwordMark.size()));
    }
    if (!hash) {
        problem(place, "neither nt: with 32 hexadecimal digits nor password: with a text, the account is left out",
                "Write nt:<32 hexadecimal digits> or password:<text>, with nothing behind it");
    } else if (*hash == ntlm::ntHash("")) {
        problem(place, "the password is empty, the account is left out", "Give the account a password");
        hash.reset();
    } else if (value.find(" ;") != std::string_view::npos || value.find(" #") != std::string_view::npos) {
        problem(place, "what stands behind the blank and the ; or # is taken as part of the password",
                "Put a comment on a line of its own; for a password with such characters, write nt: with its digits");
    }
    return hash;
}

DcomSettings defaults(std::string_view hostName) {
    DcomSettings settings;
    const std::size_t dot = hostName.find('.');
    const std::string_view label = hostName.substr(0, dot);
    settings.ntlm.computerName = toUpperCase(leftCharacters(label.empty() ? "LOCALHOST" : label, longestComputerName));
    settings.ntlm.domainName = "WORKGROUP";
    settings.ntlm.dnsComputerName = hostName;
    settings.ntlm.dnsDomainName = dot == std::string_view::npos ? "" : hostName.substr(dot + 1);
    return settings;
}

}  // namespace

DcomSettings parseDcomSettings(std::string& text, const std::string& name, std::string_view hostName) {
    DcomSettings settings = defaults(hostName);
    Parser(settings, name).parse(IniFile(text));
    ntlm::wipe(text);
    noteWhatIsWeak(settings);
    return settings;
}

}  // namespace quelm::dcom
