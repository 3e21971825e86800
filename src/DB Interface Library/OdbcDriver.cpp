#include "DB Interface Library/OdbcDriver.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <utility>

#include "DB Interface Library/OdbcSession.h"
#include "DB Interface Library/OdbcStatement.h"
#include "Shared Types/RuntimeError.h"
#include "Shared Types/TimeSource.h"

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
        const OdbcScan& scan = connectedSession()->scan(columns, source);
        if (scan.packed) {
            handOver(scan.packed->sql(), &*scan.packed, columns, parameters, sink);
        } else {
            handOver(scan.plain, nullptr, columns, parameters, sink);
        }
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
            handOver(fmt::format("{{call {}}}", text), nullptr, columns, parameters, sink);
        }
        return true;
    }

    bool hasTypedColumns() const override { return true; }

    std::int64_t execute(std::string_view sql, SqlParameters parameters) override {
        return OdbcRows(connectedSession(), sql, parameters).changedRows();
    }

    void test() override { query("SELECT 1", {})->next(); }

    void close() override {
        session_.reset();
        failure_.reset();
    }

 private:
    void handOver(std::string_view sql, const PackedRows* packed, std::string_view columns, SqlParameters parameters,
                  ISqlRowSink& sink) {
        OdbcRows rows(connectedSession(), sql, parameters);
        const auto count = static_cast<std::size_t>(std::count(columns.begin(), columns.end(), ',')) + 1;
        std::array<SqlValue, maxScanColumns> values;
        const auto used = std::span(values).first(std::min(count, maxScanColumns));
        std::array<SqlValue, maxScanColumns> packedValues;
        const auto packedUsed = std::span(packedValues).first(packed != nullptr ? packed->width() : 0);
        while (rows.next()) {
            if (packed != nullptr) {
                rows.read(packedUsed);
                packed->unpack(packedUsed, used);
            } else {
                rows.read(used);
            }
            sink.take(used);
        }
    }

    const std::shared_ptr<OdbcSession>& connectedSession() {
        if (!session_ || !session_->isUsable()) {
            session_.reset();
            connect();
        }
        return session_;
    }

    void connect() {
        const auto holdOff = static_cast<std::uint64_t>(timeouts_.holdOff.count());
        if (failure_ && timeSource().monotonicMilliseconds() - failedAt_ < holdOff) {
            throw RuntimeError(*failure_);
        }
        failure_.reset();
        try {
            session_ = std::make_shared<OdbcSession>(connectionString_, timeouts_);
        } catch (const RuntimeError& failure) {
            failure_ = failure;
            failedAt_ = timeSource().monotonicMilliseconds();
            throw;
        }
    }

    ConnectionString connectionString_;
    OdbcTimeouts timeouts_;
    std::shared_ptr<OdbcSession> session_;
    std::optional<RuntimeError> failure_;
    std::uint64_t failedAt_ = 0;  // milliseconds of the monotonic clock
};

}  // namespace

std::unique_ptr<ISqlConnection> OdbcDriver::connection(const ConnectionString& connectionString) const {
    return std::make_unique<OdbcConnection>(connectionString, timeouts_);
}

}  // namespace quelm
