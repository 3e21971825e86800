#include "DB Interface Library/sql/OdbcSession.h"

#include <fmt/format.h>

#include <algorithm>
#include <initializer_list>
#include <utility>
#include <vector>

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

bool namesDriver(const ConnectionString& connectionString, std::initializer_list<std::string_view> words) {
    const std::string* const driver = connectionString.find("Driver");
    const std::string name = driver == nullptr ? std::string() : toUpperCase(*driver);
    return std::any_of(words.begin(), words.end(),
                       [&](std::string_view word) { return name.find(word) != std::string::npos; });
}

bool isPostgreSQLDriver(const ConnectionString& connectionString) {
    return namesDriver(connectionString, {"POSTGRES", "PSQLODBC"});
}

bool isMariaDBDriver(const ConnectionString& connectionString) {
    return namesDriver(connectionString, {"MARIADB", "MAODBC"});
}

// PostgreSQL's driver begins a file of its own under /tmp in every process that closes its last connection, where the
// machine's driver settings do not forbid it; no connection string does. It leaves that for as long as some connection
// that wants no log is open, and counts one that failed to open for ever: so one fails here, once, at a place where no
// server can be. A connection string that says what is to be logged is left alone.
void keepFromLogging(SQLHANDLE environment, const ConnectionString& connectionString) {
    const std::string* const driver = connectionString.find("Driver");
    if (!isPostgreSQLDriver(connectionString) || connectionString.find("CommLog") != nullptr ||
        connectionString.find("Debug") != nullptr) {
        return;
    }
    [[maybe_unused]] static const SQLRETURN once = [&] {
        const OdbcHandle<SQL_HANDLE_DBC> connection(environment);
        std::u16string text = utf8ToUtf16("Driver={" + *driver + "};Server=/nowhere;UID=nobody;CommLog=0;Debug=0");
        return SQLDriverConnectW(connection.get(), nullptr, odbcText(text), static_cast<SQLSMALLINT>(text.size()),
                                 nullptr, 0, nullptr, SQL_DRIVER_NOPROMPT);
    }();
}

// A database takes a statement back that met another one.
bool isConflict(std::string_view state) {
    return state == "40001" || state == "40P01";
}

// The servers that the connection string names, in its order. Other drivers write a port behind the comma.
std::vector<std::string> serversOf(const ConnectionString& connectionString) {
    std::vector<std::string> servers;
    if (isPostgreSQLDriver(connectionString) || isMariaDBDriver(connectionString)) {
        const std::string* named = connectionString.find("Server");
        named = named == nullptr ? connectionString.find("Servername") : named;
        std::string_view rest = named == nullptr ? std::string_view() : *named;
        while (!rest.empty()) {
            const std::size_t comma = rest.find(',');
            servers.emplace_back(trimBlanks(rest.substr(0, comma)));
            rest.remove_prefix(comma == std::string_view::npos ? rest.size() : comma + 1);
        }
    }
    return servers;
}

// The mistake is in this one statement or its values; the connection is as good as before.
bool leavesConnectionGood(std::string_view state) {
    return state.starts_with("22") || state.starts_with("23") || state.starts_with("42") || isConflict(state);
}

}  // namespace

OdbcConnectTime odbcConnectTime(const ConnectionString& connectionString, std::chrono::milliseconds connect) {
    // A longer list would hold up the other sites too long: its servers have less time each.
    constexpr std::chrono::milliseconds most{30'000};
    // PostgreSQL's library takes one second for two.
    constexpr std::chrono::milliseconds least{2'000};
    const auto count = static_cast<std::int64_t>(serversOf(connectionString).size());
    if (count < 2) {
        return {connect, connect};
    }
    const std::chrono::milliseconds each = std::clamp(connect, least, std::max(least, most / count));
    return {each, each * count};
}

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
}

OdbcSession::~OdbcSession() {
    statements_.clear();
    SQLDisconnect(connection_->get());
}

void OdbcSession::fail(SQLSMALLINT type, SQLHANDLE handle) {
    const Diagnosis diagnosis = diagnose(type, handle);
    failed_ = failed_ || !leavesConnectionGood(diagnosis.state);
    const std::string text = connectionString_.withoutPasswords(diagnosis.text);
    if (isConflict(diagnosis.state)) {
        throw SqlConflict(diagnosis.number, text);
    }
    throw RuntimeError(diagnosis.number, text);
}

// MariaDB's driver stays with the first server that lets it in, were it one that has lost its cluster and answers
// nothing, and at one that does not answer at all; so the servers are tried one after the other here.
void OdbcSession::connect() {
    const std::vector<std::string> servers =
        isMariaDBDriver(connectionString_) ? serversOf(connectionString_) : std::vector<std::string>();
    if (servers.size() < 2) {
        connectTo(connectionString_.text());
        return;
    }
    const std::string* const list = connectionString_.find("Server");
    const std::size_t at = list == nullptr ? std::string::npos : connectionString_.text().find(*list);
    if (at == std::string::npos) {
        throw RuntimeError(errors::invalidCall, "The list of servers is to be named Server");
    }
    std::string failures;
    long number = 0;
    for (const std::string& server : servers) {
        std::string text = connectionString_.text();
        text.replace(at, list->size(), server);
        try {
            connectTo(text);
            return;
        } catch (const RuntimeError& failure) {
            number = failure.number();
            failures += fmt::format("{}{}: {}", failures.empty() ? "" : "; ", server, failure.description());
            failed_ = false;
            connection_.emplace(environment_.get());
        }
    }
    throw RuntimeError(number, failures);
}

// This driver takes its time limits from the connection string alone; without them it waits for a machine that has
// vanished for ever. A statement's own limit comes before that of the wait for its answer.
std::string OdbcSession::mariaDBTimeouts(std::size_t seconds) const {
    std::string text;
    if (connectionString_.find("CONN_TIMEOUT") == nullptr) {
        text += fmt::format(";CONN_TIMEOUT={}", seconds);
    }
    if (connectionString_.find("READ_TIMEOUT") == nullptr) {
        text += fmt::format(";READ_TIMEOUT={}", wholeSeconds(timeouts_.query + timeouts_.grace));
    }
    return text;
}

void OdbcSession::connectTo(const std::string& connectionString) {
    SQLHANDLE handle = connection_->get();
    const std::size_t seconds = wholeSeconds(timeouts_.connect);
    SQLSetConnectAttrW(handle, SQL_ATTR_LOGIN_TIMEOUT, odbcNumber(seconds), SQL_IS_UINTEGER);
    std::u16string text = utf8ToUtf16(connectionString);
    if (isMariaDBDriver(connectionString_)) {
        text += utf8ToUtf16(mariaDBTimeouts(seconds));
    }
    if (!std::in_range<SQLSMALLINT>(text.size())) {
        throw RuntimeError(errors::invalidCall, "The connection string is longer than ODBC takes");
    }
    const SQLRETURN result = SQLDriverConnectW(handle, nullptr, odbcText(text), static_cast<SQLSMALLINT>(text.size()),
                                               nullptr, 0, nullptr, SQL_DRIVER_NOPROMPT);
    if (!SQL_SUCCEEDED(result)) {
        fail(SQL_HANDLE_DBC, handle);
    }
    try {
        readAbilities();
    } catch (...) {
        SQLDisconnect(handle);
        throw;
    }
}

void OdbcSession::readAbilities() {
    SQLUINTEGER abilities = 0;
    SQLGetInfoW(connection_->get(), SQL_GETDATA_EXTENSIONS, &abilities, sizeof abilities, nullptr);
    constexpr SQLUINTEGER needed = SQL_GD_BLOCK | SQL_GD_BOUND | SQL_GD_ANY_COLUMN;
    readsInsideBlocks_ = (abilities & needed) == needed;
    const std::string name = infoText(SQL_DBMS_NAME);
    const bool isPostgreSQL = equalsIgnoringCase(name, "PostgreSQL");
    const bool isMariaDB = equalsIgnoringCase(name, "MariaDB");
    dialect_ = {.hasProcedures = isPostgreSQL || infoText(SQL_PROCEDURES) == "Y",
                .selectsFromProcedures = isPostgreSQL,
                .fieldsTravelAsText = isPostgreSQL,
                .textsAreUtf8 = false,
                .rowsComeSingly = isMariaDB,
                .beginTransaction = isMariaDB ? "START TRANSACTION" : "BEGIN TRANSACTION"};
    if (isMariaDB) {
        dialect_.textsAreUtf8 = saysYes("SELECT @@character_set_results LIKE 'utf8%'");
        // The driver takes no time limit for a statement; the server does.
        OdbcStatement(*this, fmt::format("SET max_statement_time = {}", wholeSeconds(timeouts_.query))).execute({});
    } else if (isPostgreSQL) {
        refuseStandby();
    }
}

// A server that follows another one may lie behind it, which nobody would see. Whoever has told the driver which
// servers will do knows what he does.
void OdbcSession::refuseStandby() {
    if (toUpperCase(connectionString_.text()).find("TARGET_SESSION_ATTRS") != std::string::npos) {
        return;
    }
    bool isStandby = false;
    try {
        isStandby = saysYes("SELECT CAST(pg_is_in_recovery() AS integer)");
    } catch (const RuntimeError&) {
        if (!isUsable()) {
            throw;
        }
        // Others speak the same protocol and have no such function.
    }
    if (isStandby) {
        throw RuntimeError(sqlStandby,
                           "this server is a standby: it may lag behind and takes no commands. Name all servers and "
                           "pqopt={target_session_attrs=read-write} in the connection string to reach the one that "
                           "leads, or target_session_attrs=any to read from a standby all the same");
    }
}

bool OdbcSession::saysYes(std::string_view question) {
    OdbcStatement statement(*this, std::string(question));
    statement.execute({});
    return statement.next() && sqlWholeNumber(statement.value(0)) == 1;
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
