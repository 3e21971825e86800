#include "OPC/Control/AccountFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <pwd.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "OPC/Control/Descriptor.h"
#include "base/IniFile.h"
#include "base/Text.h"
#include "dcom/DcomSettings.h"
#include "dcom/ntlm/Crypto.h"

namespace quelm::control {

namespace {

constexpr std::size_t largestFile = 1024 * 1024;
constexpr const char* serversUser = "quelm";

[[noreturn]] void fail(std::string_view what, const std::string& path, int error) {
    throw AccountTrouble(fmt::format("{} cannot be {}: {}{}", path, what, std::strerror(error),
                                     error == EACCES || error == EPERM ? "; run this as root" : ""));
}

// The form in which two spellings of one account are equal.
std::string folded(std::string_view name) {
    const std::size_t backslash = name.find('\\');
    if (backslash == std::string_view::npos) {
        return "*\\" + foldCase(trimWhiteSpace(name));
    }
    return foldCase(trimWhiteSpace(name.substr(0, backslash))) + '\\' +
           foldCase(trimWhiteSpace(name.substr(backslash + 1)));
}

struct Place {
    int line;  // from 1
    std::string_view name;
};

struct Layout {
    std::vector<Place> accounts;
    std::optional<int> end;  // the line behind which another account goes; none: there is no section for them
};

Layout layoutOf(std::string_view text) {
    Layout layout;
    const IniFile file(text);
    for (const IniFile::Section& section : file.sections()) {
        if (equalsIgnoringCase(section.name, "Accounts")) {
            layout.end = section.line;
            for (const IniFile::Key& key : section.keys) {
                // The views are the text's, and outlive the file.
                layout.accounts.push_back({key.line, key.name});
                layout.end = key.line;
            }
        }
    }
    return layout;
}

// With their ends, whatever these are.
std::vector<std::string_view> linesOf(std::string_view text) {
    std::vector<std::string_view> lines;
    while (!text.empty()) {
        std::size_t end = std::min(text.find_first_of("\r\n"), text.size() - 1);
        if (text.substr(end, 2) == "\r\n") {
            ++end;
        }
        lines.push_back(text.substr(0, end + 1));
        text.remove_prefix(end + 1);
    }
    return lines;
}

// What the text's last line lacks.
std::string_view endOfLine(std::string_view text) {
    return text.empty() || text.ends_with('\n') || text.ends_with('\r') ? "" : "\n";
}

}  // namespace

AccountFile::AccountFile(std::string path) : path_(std::move(path)) {
    // What a link leads to is replaced, and not the link.
    if (char* const real = ::realpath(path_.c_str(), nullptr)) {
        path_ = real;
        std::free(real);
    }
    const Descriptor file(::open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    if (file.number() < 0 || ::fstat(file.number(), &status) != 0) {
        if (errno != ENOENT) {
            fail("read", path_, errno);
        }
        return;
    }
    if (!S_ISREG(status.st_mode) || status.st_size > static_cast<off_t>(largestFile)) {
        throw AccountTrouble(fmt::format("{} is no settings file", path_));
    }
    text_.resize(static_cast<std::size_t>(status.st_size));
    std::size_t filled = 0;
    while (filled < text_.size()) {
        const ssize_t got = ::read(file.number(), text_.data() + filled, text_.size() - filled);
        if (got < 0 && errno != EINTR) {
            fail("read", path_, errno);
        }
        if (got == 0) {
            break;
        }
        filled += got > 0 ? static_cast<std::size_t>(got) : 0;
    }
    text_.resize(filled);
}

AccountFile::~AccountFile() {
    explicit_bzero(text_.data(), text_.size());
}

std::vector<std::string> AccountFile::names() const {
    std::vector<std::string> names;
    for (const Place& account : layoutOf(text_).accounts) {
        names.emplace_back(account.name);
    }
    return names;
}

bool AccountFile::has(std::string_view name) const {
    const std::vector<std::string> all = names();
    return std::any_of(all.begin(), all.end(), [&](const std::string& each) { return folded(each) == folded(name); });
}

void AccountFile::set(std::string_view name, std::string_view password) {
    const std::string line = fmt::format("{} = nt:{}", trimWhiteSpace(name), dcom::ntlm::ntHashText(password));
    // Read back as the server will: what it does not take as an account must not get into the file.
    std::string alone = "[Accounts]\n" + line + "\n";
    const dcom::DcomSettings read = dcom::parseDcomSettings(alone, path_, "HOST");
    if (name.find_first_of("\r\n") != std::string_view::npos || read.accounts.empty()) {
        throw AccountTrouble(
            fmt::format("'{}' is no account name: write DOMAIN\\user, or user alone for an account that "
                        "answers to any domain",
                        shownSetting(name)));
    }
    replace(name, line + '\n');
}

void AccountFile::remove(std::string_view name) {
    if (!has(name)) {
        throw AccountTrouble(fmt::format("there is no account '{}'", shownSetting(name)));
    }
    replace(name, "");
}

// The account's line, or lines, become this one. An account that is new goes behind the others.
void AccountFile::replace(std::string_view name, std::string_view line) {
    const Layout layout = layoutOf(text_);
    const std::string wanted = folded(name);
    std::vector<int> its;
    for (const Place& account : layout.accounts) {
        if (folded(account.name) == wanted) {
            its.push_back(account.line);
        }
    }
    const int place = !its.empty() ? its.front() : layout.end.value_or(0);
    std::string result;
    int number = 0;
    for (const std::string_view each : linesOf(text_)) {
        ++number;
        if (std::find(its.begin(), its.end(), number) == its.end()) {
            result += each;
        }
        if (number == place) {
            result += endOfLine(result);
            result += line;
        }
    }
    if (place == 0) {
        result += endOfLine(result);
        result += fmt::format("\n[Accounts]\n{}", line);
    }
    text_.swap(result);
    explicit_bzero(result.data(), result.size());
}

void AccountFile::save() const {
    const std::string fresh = path_ + ".new";
    struct stat before {};
    const bool isThere = ::stat(path_.c_str(), &before) == 0;
    ::unlink(fresh.c_str());
    const Descriptor file(::open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (file.number() < 0) {
        fail("written", path_, errno);
    }
    uid_t owner = isThere ? before.st_uid : ::geteuid();
    gid_t group = isThere ? before.st_gid : ::getegid();
    const passwd* const user = isThere || ::geteuid() != 0 ? nullptr : ::getpwnam(serversUser);
    if (user != nullptr) {
        owner = user->pw_uid;
        group = user->pw_gid;
    }
    std::string_view rest = text_;
    bool isWritten = ::fchown(file.number(), owner, group) == 0 &&
                     ::fchmod(file.number(), isThere ? before.st_mode & 07777U : 0600U) == 0;
    while (isWritten && !rest.empty()) {
        const ssize_t count = ::write(file.number(), rest.data(), rest.size());
        isWritten = count > 0 || (count < 0 && errno == EINTR);
        rest.remove_prefix(count > 0 ? static_cast<std::size_t>(count) : 0);
    }
    if (!isWritten || ::fsync(file.number()) != 0 || ::rename(fresh.c_str(), path_.c_str()) != 0) {
        const int error = errno;
        ::unlink(fresh.c_str());
        fail("written", path_, error);
    }
}

}  // namespace quelm::control
