#pragma once

// Every database that has an ODBC driver: the connection string goes to ODBC as it stands. Rows come in blocks, typed
// as the database has them.

#include <chrono>
#include <memory>

#include "DB Interface Library/Sql.h"

namespace quelm {

struct OdbcTimeouts {
    // Longest wait for a connection, and longest run of one statement; the whole server stands still meanwhile. The
    // database is told both, in whole seconds.
    std::chrono::milliseconds connect{5'000};
    std::chrono::milliseconds query{10'000};
    // What a database gets beyond that to say so itself, before its connection is cut.
    std::chrono::milliseconds grace{1'000};
    // For so long after a connection that failed the next calls fail at once, for the same reason: all that is due in
    // one tick waits for a dead database once. Much shorter than a tick, so that the next one connects again.
    std::chrono::milliseconds holdOff{1'000};
};

class OdbcDriver final : public ISqlDriver {
 public:
    explicit OdbcDriver(OdbcTimeouts timeouts = {}) : timeouts_(timeouts) {}
    bool accepts(const ConnectionString& connectionString) const override { return connectionString.hasKeys(); }
    std::unique_ptr<ISqlConnection> connection(const ConnectionString& connectionString) const override;

 private:
    OdbcTimeouts timeouts_;
};

}  // namespace quelm
