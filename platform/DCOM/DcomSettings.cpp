#include "DCOM/DcomSettings.h"

// The file is UTF-8 as it stands, so that the reader's own conversion and its library are not needed: some systems
// split the reader into a header and a library, and give the whole of it only on request.
#define SI_NO_CONVERSION
#define SI_IMPLEMENTATION
#include <SimpleIni.h>
#include <arpa/inet.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <utility>

#include "DCOM/ntlm/Crypto.h"
#include "Shared Types/Text.h"
#include "Shared Types/Utf.h"

namespace quelm::dcom {

namespace {

constexpr std::size_t largestFile = 1024 * 1024;
constexpr std::size_t longestComputerName = 15;  // characters of a NetBIOS name
constexpr std::size_t longestName = 256;         // characters, as a log-on message may carry
constexpr std::size_t mostProblems = 50;         // a file of another kind must not swamp the log
constexpr std::string_view damagedHeading = "[?]";
constexpr std::string_view damagedSection = "?";

constexpr std::array<std::string_view, 3> listenKeys = {"Address", "ActivationPort", "ObjectPort"};
constexpr std::array<std::string_view, 5> securityKeys = {"MinimumLevel", "AllowNTLMv1", "AllowAnonymous",
                                                          "ComputerName", "Domain"};

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r';
}

std::string_view trim(std::string_view text) {
    while (!text.empty() && isBlank(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && isBlank(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

std::vector<std::string_view> splitAtCommas(std::string_view text) {
    std::vector<std::string_view> parts;
    for (;;) {
        const std::size_t comma = text.find(',');
        parts.push_back(trim(text.substr(0, comma)));
        if (comma == std::string_view::npos) {
            return parts;
        }
        text.remove_prefix(comma + 1);
    }
}

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

bool isLoopback(const std::string& address) {
    return address.rfind("127.", 0) == 0;
}

bool isAccountName(std::string_view domain, std::string_view user) {
    const auto isName = [](std::string_view name) {
        return !name.empty() && characterCount(name) <= longestName &&
               name.find_first_of("\"/\\[]:;|=,+*?<>") == std::string_view::npos;
    };
    return isName(user) && (domain == ntlm::AccountTable::anyDomain || isName(domain));
}

class Parser {
 public:
    Parser(DcomSettings& settings, std::string file) : settings_(settings), file_(std::move(file)) {}

    void parse(std::string& text);

 private:
    void takeOutDamagedLines(std::string& text);
    std::string_view soundLine(int number, std::string_view line);
    std::string_view soundHeading(const std::string& place, std::string_view line);
    void lookForUnknownNames();
    void readListen();
    void readAddresses(std::string_view value);
    void readSecurity();
    void readAccounts();
    void readAccount(const char* key);
    std::optional<ntlm::NtHash> accountHash(const std::string& place, std::string_view value);
    template <class Apply>
    void readKey(const char* section, const char* key, Apply apply);
    template <class Value>
    void readChoice(const char* section, const char* key, const char* remedy, const char* fallback,
                    std::initializer_list<std::pair<std::string_view, Value>> choices, Value& setting);
    void readPort(const char* key, std::uint16_t smallest, std::uint16_t& port);
    void readNetBiosName(const char* key, std::string& name);
    void problem(const std::string& place, std::string_view what, std::string_view remedy);

    DcomSettings& settings_;
    std::string file_;
    CSimpleIniA ini_{true, false, false};
};

void Parser::problem(const std::string& place, std::string_view what, std::string_view remedy) {
    auto& problems = settings_.problems;
    if (problems.size() < mostProblems) {
        problems.push_back(fmt::format("{}: {}: {}. {}.", file_, place, what, remedy));
    } else if (problems.size() == mostProblems) {
        problems.push_back(fmt::format("{}: further faults are not listed. Check that this is the right file.", file_));
    }
}

// The INI reader steps over what it cannot read without a word, and lets the lines under a damaged heading join the
// section before. Here they are reported and taken out first.
void Parser::takeOutDamagedLines(std::string& text) {
    std::replace(text.begin(), text.end(), '\0', ' ');
    std::string clean;
    clean.reserve(text.size());
    int number = 0;
    for (std::size_t begin = text.compare(0, 3, "\xEF\xBB\xBF") == 0 ? 3 : 0; begin < text.size();) {
        const std::size_t end = std::min(text.find_first_of("\r\n", begin), text.size());
        clean += soundLine(++number, trim(std::string_view(text).substr(begin, end - begin)));
        clean += '\n';
        begin = end + (text.compare(end, 2, "\r\n") == 0 ? 2 : 1);
    }
    ntlm::wipe(text);
    text = std::move(clean);
}

// What the INI reader shall see of a line.
std::string_view Parser::soundLine(int number, std::string_view line) {
    if (line.empty() || line.front() == ';' || line.front() == '#') {
        return {};
    }
    const std::string place = fmt::format("line {}", number);
    if (line.front() == '[') {
        return soundHeading(place, line);
    }
    if (line.find('=') == std::string_view::npos || line.front() == '=' || !isUtf8(line)) {
        problem(place, "neither a [section] heading nor \"name = value\" in UTF-8, the line is left out",
                "Correct it, or begin it with ; to make it a comment");
        return {};
    }
    return line;
}

std::string_view Parser::soundHeading(const std::string& place, std::string_view line) {
    const std::size_t close = line.find(']');
    if (close == std::string_view::npos) {
        problem(place, "a section heading without ], the lines under it are left out", "Add the ]");
        return damagedHeading;
    }
    const std::string_view rest = trim(line.substr(close + 1));
    if (!rest.empty() && rest.front() != ';' && rest.front() != '#') {
        problem(place, "what stands behind the section heading is left out", "Put it on a line of its own");
    }
    return line.substr(0, close + 1);
}

void Parser::parse(std::string& text) {
    takeOutDamagedLines(text);
    const SI_Error loaded = ini_.LoadData(text.data(), text.size());
    ntlm::wipe(text);
    if (loaded < 0) {
        problem("the file", "there is not enough memory to read it, the defaults hold", "Free memory and start again");
        return;
    }
    lookForUnknownNames();
    readListen();
    readSecurity();
    readAccounts();
}

void Parser::lookForUnknownNames() {
    const auto isKnown = [](const auto& known, std::string_view name) {
        return std::any_of(known.begin(), known.end(), [&](auto key) { return equalsIgnoringCase(key, name); });
    };
    CSimpleIniA::TNamesDepend sections;
    ini_.GetAllSections(sections);
    sections.sort(CSimpleIniA::Entry::LoadOrder());
    for (const auto& section : sections) {
        const std::string_view name = section.pItem;
        const bool isListen = equalsIgnoringCase(name, "Listen");
        if (equalsIgnoringCase(name, "Accounts") || name == damagedSection) {
            continue;
        }
        if (!isListen && !equalsIgnoringCase(name, "Security")) {
            problem(name.empty() ? "before the first section" : fmt::format("[{}]", shownName(name)),
                    "lines outside the known sections are left out", "Use [Listen], [Security] and [Accounts]");
            continue;
        }
        CSimpleIniA::TNamesDepend keys;
        ini_.GetAllKeys(section.pItem, keys);
        keys.sort(CSimpleIniA::Entry::LoadOrder());
        for (const auto& key : keys) {
            if (!(isListen ? isKnown(listenKeys, key.pItem) : isKnown(securityKeys, key.pItem))) {
                problem(fmt::format("[{}] {}", name, shownName(key.pItem)), "there is no setting of that name",
                        isListen ? "Use Address, ActivationPort or ObjectPort"
                                 : "Use MinimumLevel, AllowNTLMv1, AllowAnonymous, ComputerName or Domain");
            }
        }
    }
}

// Hands place and value of a setting that the file gives to apply; a setting that it does not give keeps its default.
template <class Apply>
void Parser::readKey(const char* section, const char* key, Apply apply) {
    if (const char* value = ini_.GetValue(section, key)) {
        apply(fmt::format("[{}] {}", section, key), std::string_view(value));
    }
}

template <class Value>
void Parser::readChoice(const char* section, const char* key, const char* remedy, const char* fallback,
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

void Parser::readPort(const char* key, std::uint16_t smallest, std::uint16_t& port) {
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
        if (inet_pton(AF_INET, address.c_str(), &binary) != 1) {
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
    readChoice<SecurityLevel>("Security", "MinimumLevel", "Write connect, integrity or privacy", "integrity",
                              {{"connect", SecurityLevel::connect},
                               {"integrity", SecurityLevel::integrity},
                               {"privacy", SecurityLevel::privacy}},
                              settings_.minimumLevel);
    readChoice<bool>("Security", "AllowNTLMv1", "Write yes or no", "no", {{"yes", true}, {"no", false}},
                     settings_.ntlm.allowNtlmV1Ess);
    readChoice<bool>("Security", "AllowAnonymous", "Write yes or no", "no", {{"yes", true}, {"no", false}},
                     settings_.ntlm.allowAnonymous);
    readNetBiosName("ComputerName", settings_.ntlm.computerName);
    readNetBiosName("Domain", settings_.ntlm.domainName);
}

void Parser::readNetBiosName(const char* key, std::string& name) {
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

void Parser::readAccounts() {
    CSimpleIniA::TNamesDepend keys;
    ini_.GetAllKeys("Accounts", keys);
    keys.sort(CSimpleIniA::Entry::LoadOrder());
    for (const auto& key : keys) {
        readAccount(key.pItem);
    }
}

void Parser::readAccount(const char* key) {
    const std::string_view name = key;
    const std::string place = fmt::format("[Accounts] {}", shownName(name));
    const std::size_t backslash = name.find('\\');
    const bool bound = backslash != std::string_view::npos;
    const std::string_view domain = bound ? trim(name.substr(0, backslash)) : ntlm::AccountTable::anyDomain;
    const std::string_view user = trim(bound ? name.substr(backslash + 1) : name);
    // The INI reader keeps its own copy of the file; the secret is wiped there too. The buffer is writable, the reader
    // only shows it as constant.
    char* const secret = const_cast<char*>(ini_.GetValue("Accounts", key, ""));
    if (!isAccountName(domain, user)) {
        problem(place, "this is not an account name, the account is left out",
                "Write DOMAIN\\user, or user alone for an account that answers to any domain");
    } else if (const auto hash = accountHash(place, secret)) {
        settings_.accounts.add(domain, user, *hash);
    }
    ntlm::wipe({reinterpret_cast<std::uint8_t*>(secret), std::strlen(secret)});
}

std::optional<ntlm::NtHash> Parser::accountHash(const std::string& place, std::string_view value) {
    constexpr std::string_view hashMark = "nt:";
    constexpr std::string_view passwordMark = "password:";
    std::optional<ntlm::NtHash> hash;
    if (equalsIgnoringCase(value.substr(0, hashMark.size()), hashMark)) {
        hash = hashFromHex(trim(value.substr(hashMark.size())));
    } else if (equalsIgnoringCase(value.substr(0, passwordMark.size()), passwordMark)) {
        hash = ntlm::ntHash(value.substr(passwordMark.size()));
    }
    if (!hash) {
        problem(place, "neither nt: with 32 hexadecimal digits nor password: with a text, the account is left out",
                "Write nt:<32 hexadecimal digits> or password:<text>");
    } else if (*hash == ntlm::ntHash("")) {
        problem(place, "the password is empty, the account is left out", "Give the account a password");
        hash.reset();
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

void noteWhatIsWeak(DcomSettings& settings) {
    auto& notices = settings.notices;
    for (const std::string& address : settings.addresses) {
        if (!isLoopback(address)) {
            notices.push_back(fmt::format("[Listen] Address = {}: other machines can reach the server", address));
        }
    }
    if (settings.minimumLevel < SecurityLevel::integrity) {
        notices.emplace_back(
            "[Security] MinimumLevel = connect: calls are neither signed nor sealed and can be "
            "altered on their way");
    }
    if (settings.ntlm.allowNtlmV1Ess) {
        notices.emplace_back("[Security] AllowNTLMv1 = yes: log-ons with NTLMv1 can be broken by who records them");
    }
    if (settings.ntlm.allowAnonymous) {
        notices.emplace_back("[Security] AllowAnonymous = yes: clients can log on without an account");
    } else if (settings.accounts.empty()) {
        notices.emplace_back("[Accounts] holds no usable account: every client is refused");
    }
}

// A file that is closed on every way out.
class OpenFile {
 public:
    explicit OpenFile(const std::string& path) : descriptor_(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {}
    ~OpenFile() {
        if (descriptor_ >= 0) {
            close(descriptor_);
        }
    }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;
    int descriptor() const { return descriptor_; }

 private:
    int descriptor_;
};

struct Content {
    std::string text;
    mode_t mode = 0;
    std::string fault;  // why there is no text
};

Content readContent(const std::string& path) {
    Content content;
    const OpenFile file(path);
    struct stat status {};
    if (file.descriptor() < 0 || fstat(file.descriptor(), &status) != 0) {
        if (errno != ENOENT) {
            content.fault = std::strerror(errno);
        }
        return content;
    }
    if (!S_ISREG(status.st_mode)) {
        content.fault = "it is not a regular file";
        return content;
    }
    content.mode = status.st_mode;
    content.text.resize(largestFile + 1);
    std::size_t filled = 0;
    for (;;) {
        const ssize_t got = read(file.descriptor(), content.text.data() + filled, content.text.size() - filled);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            content.fault = std::strerror(errno);
        }
        if (got <= 0) {
            break;
        }
        filled += static_cast<std::size_t>(got);
    }
    content.text.resize(filled);
    if (filled > largestFile) {
        content.fault = "it is larger than 1 MiB";
    }
    return content;
}

}  // namespace

std::string dcomSettingsPath() {
    const char* const path = std::getenv("QUELM_DCOM_CONF");
    return path != nullptr && *path != '\0' ? path : "/etc/quelm/dcom.conf";
}

DcomSettings parseDcomSettings(std::string& text, const std::string& name, std::string_view hostName) {
    DcomSettings settings = defaults(hostName);
    Parser(settings, name).parse(text);
    noteWhatIsWeak(settings);
    return settings;
}

DcomSettings readDcomSettings(const std::string& path, std::string_view hostName) {
    Content content = readContent(path);
    if (!content.fault.empty()) {
        ntlm::wipe(content.text);
    }
    DcomSettings settings = parseDcomSettings(content.text, path, hostName);
    if (!content.fault.empty()) {
        settings.problems.push_back(
            fmt::format("{}: the file cannot be used ({}), the defaults hold. Correct the file and its rights.", path,
                        content.fault));
    }
    if (!settings.accounts.empty() && (content.mode & (S_IRWXG | S_IRWXO)) != 0) {
        settings.problems.push_back(fmt::format(
            "{}: the file holds accounts and others than its owner may use it. Run \"chmod 600\" on it.", path));
    }
    return settings;
}

DcomSettings readDcomSettings(const std::string& path) {
    std::array<char, 256> name{};
    if (gethostname(name.data(), name.size() - 1) != 0) {
        name.front() = '\0';
    }
    return readDcomSettings(path, name.data());
}

}  // namespace quelm::dcom
