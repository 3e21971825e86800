#pragma once

// One open ODBC connection, and the statements that stay prepared on it.

#include <sql.h>
#include <sqlext.h>
#include <sqlucode.h>

#include <chrono>
#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "DB Interface Library/sql/OdbcDriver.h"
#include "DB Interface Library/sql/PackedRows.h"

namespace quelm {

class OdbcStatement;

inline SQLWCHAR* odbcText(std::u16string& text) {
    return reinterpret_cast<SQLWCHAR*>(text.data());
}

// Numbers go where the interface has a pointer.
inline SQLPOINTER odbcNumber(std::size_t number) {
    // NOLINTNEXTLINE(performance-no-int-to-ptr)
    return reinterpret_cast<SQLPOINTER>(number);
}

// At least one: nought would mean no limit at all.
std::size_t wholeSeconds(std::chrono::milliseconds time);

template <SQLSMALLINT type>
class OdbcHandle {
 public:
    explicit OdbcHandle(SQLHANDLE parent) { SQLAllocHandle(type, parent, &handle_); }
    OdbcHandle(const OdbcHandle&) = delete;
    OdbcHandle& operator=(const OdbcHandle&) = delete;
    ~OdbcHandle() {
        if (handle_ != nullptr) {
            SQLFreeHandle(type, handle_);
        }
    }
    SQLHANDLE get() const { return handle_; }

 private:
    SQLHANDLE handle_ = nullptr;
};

// What one kind of database wants differently, decided by the name it gives itself.
struct OdbcDialect {
    bool hasProcedures = false;
    // Procedures that return rows are functions here, to be selected from.
    bool selectsFromProcedures = false;
    // Every field travels as text, so that rows come faster packed.
    bool fieldsTravelAsText = false;
    // Texts may be taken as the UTF-8 in which they travel: the driver takes three times as long to widen them.
    bool textsAreUtf8 = false;
    // The driver holds all rows anyway, and inside a block it reads on in the wrong row.
    bool rowsComeSingly = false;
    std::string_view beginTransaction = "BEGIN TRANSACTION";
};

// How long each server that a connection string names may take to let somebody in, and all of them together.
struct OdbcConnectTime {
    std::chrono::milliseconds each;
    std::chrono::milliseconds all;
};
OdbcConnectTime odbcConnectTime(const ConnectionString& connectionString, std::chrono::milliseconds connect);

// Connects when it is made. Everything here raises RuntimeError with the database's own number and text.
class OdbcSession {
 public:
    // timeouts.connect: of each server that the connection string names.
    OdbcSession(const ConnectionString& connectionString, const SqlTimeouts& timeouts);
    OdbcSession(const OdbcSession&) = delete;
    OdbcSession& operator=(const OdbcSession&) = delete;
    ~OdbcSession();

    // False once a failure has left the connection in doubt.
    bool isUsable() const { return !failed_; }
    SQLHANDLE connection() const { return connection_->get(); }
    const OdbcDialect& dialect() const { return dialect_; }
    // Columns of a row inside a block can be read again, piece by piece.
    bool readsInsideBlocks() const { return readsInsideBlocks_; }
    std::chrono::milliseconds queryTimeout() const { return timeouts_.query; }

    // Runs one step of a statement; True for a success, False for "no data".
    template <class Step>
    bool run(SQLHANDLE statement, Step step) {
        const SQLRETURN result = step();
        if (result == SQL_NO_DATA) {
            return false;
        }
        if (!SQL_SUCCEEDED(result)) {
            fail(SQL_HANDLE_STMT, statement);
        }
        return true;
    }
    [[noreturn]] void fail(SQLSMALLINT type, SQLHANDLE handle);

    // A statement for this text, prepared already where it was used before.
    std::unique_ptr<OdbcStatement> take(std::string_view sql);
    // Takes it back when its rows are read.
    void giveBack(std::unique_ptr<OdbcStatement> statement);
    // How a read of many rows is done where there is a faster way than its own statement, by that statement. It is
    // known once the statement has run.
    std::map<std::string, std::optional<PackedRows>, std::less<>>& packedRows() { return packedRows_; }

 private:
    void connect();
    void connectTo(const std::string& connectionString);
    std::string mariaDBTimeouts(std::size_t seconds) const;
    void readAbilities();
    void refuseStandby();
    bool saysYes(std::string_view question);
    std::string infoText(SQLUSMALLINT which) const;

    ConnectionString connectionString_;
    SqlTimeouts timeouts_;
    OdbcHandle<SQL_HANDLE_ENV> environment_;
    std::optional<OdbcHandle<SQL_HANDLE_DBC>> connection_;
    OdbcDialect dialect_;
    bool readsInsideBlocks_ = false;
    bool failed_ = false;
    std::map<std::string, std::unique_ptr<OdbcStatement>, std::less<>> statements_;
    std::map<std::string, std::optional<PackedRows>, std::less<>> packedRows_;
};

}  // namespace quelm
