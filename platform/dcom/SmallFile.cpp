#include "dcom/SmallFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

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

}  // namespace

SmallFile readSmallFile(const std::string& path) {
    SmallFile content;
    const OpenFile file(path);
    struct stat status {};
    if (file.descriptor() < 0 || fstat(file.descriptor(), &status) != 0) {
        if (errno != ENOENT) {
            content.exists = true;
            content.fault = std::strerror(errno);
        }
        return content;
    }
    content.exists = true;
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

}  // namespace quelm::dcom
