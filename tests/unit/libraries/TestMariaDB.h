#pragma once

// A MariaDB server of the tests' own, in a temporary folder, reached through ODBC, gone at the end.

#include <sys/types.h>

#include <string>

#include "libraries/TestDatabase.h"

namespace quelm::test {

class TestMariaDB {
 public:
    // One server for the whole test program, started when it is first asked for; nullptr when MariaDB or its ODBC
    // driver is not installed here.
    static TestMariaDB* instance();

    TestMariaDB();
    TestMariaDB(const TestMariaDB&) = delete;
    TestMariaDB& operator=(const TestMariaDB&) = delete;
    ~TestMariaDB();

    // Freezes the server, as a machine that has stopped answering, or lets it go on.
    void freeze(bool frozen) const;
    std::string connectionString() const;
    // An empty plant's database, made with the schema that is shipped.
    void resetDatabase() const;
    // Runs a statement for its effect, in a session of its own.
    void run(const std::string& sql) const;

 private:
    TemporaryFolder folder_;
    int port_;
    pid_t process_ = 0;
};

}  // namespace quelm::test
