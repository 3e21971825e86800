#include "dcom/domain/Keytab.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "base/Text.h"
#include "dcom/SmallFile.h"
#include "dcom/ntlm/Crypto.h"

namespace quelm::dcom {

namespace {

constexpr std::size_t mostEntries = 4096;
constexpr std::string_view format{"\x05\x02", 2};
constexpr std::string_view hostService = "host/";

// Reads a file's big-endian numbers and counted texts; behind a fault everything is empty.
class FileReader {
 public:
    explicit FileReader(std::string_view rest) : rest_(rest) {}
    bool good() const { return good_; }
    bool atEnd() const { return rest_.empty(); }
    std::string_view bytes(std::size_t count) {
        good_ &= count <= rest_.size();
        const std::string_view taken = good_ ? rest_.substr(0, count) : std::string_view();
        rest_.remove_prefix(taken.size());
        return taken;
    }
    std::uint32_t number(std::size_t size) {
        std::uint32_t value = 0;
        for (const char byte : bytes(size)) {
            value = value << 8 | static_cast<unsigned char>(byte);
        }
        return value;
    }
    std::string text() { return std::string(bytes(number(2))); }

 private:
    std::string_view rest_;
    bool good_ = true;
};

bool readEntry(std::string_view record, Keytab::Entry& entry) {
    FileReader in(record);
    const std::uint32_t components = in.number(2);
    entry.realm = in.text();
    for (std::uint32_t i = 0; i < components && in.good(); ++i) {
        entry.principal += (i == 0 ? "" : "/") + in.text();
    }
    in.bytes(4 + 4 + 1);  // kind of name, time, version of the key
    entry.encryption = static_cast<std::uint16_t>(in.number(2));
    in.bytes(in.number(2));  // the key
    return in.good();
}

}  // namespace

bool isOldEncryption(std::uint16_t encryption) {
    constexpr std::uint16_t oldestGood = 17;  // AES, 128 bits
    constexpr std::uint16_t rc4 = 23;
    constexpr std::uint16_t rc4Weak = 24;
    return encryption < oldestGood || encryption == rc4 || encryption == rc4Weak;
}

std::string Keytab::hostPrincipal() const {
    std::string best;
    for (const Entry& entry : entries) {
        const bool isHost = equalsIgnoringCase(entry.principal.substr(0, hostService.size()), hostService);
        const auto isFull = [](const std::string& name) { return name.find('.') != std::string::npos; };
        if (isHost && (best.empty() || (!isFull(best) && isFull(entry.principal)))) {
            best = entry.principal;
        }
    }
    return best;
}

Keytab parseKeytab(std::string& contents) {
    Keytab keytab;
    FileReader in(contents);
    if (in.bytes(format.size()) != format) {
        keytab.fault = "it is no keytab";
    }
    while (keytab.fault.empty() && !in.atEnd() && keytab.entries.size() < mostEntries) {
        const auto size = static_cast<std::int32_t>(in.number(4));
        // What was removed leaves a hole with a negative size, and some programs end the file with a zero.
        const std::string_view record = in.bytes(static_cast<std::size_t>(size < 0 ? -std::int64_t{size} : size));
        if (Keytab::Entry entry; size > 0 && in.good() && readEntry(record, entry)) {
            keytab.entries.push_back(std::move(entry));
        } else if (size > 0 || !in.good()) {
            keytab.fault = "it is damaged";
        }
    }
    if (keytab.fault.empty() && keytab.entries.empty()) {
        keytab.fault = "it holds no entry";
    }
    ntlm::wipe(contents);
    return keytab;
}

Keytab readKeytab(const std::string& path) {
    SmallFile file = readSmallFile(path);
    if (!file.exists) {
        return {{}, std::strerror(ENOENT)};
    }
    if (!file.fault.empty()) {
        ntlm::wipe(file.text);
        return {{}, file.fault};
    }
    return parseKeytab(file.text);
}

}  // namespace quelm::dcom
