#pragma once

// The accounts in dcom.conf, for who adds, changes and removes them: every other line of the file stays as it is, and
// what is written are hashes only.

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace quelm::control {

// Why the file cannot be changed as asked, in words for the operator.
class AccountTrouble : public std::runtime_error {
 public:
    using std::runtime_error::runtime_error;
};

class AccountFile {
 public:
    // Reads the file; one that is not there is empty. Throws AccountTrouble where it cannot be read.
    explicit AccountFile(std::string path);
    ~AccountFile();
    AccountFile(const AccountFile&) = delete;
    AccountFile& operator=(const AccountFile&) = delete;

    // As they are written, "DOMAIN\user" or "user", in the file's order.
    std::vector<std::string> names() const;
    bool has(std::string_view name) const;
    // Gives the account this password, in place of what it had, or adds it. name: "DOMAIN\user", or "user" for one that
    // answers to any domain; compared without regard to case. Throws AccountTrouble for what is no account name.
    void set(std::string_view name, std::string_view password);
    // Throws AccountTrouble where there is none.
    void remove(std::string_view name);
    // Puts the new file in the old one's place at once, with its owner and rights; a new one is its owner's alone, and
    // the user's "quelm" where there is such a user. Throws AccountTrouble, and leaves the old one as it is.
    void save() const;

 private:
    void replace(std::string_view name, std::string_view line);

    std::string path_;
    std::string text_;
};

}  // namespace quelm::control
