#include "Messages/LogWriter.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <system_error>

#include "base/Date.h"
#include "base/TimeSource.h"

namespace quelm {

namespace {

void createFolder(const std::string& filePath) {
    const std::filesystem::path folder = std::filesystem::path(filePath).parent_path();
    if (!folder.empty()) {
        // Opening the file tells whether the folder is there.
        std::error_code ignored;
        std::filesystem::create_directories(folder, ignored);
    }
}

void appendTimeStamp(std::string& line) {
    const CivilTime now = civilTime(localNow());
    fmt::format_to(std::back_inserter(line), "{:04}-{:02}-{:02} {:02}:{:02}:{:02}.{:03} ", now.year, now.month, now.day,
                   now.hour, now.minute, now.second, now.millisecond);
}

}  // namespace

bool LogWriter::Open(std::string_view strFilePath, std::string_view, bool blnOverwrite, bool blnTimeStamps) {
    closeFile();
    path_ = strFilePath;
    std::replace(path_.begin(), path_.end(), '\\', '/');
    overwrite_ = blnOverwrite;
    timeStamps_ = blnTimeStamps;
    lostLines_ = 0;
    lineTorn_ = false;
    isTroubled_ = false;
    return openFile();
}

void LogWriter::WriteEntry(std::string_view strText, bool) {
    if (path_.empty()) {
        return;
    }
    if (file_ < 0 && (timeSource().monotonicMilliseconds() < retryAt_ || !openFile())) {
        loseLine(strText);
        return;
    }
    buildLine(strText);
    if (writeLine()) {
        lostLines_ = 0;
        isTroubled_ = false;
    } else {
        tellTrouble();
        loseLine(strText);
        closeFile();
        retryAt_ = timeSource().monotonicMilliseconds() + retryAfter;
    }
}

void LogWriter::loseLine(std::string_view text) {
    ++lostLines_;
    if (trouble_.line) {
        trouble_.line(text);
    }
}

// Right behind the call that failed, whose reason errno holds.
void LogWriter::tellTrouble() {
    if (!std::exchange(isTroubled_, true) && trouble_.problem) {
        trouble_.problem(
            fmt::format("The log {} cannot be written: {}. Its lines follow here until it can: see to the "
                        "folder in LogFolder of Quelm.ini, its rights and its room",
                        path_, std::strerror(errno)));
    }
}

void LogWriter::Close() {
    closeFile();
    path_.clear();
}

bool LogWriter::openFile() {
    createFolder(path_);
    const int truncate = overwrite_ ? O_TRUNC : 0;
    do {
        file_ = open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | truncate, 0644);
    } while (file_ < 0 && errno == EINTR);
    if (file_ < 0) {
        tellTrouble();
        retryAt_ = timeSource().monotonicMilliseconds() + retryAfter;
        return false;
    }
    // What this log has written once, a later attempt must not wipe out.
    overwrite_ = false;
    return true;
}

void LogWriter::closeFile() {
    if (file_ >= 0) {
        close(file_);
        file_ = -1;
    }
}

void LogWriter::buildLine(std::string_view strText) {
    line_.clear();
    if (lineTorn_) {
        line_ += '\n';
    }
    if (lostLines_ > 0) {
        appendTimeStamp(line_);
        fmt::format_to(std::back_inserter(line_), "({} lines before this could not be written)\n", lostLines_);
    }
    if (timeStamps_) {
        appendTimeStamp(line_);
    }
    std::replace_copy_if(
        strText.begin(), strText.end(), std::back_inserter(line_), [](char c) { return c == '\r' || c == '\n'; }, ' ');
    line_ += '\n';
}

bool LogWriter::writeLine() {
    std::size_t written = 0;
    while (written < line_.size()) {
        const ssize_t result = write(file_, line_.data() + written, line_.size() - written);
        if (result > 0) {
            written += static_cast<std::size_t>(result);
        } else if (result == 0 || errno != EINTR) {
            lineTorn_ = lineTorn_ || written > 0;
            return false;
        }
    }
    lineTorn_ = false;
    return true;
}

}  // namespace quelm
