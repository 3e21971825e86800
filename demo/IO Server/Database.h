#pragma once

// The realtime database that the demo I/O server writes to and takes its commands from.

#include <sqlite3.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace demo {

// The present local time with milliseconds, separator between date and time.
std::string localStamp(char separator);

class Database {
 public:
    // Raises std::runtime_error with the database's own text, as every operation here does.
    explicit Database(const std::string& path);

    void run(const std::string& sql, const std::vector<std::string>& texts = {}) {
        query(sql, texts, [](sqlite3_stmt*) {});
    }

    template <class Row>
    void query(const std::string& sql, const std::vector<std::string>& texts, Row row) {
        const Statement statement = prepared(sql, texts);
        while (step(statement.get())) {
            row(statement.get());
        }
    }

    // Rows that the last statement changed.
    int changes() const { return sqlite3_changes(handle_.get()); }

 private:
    using Statement = std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)>;

    Statement prepared(const std::string& sql, const std::vector<std::string>& texts);
    bool step(sqlite3_stmt* statement) const;
    void check(int result) const;

    std::unique_ptr<sqlite3, decltype(&sqlite3_close)> handle_{nullptr, sqlite3_close};
};

// A column's text; "" for NULL.
std::string columnText(sqlite3_stmt* row, int column);

// One transaction, so that readers see all of it or nothing; taken back unless it is committed.
class Transaction {
 public:
    explicit Transaction(Database& database) : database_(database) { database_.run("BEGIN IMMEDIATE"); }
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    ~Transaction();
    void commit();

 private:
    Database& database_;
    bool isOpen_ = true;
};

}  // namespace demo
