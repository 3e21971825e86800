#include "OPC/Client/Password.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>

#include "base/PasswordPrompt.h"
#include "dcom/ntlm/Crypto.h"

namespace quelm::opcclient {

namespace {

class Descriptor {
 public:
    explicit Descriptor(int number) : number_(number) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() {
        if (number_ >= 0) {
            close(number_);
        }
    }
    operator int() const { return number_; }

 private:
    int number_;
};

void wipe(std::string& secret) {
    explicit_bzero(secret.data(), secret.size());
    secret.clear();
}

// The first line, without its end.
std::string firstLine(int descriptor) {
    std::string line;
    line.reserve(longestPassword);  // never moved, so that no copy of it stays behind
    char next = 0;
    while (line.size() < longestPassword && ::read(descriptor, &next, 1) == 1 && next != '\n') {
        line.push_back(next);
        if (next == NoEcho::interruption) {
            break;
        }
    }
    if (line.ends_with('\r')) {
        line.pop_back();
    }
    return line;
}

std::string fromFile(const std::string& path) {
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat state {};
    if (file < 0 || fstat(file, &state) != 0) {
        throw UsageError(fmt::format("the password file {} cannot be read: {}", path, std::strerror(errno)));
    }
    if ((state.st_mode & 077U) != 0) {
        throw UsageError(fmt::format("the password file {} is open to other users; run: chmod 600 {}", path, path));
    }
    return firstLine(file);
}

std::string asked(const Options& options) {
    const Descriptor terminal(open("/dev/tty", O_RDWR | O_CLOEXEC));
    if (terminal < 0) {
        throw UsageError("there is no terminal to ask for the password: give --password-file FILE or OPCDA_PASSWORD");
    }
    const std::string question =
        fmt::format("Password of {}{}{}: ", options.domain, options.domain.empty() ? "" : "\\", options.user);
    const NoEcho silence(terminal);
    if (!silence.holds()) {
        throw UsageError("this terminal cannot hide a password: give --password-file FILE or OPCDA_PASSWORD");
    }
    if (write(terminal, question.data(), question.size()) < 0) {
        throw UsageError("the terminal cannot be written to");
    }
    std::string password = firstLine(terminal);
    const bool ended = write(terminal, "\n", 1) == 1;
    if (!ended || password.find(NoEcho::interruption) != std::string::npos) {
        wipe(password);
        throw Interruption();
    }
    return password;
}

}  // namespace

dcom::ntlm::NtHash passwordHash(const Options& options) {
    const char* const environment = std::getenv("OPCDA_PASSWORD");
    std::string password = !options.passwordFile.empty() ? fromFile(options.passwordFile)
                           : environment != nullptr      ? std::string(environment)
                                                         : asked(options);
    if (password.empty()) {
        throw UsageError("the password is empty");
    }
    const dcom::ntlm::NtHash hash = dcom::ntlm::ntHash(password);
    wipe(password);
    return hash;
}

}  // namespace quelm::opcclient
