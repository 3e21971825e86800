#include "DB Interface Library/sql/OdbcSession.h"

#include <algorithm>
#include <utility>

#include "DB Interface Library/sql/OdbcStatement.h"
#include "base/RuntimeError.h"
#include "base/Text.h"
#include "base/Utf.h"

namespace quelm {

namespace {

// Each keeps its block of rows.
constexpr std::size_t mostPrepared = 16;

// The messages of drivers run over several lines.
std::string onOneLine(const std::string& text) {
    std::string line;
    for (const char c : text) {
        const bool isBlank = static_cast<unsigned char>(c) <= ' ';
        if (!isBlank) {
            line += c;
        } else if (!line.empty() && line.back() != ' ') {
            line += ' ';
        }
    }
    return std::string(trimBlanks(line));
}

struct Diagnosis {
    std::string state;  // five characters; "" when the driver says nothing
    long number = 0;
    std::string text;
};

Diagnosis diagnose(SQLSMALLINT type, SQLHANDLE handle) {
    std::u16string state(6, u'\0');
    std::u16string text(2048, u'\0');
    SQLINTEGER number = 0;
    SQLSMALLINT length = 0;
    if (!SQL_SUCCEEDED(SQLGetDiagRecW(type, handle, 1, odbcText(state), &number, odbcText(text),
                                      static_cast<SQLSMALLINT>(text.size()), &length))) {
        return {"", 0, "the ODBC driver gives no reason"};
    }
    const std::size_t shown = std::min(static_cast<std::size_t>(std::max<SQLSMALLINT>(length, 0)), text.size() - 1);
    return {utf16ToUtf8(std::u16string_view(state).substr(0, 5)), number,
            onOneLine(utf16ToUtf8(text.substr(0, shown)))};
}

// PostgreSQL's driver begins a file of its own under /tmp in every process that closes its last connection, where the
// machine's driver settings do not forbid it; no connection string does. It leaves that for as long as some connection
// that wants no log is open, and counts one that failed to open for ever: so one fails here, once, at a place where no
// server can be. A connection string that says what is to be logged is left alone.
void keepFromLogging(SQLHANDLE environment, const ConnectionString& connectionString) {
    const std::string* const driver = connectionString.find("Driver");
    if (driver == nullptr) {
        return;
    }
    const std::string name = toUpperCase(*driver);
    const bool isPostgreSQL = name.find("POSTGRES") != std::string::npos || name.find("PSQLODBC") != std::string::npos;
    if (!isPostgreSQL || connectionString.find("CommLog") != nullptr || connectionString.find("Debug") != nullptr) {
        return;
    }
    [[maybe_unused]] static const SQLRETURN once = [&] {
        const OdbcHandle<SQL_HANDLE_DBC> connection(environment);
        std::u16string text = utf8ToUtf16("Driver={" + *driver + "};Server=/nowhere;UID=nobody;CommLog=0;Debug=0");
        return SQLDriverConnectW(connection.get(), nullptr, odbcText(text), static_cast<SQLSMALLINT>(text.size()),
                                 nullptr, 0, nullptr, SQL_DRIVER_NOPROMPT);
    }();
}

// The mistake is in this one statement or its values; the connection is as good as before.
bool leavesConnectionGood(std::string_view state) {
    return state.starts_with("22") || state.starts_with("23") || state.starts_with("42");
}

}  // namespace

std::size_t wholeSeconds(std::chrono::milliseconds time) {
    return static_cast<std::size_t>(std::max<std::int64_t>((time.count() + 999) / 1000, 1));
}

OdbcSession::OdbcSession(const ConnectionString& connectionString, const SqlTimeouts& timeouts)
    : connectionString_(connectionString), timeouts_(timeouts), environment_(nullptr) {
    SQLSetEnvAttr(environment_.get(), SQL_ATTR_ODBC_VERSION, odbcNumber(SQL_OV_ODBC3), 0);
    connection_.emplace(environment_.get());
    if (connection_->get() == nullptr) {
        throw RuntimeError(errors::outOfMemory);
    }
    keepFromLogging(environment_.get(), connectionString_);
    connect();
    readAbilities();
}

OdbcSession::~OdbcSession() {
    statements_.clear();
    SQLDisconnect(connection_->get());
}

void OdbcSession::fail(SQLSMALLINT type, SQLHANDLE handle) {
    const Diagnosis diagnosis = diagnose(type, handle);
    failed_ = failed_ || !leavesConnectionGood(diagnosis.state);
    throw RuntimeError(diagnosis.number, connectionString_.withoutPasswords(diagnosis.text));
}

void OdbcSession::connect() {
    SQLHANDLE handle = connection_->get();
    const std::size_t seconds = wholeSeconds(timeouts_.connect);
    SQLSetConnectAttrW(handle, SQL_ATTR_LOGIN_TIMEOUT, odbcNumber(seconds), SQL_IS_UINTEGER);
    std::u16string text = utf8ToUtf16(connectionString_.text());
    if (!std::in_range<SQLSMALLINT>(text.size())) {
        throw RuntimeError(errors::invalidCall, "The connection string is longer than ODBC takes");
    }
    const SQLRETURN result = SQLDriverConnectW(handle, nullptr, odbcText(text), static_cast<SQLSMALLINT>(text.size()),
                                               nullptr, 0, nullptr, SQL_DRIVER_NOPROMPT);
    if (!SQL_SUCCEEDED(result)) {
        fail(SQL_HANDLE_DBC, handle);
    }
}

void OdbcSession::readAbilities() {
    SQLUINTEGER abilities = 0;
    SQLGetInfoW(connection_->get(), SQL_GETDATA_EXTENSIONS, &abilities, sizeof abilities, nullptr);
    constexpr SQLUINTEGER needed = SQL_GD_BLOCK | SQL_GD_BOUND | SQL_GD_ANY_COLUMN;
    readsInsideBlocks_ = (abilities & needed) == needed;
    const bool isPostgreSQL = equalsIgnoringCase(infoText(SQL_DBMS_NAME), "PostgreSQL");
    dialect_ = {.hasProcedures = isPostgreSQL || infoText(SQL_PROCEDURES) == "Y",
                .selectsFromProcedures = isPostgreSQL,
                .fieldsTravelAsText = isPostgreSQL};
}

std::string OdbcSession::infoText(SQLUSMALLINT which) const {
    std::u16string text(128, u'\0');
    SQLSMALLINT bytes = 0;
    if (!SQL_SUCCEEDED(SQLGetInfoW(connection_->get(), which, text.data(),
                                   static_cast<SQLSMALLINT>(text.size() * sizeof(char16_t)), &bytes))) {
        return {};
    }
    return utf16ToUtf8(text.substr(0, text.find(u'\0')));
}

std::unique_ptr<OdbcStatement> OdbcSession::take(std::string_view sql) {
    if (const auto kept = statements_.find(sql); kept != statements_.end()) {
        return std::move(statements_.extract(kept).mapped());
    }
    return std::make_unique<OdbcStatement>(*this, std::string(sql));
}

void OdbcSession::giveBack(std::unique_ptr<OdbcStatement> statement) {
    if (isUsable() && statement->isPrepared() && statements_.size() < mostPrepared && statement->close()) {
        std::string sql = statement->sql();
        statements_.insert_or_assign(std::move(sql), std::move(statement));
    }
}

}  // namespace quelm
