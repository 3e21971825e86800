#pragma once

// A PostgreSQL server of the tests' own: a new cluster in a temporary folder, reached through ODBC, gone at the end.

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "DB Interface Library/sql/Sql.h"
#include "libraries/TestDatabase.h"

namespace quelm::test {

class TestServer {
 public:
    // One server for the whole test program, started when it is first asked for; nullptr when PostgreSQL or its ODBC
    // driver is not installed here.
    static TestServer* instance();

    TestServer();
    TestServer(const TestServer&) = delete;
    TestServer& operator=(const TestServer&) = delete;
    ~TestServer();

    bool start();
    // Ends all sessions at once.
    bool stop();
    // Freezes every process of the server, as a machine that has stopped answering, or lets it go on.
    void freeze(bool frozen);
    // Bytes beyond which none of its files can grow, as on a full disk; RLIM_INFINITY for no limit. At least the 16 MB
    // of its own logs.
    void limitFiles(rlim_t bytes);

    // A connection string for the plant's database; user "server" (with this password) is an ordinary user.
    std::string connectionString(const std::string& user = "quelm", const std::string& password = "") const;
    // An empty plant's database, made with the schema that is shipped.
    void resetDatabase();

 private:
    bool asServerUser(const std::string& command) const;

    TemporaryFolder folder_;
    std::string programs_;
    int port_ = 0;
    bool running_ = false;
};

// Of this machine's own address; free at this moment.
std::uint16_t freePort();

// Runs statements for their effect, in a session of its own.
void runOnServer(const std::string& sql);

}  // namespace quelm::test
