// Finds and reads the settings file.

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "dcom/DcomSettings.h"
#include "dcom/ntlm/Crypto.h"

namespace quelm::dcom {

namespace {

constexpr std::size_t largestFile = 1024 * 1024;

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
