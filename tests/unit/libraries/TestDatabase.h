#pragma once

// A folder that is gone after the test, and real SQLite files in it, made with the schema that is shipped.

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace quelm::test {

class TemporaryFolder {
 public:
    TemporaryFolder() {
        std::string pattern = (std::filesystem::temp_directory_path() / "quelm-XXXXXX").string();
        path_ = mkdtemp(pattern.data());
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    const std::string& path() const { return path_; }

 private:
    std::string path_;
};

inline std::string contentsOf(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    std::ostringstream contents;
    contents << stream.rdbuf();
    return contents.str();
}

// The plant's side of a database: another connection that writes what the server reads.
class TestDatabase {
 public:
    explicit TestDatabase(std::string path) : path_(std::move(path)) {
        EXPECT_EQ(sqlite3_open(path_.c_str(), &database_), SQLITE_OK);
    }
    TestDatabase(const TestDatabase&) = delete;
    TestDatabase& operator=(const TestDatabase&) = delete;
    ~TestDatabase() { sqlite3_close(database_); }

    TestDatabase& withSchema() {
        return run(contentsOf("schema/sqlite.sql"));  // tests run at the top of the source tree
    }
    TestDatabase& run(const std::string& sql) {
        char* error = nullptr;
        EXPECT_EQ(sqlite3_exec(database_, sql.c_str(), nullptr, nullptr, &error), SQLITE_OK) << (error ? error : "");
        sqlite3_free(error);
        return *this;
    }
    std::string connectionString() const { return "Driver=SQLite;Database=" + path_; }

 private:
    std::string path_;
    sqlite3* database_ = nullptr;
};

}  // namespace quelm::test
