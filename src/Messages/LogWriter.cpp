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

constexpr std::size_t mostCollected = std::size_t{64} << 10U;  // bytes
constexpr std::int64_t fileTimePerMillisecond = 10'000;

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

void LogWriter::WriteEntry(std::string_view strText, bool blnFlag) {
    if (path_.empty()) {
        return;
    }
    if (file_ < 0 && (timeSource().monotonicMilliseconds() < retryAt_ || !openFile())) {
        loseLine(strText);
        return;
    }
    const bool isAfterLoss = lostLines_ > 0 || lineTorn_;
    buildLine(strText);
    if (!collects_ || blnFlag || isAfterLoss || lines_.size() >= mostCollected) {
        writeLines();
    }
}

void LogWriter::CollectLines(bool blnOn) {
    collects_ = blnOn;
    if (!blnOn) {
        writeLines();
    }
}

void LogWriter::writeLines() {
    if (texts_.empty()) {
        return;
    }
    written_ = 0;
    if (hasWritten()) {
        lostLines_ = 0;
        isTroubled_ = false;
    } else {
        tellTrouble();
        for (const Text& text : texts_) {
            if (text.end > written_) {
                loseLine(std::string_view(lines_).substr(text.begin, text.end - text.begin - 1));
            }
        }
        closeFile();
        retryAt_ = timeSource().monotonicMilliseconds() + retryAfter;
    }
    lines_.clear();
    texts_.clear();
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
    writeLines();
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
    if (lineTorn_) {
        lines_ += '\n';
    }
    if (lostLines_ > 0) {
        appendTimeStamp();
        fmt::format_to(std::back_inserter(lines_), "({} lines before this could not be written)\n", lostLines_);
    }
    if (timeStamps_) {
        appendTimeStamp();
    }
    const std::size_t begin = lines_.size();
    std::replace_copy_if(
        strText.begin(), strText.end(), std::back_inserter(lines_), [](char c) { return c == '\r' || c == '\n'; }, ' ');
    lines_ += '\n';
    texts_.push_back({begin, lines_.size()});
}

// Lists have many lines in a millisecond.
void LogWriter::appendTimeStamp() {
    const std::int64_t fileTime = timeSource().fileTimeNow();
    if (stampTime_ != fileTime / fileTimePerMillisecond) {
        stampTime_ = fileTime / fileTimePerMillisecond;
        const CivilTime now = civilTime(localFromFileTime(fileTime));
        stamp_ = fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02}.{:03} ", now.year, now.month, now.day, now.hour,
                             now.minute, now.second, now.millisecond);
    }
    lines_ += stamp_;
}

// False when the system does not take all of the lines.
bool LogWriter::hasWritten() {
    while (written_ < lines_.size()) {
        const ssize_t result = write(file_, lines_.data() + written_, lines_.size() - written_);
        if (result > 0) {
            written_ += static_cast<std::size_t>(result);
        } else if (result == 0 || errno != EINTR) {
            lineTorn_ = written_ > 0 ? lines_[written_ - 1] != '\n' : lineTorn_;
            return false;
        }
    }
    lineTorn_ = false;
    return true;
}

}  // namespace quelm
