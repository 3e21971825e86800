#include "DB Interface Library/OdbcDriver.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <utility>

#include "DB Interface Library/OdbcSession.h"
#include "DB Interface Library/OdbcStatement.h"
#include "Shared Types/Date.h"

namespace quelm {

namespace {

// Turns milliseconds since 1970 into a date; into Null for one that the product's dates do not reach.
void makeDate(SqlValue& value) {
    if (value.type != SqlType::Integer) {
        return;
    }
    constexpr std::int64_t perDay = 86'400'000;
    static const std::int64_t epoch = dayNumber(1970, 1, 1);
    static const std::int64_t first = dayNumber(100, 1, 1);
    static const std::int64_t last = dayNumber(9999, 12, 31);
    std::int64_t day = value.integer / perDay;
    std::int64_t rest = value.integer % perDay;
    if (rest < 0) {
        rest += perDay;
        --day;
    }
    day += epoch;
    value.type = day >= first && day <= last ? SqlType::Date : SqlType::Null;
    value.real = dateFromLinearDays(day, static_cast<double>(rest) / perDay).days;
}

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
    OdbcConnection(const ConnectionString& connectionString, OdbcTimeouts timeouts)
        : connectionString_(connectionString), timeouts_(timeouts) {}

    std::unique_ptr<ISqlRows> query(std::string_view sql, SqlParameters parameters) override {
        return std::make_unique<OdbcRows>(connectedSession(), sql, parameters);
    }

    void scan(std::string_view columns, std::string_view source, SqlParameters parameters, ISqlRowSink& sink) override {
        handOver(connectedSession()->scan(columns, source), columns, parameters, sink);
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
            handOver(OdbcScan{fmt::format("{{call {}}}", text), {}}, columns, parameters, sink);
        }
        return true;
    }

    bool hasTypedColumns() const override { return true; }

    std::int64_t execute(std::string_view sql, SqlParameters parameters) override {
        return OdbcRows(connectedSession(), sql, parameters).changedRows();
    }

    void test() override { query("SELECT 1", {})->next(); }

    void close() override { session_.reset(); }

 private:
    void handOver(const OdbcScan& scan, std::string_view columns, SqlParameters parameters, ISqlRowSink& sink) {
        OdbcRows rows(connectedSession(), scan.sql, parameters);
        std::array<SqlValue, maxScanColumns> values;
        const auto count = static_cast<std::size_t>(std::count(columns.begin(), columns.end(), ',')) + 1;
        const auto used = std::span(values).first(std::min(count, maxScanColumns));
        while (rows.next()) {
            rows.read(used);
            for (std::size_t i = 0; i < std::min(used.size(), scan.isMilliseconds.size()); ++i) {
                if (scan.isMilliseconds[i]) {
                    makeDate(used[i]);
                }
            }
            sink.take(used);
        }
    }

    const std::shared_ptr<OdbcSession>& connectedSession() {
        if (!session_ || !session_->isUsable()) {
            session_.reset();
            session_ = std::make_shared<OdbcSession>(connectionString_, timeouts_);
        }
        return session_;
    }

    ConnectionString connectionString_;
    OdbcTimeouts timeouts_;
    std::shared_ptr<OdbcSession> session_;
};

}  // namespace

std::unique_ptr<ISqlConnection> OdbcDriver::connection(const ConnectionString& connectionString) const {
    return std::make_unique<OdbcConnection>(connectionString, timeouts_);
}

}  // namespace quelm
