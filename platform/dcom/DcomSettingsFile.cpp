// Finds and reads the settings file.

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdlib>

#include "dcom/DcomSettings.h"
#include "dcom/SmallFile.h"
#include "dcom/ntlm/Crypto.h"

namespace quelm::dcom {

std::string dcomSettingsPath() {
    const char* const path = std::getenv("QUELM_DCOM_CONF");
    return path != nullptr && *path != '\0' ? path : "/etc/quelm/dcom.conf";
}

DcomSettings readDcomSettings(const std::string& path, std::string_view hostName) {
    SmallFile content = readSmallFile(path);
    if (!content.fault.empty()) {
        ntlm::wipe(content.text);
    }
    DcomSettings settings = parseDcomSettings(content.text, path, hostName);
    if (!content.fault.empty()) {
        settings.problems.push_back(
            fmt::format("{}: the file cannot be used ({}), the defaults hold. Correct the file and its rights.", path,
                        content.fault));
    }
    if ((!settings.accounts.empty() || settings.callbacks.account) && (content.mode & (S_IRWXG | S_IRWXO)) != 0) {
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
