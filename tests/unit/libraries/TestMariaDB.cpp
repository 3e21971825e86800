#include "libraries/TestMariaDB.h"

#include <fmt/format.h>
#include <signal.h>
#include <sys/wait.h>

#include <cstdlib>
#include <memory>

#include "DB Interface Library/sql/OdbcDriver.h"
#include "base/RuntimeError.h"
#include "libraries/TestServer.h"

namespace quelm::test {

TestMariaDB* TestMariaDB::instance() {
    static const std::unique_ptr<TestMariaDB> server = []() -> std::unique_ptr<TestMariaDB> {
        if (!std::filesystem::exists("/usr/sbin/mariadbd") ||
            contentsOf("/etc/odbcinst.ini").find("[MariaDB Unicode]") == std::string::npos) {
            return nullptr;
        }
        return std::make_unique<TestMariaDB>();
    }();
    return server.get();
}

namespace {

// Little memory and none that is locked: several of these servers run side by side on machines that have little to
// spare.
constexpr const char* frugal =
    "--innodb-buffer-pool-size=32M --innodb-log-file-size=16M --innodb-use-native-aio=0 "
    "--innodb-flush-log-at-trx-commit=0";

std::string asRoot() {
    return geteuid() == 0 ? "--user=root" : "";
}

// The files of an empty server; tried once more, for a machine that was out of something for a moment.
void makeData(const std::string& data, const std::string& log) {
    const std::string command = fmt::format(
        "mariadb-install-db --no-defaults {} {} --datadir={} --skip-test-db --skip-name-resolve "
        "--auth-root-authentication-method=normal >>{} 2>&1",
        asRoot(), frugal, data, log);
    for (int i = 0; i < 2; ++i) {
        if (std::system(command.c_str()) == 0) {
            return;
        }
        std::filesystem::remove_all(data);
    }
    ADD_FAILURE() << command << ":\n" << contentsOf(log);
}

}  // namespace

TestMariaDB::TestMariaDB() : port_(freePort()) {
    const std::string data = folder_.file("data");
    makeData(data, folder_.file("log"));
    process_ = fork();
    if (process_ == 0) {
        const std::string command = fmt::format(
            "exec /usr/sbin/mariadbd --no-defaults {} {} --datadir={} --socket={}/socket --pid-file={}/pid "
            "--bind-address=127.0.0.1 --port={} --character-set-server=utf8mb4 >>{}/log 2>&1",
            asRoot(), frugal, data, folder_.path(), folder_.path(), port_, folder_.path());
        execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
        _exit(127);
    }
    const std::string alive =
        fmt::format("mariadb-admin --no-defaults --socket={}/socket --user=root ping >/dev/null 2>&1", folder_.path());
    bool answers = false;
    for (int i = 0; i < 300 && !answers; ++i) {
        usleep(50'000);
        answers = std::system(alive.c_str()) == 0;
    }
    EXPECT_TRUE(answers) << contentsOf(folder_.file("log"));
}

TestMariaDB::~TestMariaDB() {
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
}

void TestMariaDB::freeze(bool frozen) const {
    kill(process_, frozen ? SIGSTOP : SIGCONT);
}

std::string TestMariaDB::connectionString() const {
    return fmt::format("Driver=MariaDB Unicode;Server=127.0.0.1;Port={};UID=root;Database=plant", port_);
}

void TestMariaDB::resetDatabase() const {
    const std::string client = fmt::format(
        "mariadb --no-defaults --socket={}/socket --user=root --default-character-set=utf8mb4", folder_.path());
    EXPECT_EQ(std::system(fmt::format("{} -e 'CREATE OR REPLACE DATABASE plant' && {} plant <schema/mariadb.sql",
                                      client, client)
                              .c_str()),
              0);
}

void TestMariaDB::run(const std::string& sql) const {
    try {
        OdbcDriver().connection(ConnectionString(connectionString()))->execute(sql, {});
    } catch (const RuntimeError& error) {
        ADD_FAILURE() << error.description();
    }
}

}  // namespace quelm::test
