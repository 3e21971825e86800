#include "DB Interface Library/sql/OdbcDriver.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "DB Interface Library/sql/OdbcSession.h"
#include "DB Interface Library/sql/OdbcStatement.h"
#include "base/RuntimeError.h"

namespace quelm {

namespace {

class OdbcRows final : public ISqlRows {
 public:
    OdbcRows(std::shared_ptr<OdbcSession> session, std::string_view sql, SqlParameters parameters)
        : session_(std::move(session)), statement_(session_->take(sql)) {
        statement_->execute(parameters);
    }
    OdbcRows(const OdbcRows&) = delete;
    OdbcRows& operator=(const OdbcRows&) = delete;
    ~OdbcRows() override { session_->giveBack(std::move(statement_)); }

    bool next() override { return statement_->next(); }

    void read(std::span<SqlValue> values) const override {
        for (std::size_t i = 0; i < values.size(); ++i) {
            values[i] = statement_->value(i);
        }
    }

    std::vector<SQLSMALLINT> types() { return statement_->types(); }
    std::vector<std::optional<std::string_view>> binaryRow(std::size_t count) { return statement_->binaryRow(count); }
    std::int64_t changedRows() { return statement_->changedRows(); }

 private:
    std::shared_ptr<OdbcSession> session_;
    std::unique_ptr<OdbcStatement> statement_;
};

std::string marks(std::size_t count) {
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        text += i == 0 ? "?" : ", ?";
    }
    return text;
}

class OdbcConnection final : public ISqlConnection {
 public:
    OdbcConnection(const ConnectionString& connectionString, SqlTimeouts timeouts)
        : connectionString_(connectionString), timeouts_(timeouts) {
        const OdbcConnectTime time = odbcConnectTime(connectionString_, timeouts_.connect);
        timeouts_.connect = time.each;
        timeToConnect_ = time.all;
    }

    SqlTimeouts timeouts() const override {
        SqlTimeouts timeouts = timeouts_;
        timeouts.connect = timeToConnect_;
        return timeouts;
    }

    void connect() override { connectedSession(); }

    std::unique_ptr<ISqlRows> query(std::string_view sql, SqlParameters parameters) override {
        return std::make_unique<OdbcRows>(connectedSession(), sql, parameters);
    }

    void scan(std::string_view columns, std::string_view source, SqlParameters parameters, ISqlRowSink& sink) override {
        const std::shared_ptr<OdbcSession> session = connectedSession();
        const std::string plain = fmt::format("SELECT {} FROM {}", columns, source);
        auto& packedRows = session->packedRows();
        const auto known = packedRows.find(plain);
        if (known != packedRows.end() && known->second && scanPacked(session, *known->second, parameters, sink)) {
            return;
        }
        OdbcRows rows(session, plain, parameters);
        if (known != packedRows.end()) {
            // Others speak the same protocol but lack the functions for it.
            known->second.reset();
        } else if (session->dialect().fieldsTravelAsText && speaksUtf8(session)) {
            packedRows.emplace(plain, PackedRows::make(columns, source, rows.types()));
        }
        handOver(rows, columns, sink);
    }

    bool call(std::string_view columns, std::string_view procedure, SqlParameters parameters,
              ISqlRowSink& sink) override {
        const OdbcDialect& dialect = connectedSession()->dialect();
        if (!dialect.hasProcedures) {
            return false;
        }
        const std::string text = fmt::format("{}({})", procedure, marks(parameters.size()));
        if (dialect.selectsFromProcedures) {
            scan(columns, text, parameters, sink);
        } else {
            OdbcRows rows(connectedSession(), fmt::format("{{call {}}}", text), parameters);
            handOver(rows, columns, sink);
        }
        return true;
    }

    bool hasTypedColumns() const override { return true; }

    void beginTransaction() override { execute(connectedSession()->dialect().beginTransaction, {}); }

    std::int64_t execute(std::string_view sql, SqlParameters parameters) override {
        return OdbcRows(connectedSession(), sql, parameters).changedRows();
    }

    void test() override { query("SELECT 1", {})->next(); }

    void close() override { session_.reset(); }

 private:
    static bool speaksUtf8(const std::shared_ptr<OdbcSession>& session) {
        return OdbcRows(session, "SELECT 1 WHERE pg_client_encoding() = 'UTF8'", {}).next();
    }

    static void handOver(OdbcRows& rows, std::string_view columns, ISqlRowSink& sink) {
        const auto count = static_cast<std::size_t>(std::count(columns.begin(), columns.end(), ',')) + 1;
        std::array<SqlValue, maxScanColumns> values;
        const auto used = std::span(values).first(std::min(count, maxScanColumns));
        while (rows.next()) {
            rows.read(used);
            sink.take(used);
        }
    }

    // False, and nothing is handed over, when the database does not know how.
    static bool scanPacked(const std::shared_ptr<OdbcSession>& session, const PackedRows& packed,
                           SqlParameters parameters, ISqlRowSink& sink) {
        std::optional<OdbcRows> rows;
        try {
            rows.emplace(session, packed.sql(), parameters);
        } catch (const RuntimeError&) {
            if (!session->isUsable()) {
                throw;
            }
            return false;
        }
        packed.unpack(rows->binaryRow(packed.width()), sink);
        return true;
    }

    const std::shared_ptr<OdbcSession>& connectedSession() {
        if (!session_ || !session_->isUsable()) {
            session_.reset();
            session_ = std::make_shared<OdbcSession>(connectionString_, timeouts_);
        }
        return session_;
    }

    ConnectionString connectionString_;
    SqlTimeouts timeouts_;
    std::chrono::milliseconds timeToConnect_{};
    std::shared_ptr<OdbcSession> session_;
};

}  // namespace

std::unique_ptr<ISqlConnection> OdbcDriver::connection(const ConnectionString& connectionString) const {
    return std::make_unique<OdbcConnection>(connectionString, timeouts_);
}

}  // namespace quelm
