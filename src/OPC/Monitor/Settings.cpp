#include "OPC/Monitor/Settings.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <system_error>

#include "base/IniFile.h"
#include "base/Text.h"

namespace quelm::monitor {
namespace {

constexpr std::streamsize longestFile = 1 << 20;  // bytes

class Reader {
 public:
    explicit Reader(std::vector<std::string>& problems) : problems_(problems) {}

    void read(const IniFile& file) {
        for (const IniFile::Fault& fault : file.faults()) {
            problem(fault.line, fault.what);
        }
        for (const IniFile::Section& section : file.sections()) {
            const bool isKnown =
                equalsIgnoringCase(section.name, "Listen") || equalsIgnoringCase(section.name, "Server");
            if (!isKnown) {
                problem(section.line, fmt::format("there is no section [{}]", shownSetting(section.name)));
                continue;
            }
            for (const IniFile::Key& key : section.keys) {
                readKey(section.name, key);
            }
        }
    }

    Settings settings;

 private:
    void problem(int line, std::string_view text) { problems_.push_back(fmt::format("line {}: {}", line, text)); }

    void readKey(std::string_view section, const IniFile::Key& key) {
        const auto is = [&](std::string_view wantedSection, std::string_view name) {
            return equalsIgnoringCase(section, wantedSection) && equalsIgnoringCase(key.name, name);
        };
        if (is("Listen", "Address")) {
            if (!isNumericAddress(std::string(key.value))) {
                return problem(key.line, fmt::format("\"{}\" is no numeric address", shownSetting(key.value)));
            }
            settings.address = key.value;
        } else if (is("Listen", "Port")) {
            readPort(key);
        } else if (is("Listen", "Names")) {
            for (const std::string_view name : splitAtCommas(key.value)) {
                if (!name.empty()) {
                    settings.names.emplace_back(name);
                }
            }
        } else if (is("Server", "Control")) {
            if (!key.value.starts_with('/')) {
                return problem(key.line, "Control must be an absolute path");
            }
            settings.control = key.value;
        } else {
            problem(key.line, fmt::format("there is no setting \"{}\" in [{}]", shownSetting(key.name), section));
        }
    }

    void readPort(const IniFile::Key& key) {
        int port = -1;
        const char* const last = key.value.data() + key.value.size();
        const auto [end, error] = std::from_chars(key.value.data(), last, port);
        if (error != std::errc() || end != last || port < 0 || port > 65535) {
            return problem(key.line, "Port must be a number from 0 to 65535");
        }
        settings.port = port;
    }

    std::vector<std::string>& problems_;
};

bool isPort(std::string_view text) {
    return !text.empty() && text.size() <= 5 && std::all_of(text.begin(), text.end(), isDigit);
}

}  // namespace

Settings settingsFrom(std::string_view text, std::vector<std::string>& problems) {
    Reader reader(problems);
    reader.read(IniFile(text));
    return reader.settings;
}

std::string settingsPath() {
    const char* path = std::getenv("QUELM_MONITOR_CONF");
    return path && *path ? path : "/etc/quelm/monitor.conf";
}

Settings readSettings(const std::string& path, std::vector<std::string>& problems) {
    std::ifstream file(path, std::ios::binary);
    std::string text;
    if (file) {
        text.resize(static_cast<std::size_t>(longestFile) + 1);
        file.read(text.data(), static_cast<std::streamsize>(text.size()));
        text.resize(static_cast<std::size_t>(file.gcount()));
        if (file.bad() || file.gcount() > longestFile) {
            problems.emplace_back("it cannot be read, or is longer than 1 MiB; the defaults hold");
            text.clear();
        }
    } else if (errno != ENOENT) {
        problems.push_back(
            fmt::format("it cannot be read: {}; the defaults hold", std::generic_category().message(errno)));
    }
    Settings settings = settingsFrom(text, problems);
    if (const char* control = std::getenv("QUELM_CONTROL"); control && *control) {
        settings.control = control;
    }
    return settings;
}

bool isNumericAddress(const std::string& text) {
    in6_addr scratch{};
    return ::inet_pton(AF_INET, text.c_str(), &scratch) == 1 || ::inet_pton(AF_INET6, text.c_str(), &scratch) == 1;
}

bool isOwnHost(std::string_view host, const std::vector<std::string>& names) {
    if (host.starts_with('[')) {
        const std::size_t end = host.find(']');
        if (end == std::string_view::npos) {
            return false;
        }
        const std::string_view rest = host.substr(end + 1);
        return (rest.empty() || (rest.starts_with(':') && isPort(rest.substr(1)))) &&
               isNumericAddress(std::string(host.substr(1, end - 1)));
    }
    if (const std::size_t colon = host.find(':'); colon != std::string_view::npos) {
        if (!isPort(host.substr(colon + 1))) {
            return false;
        }
        host = host.substr(0, colon);
    }
    return isNumericAddress(std::string(host)) || equalsIgnoringCase(host, "localhost") ||
           std::any_of(names.begin(), names.end(),
                       [&](const std::string& name) { return equalsIgnoringCase(host, name); });
}

}  // namespace quelm::monitor
