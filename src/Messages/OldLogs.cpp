#include "Messages/OldLogs.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <system_error>

#include "base/Date.h"
#include "base/TimeSource.h"

namespace quelm {

namespace {

constexpr std::int64_t secondsOfDay = 86'400;
constexpr std::int64_t unixEpochInFileTime = 116'444'736'000'000'000;
constexpr std::int64_t fileTimePerSecond = 10'000'000;

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// "OPCServer 2026-11-16 08.25.13.01234.log", with "_r" before the ending where it was begun at midnight: the day on
// which it began.
std::optional<Date> firstDayOf(std::string_view name) {
    constexpr std::string_view shape = "OPCServer 0000-00-00 00.00.00.00000";
    const auto fits = [](char c, char wanted) { return wanted == '0' ? isDigit(c) : c == wanted; };
    if (name.size() < shape.size() ||
        !std::equal(shape.begin(), shape.end(), name.begin(), [&](char wanted, char c) { return fits(c, wanted); })) {
        return std::nullopt;
    }
    std::string_view rest = name.substr(shape.size());
    rest.remove_prefix(std::min(rest.size(), rest.find_first_not_of("0123456789")));  // large process numbers
    if (rest != ".log" && rest != "_r.log") {
        return std::nullopt;
    }
    const auto number = [&](std::size_t at, std::size_t count) {
        int result = 0;
        for (const char c : name.substr(at, count)) {
            result = 10 * result + (c - '0');
        }
        return result;
    };
    return makeDate(CivilTime{number(10, 4), number(15, 2), number(18, 2), 0, 0, 0, 0});
}

std::int64_t unixNow() {
    return (timeSource().fileTimeNow() - unixEpochInFileTime) / fileTimePerSecond;
}

// A log that is still written to is not old, whatever its name says: its clock may have been set.
bool isOld(const std::filesystem::path& file, std::int32_t days) {
    const auto began = firstDayOf(file.filename().string());
    struct stat status {};
    return began && began->days + days < localNow().days - 1 && ::lstat(file.c_str(), &status) == 0 &&
           S_ISREG(status.st_mode) && status.st_mtime + days * secondsOfDay < unixNow();
}

}  // namespace

void removeOldLogs(std::string_view folder, std::int32_t days, const std::function<void(std::string_view)>& problem) {
    if (days <= 0 || folder.empty()) {
        return;
    }
    std::string path(folder);
    std::replace(path.begin(), path.end(), '\\', '/');
    bool isTold = false;
    std::error_code error;
    try {
        for (std::filesystem::directory_iterator file(path, error), end; !error && file != end; file.increment(error)) {
            std::error_code failure;
            if (isOld(file->path(), days) && !std::filesystem::remove(file->path(), failure) && failure && !isTold) {
                isTold = true;
                problem(
                    fmt::format("The log {} is older than KeepLogs of Quelm.ini allows and cannot be removed: {}. "
                                "See to the rights of its folder",
                                file->path().string(), failure.message()));
            }
        }
    } catch (const std::exception& failure) {
        problem(fmt::format("The folder {} cannot be looked through for old logs: {}", path, failure.what()));
    }
}

}  // namespace quelm
