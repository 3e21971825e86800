#pragma once

// Every database that has an ODBC driver: the connection string goes to ODBC as it stands. Rows come in blocks, typed
// as the database has them. The database is told the time-outs for connecting and for a statement, in whole seconds.

#include <memory>

#include "DB Interface Library/sql/Sql.h"

namespace quelm {

class OdbcDriver final : public ISqlDriver {
 public:
    explicit OdbcDriver(SqlTimeouts timeouts = {}) : timeouts_(timeouts) {}
    bool accepts(const ConnectionString& connectionString) const override { return connectionString.hasKeys(); }
    std::unique_ptr<ISqlConnection> connection(const ConnectionString& connectionString) const override;

 private:
    SqlTimeouts timeouts_;
};

}  // namespace quelm
