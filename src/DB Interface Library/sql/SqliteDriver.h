#pragma once

// SQLite as one of the databases: "Driver=SQLite;Database=path". A database file is opened as it is and never
// created, so that a wrong path is a failure instead of an empty site.

#include <chrono>
#include <memory>

#include "DB Interface Library/sql/Sql.h"

namespace quelm {

struct SqliteTimeouts {
    // Longest wait for another process's lock. What else is due waits meanwhile, so it is short.
    std::chrono::milliseconds lock{3'000};
    // Longest run of one statement.
    std::chrono::milliseconds query{10'000};
    // Longest wait for the file itself, which may be another machine's.
    std::chrono::milliseconds connect{5'000};
};

class SqliteDriver final : public ISqlDriver {
 public:
    explicit SqliteDriver(SqliteTimeouts timeouts = {}) : timeouts_(timeouts) {}
    bool accepts(const ConnectionString& connectionString) const override;
    // Raises RuntimeError 5 when no Database is named.
    std::unique_ptr<ISqlConnection> connection(const ConnectionString& connectionString) const override;

 private:
    SqliteTimeouts timeouts_;
};

}  // namespace quelm
