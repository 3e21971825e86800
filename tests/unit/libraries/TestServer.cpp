#include "libraries/TestServer.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "DB Interface Library/sql/OdbcDriver.h"
#include "base/RuntimeError.h"

namespace quelm::test {

namespace {

// Debian keeps the server's programs apart, by version.
std::string findPrograms() {
    std::string best;
    std::error_code ignored;
    for (const auto& version : std::filesystem::directory_iterator("/usr/lib/postgresql", ignored)) {
        const std::string folder = version.path().string() + "/bin";
        if (std::filesystem::exists(folder + "/initdb") && folder > best) {
            best = folder;
        }
    }
    return best;
}

bool hasOdbcDriver() {
    return contentsOf("/etc/odbcinst.ini").find("[PostgreSQL Unicode]") != std::string::npos;
}

}  // namespace

std::uint16_t freePort() {
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(listener, reinterpret_cast<sockaddr*>(&address), length);
    getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    close(listener);
    return ntohs(address.sin_port);
}

namespace {

// The server refuses to run as root; there an ordinary user runs it.
const char* serverUser() {
    return geteuid() == 0 ? "postgres" : nullptr;
}

std::vector<pid_t> serverProcesses(const std::string& folder) {
    pid_t postmaster = 0;
    std::ifstream(folder + "/data/postmaster.pid") >> postmaster;
    std::vector<pid_t> found{postmaster};
    std::ifstream children(fmt::format("/proc/{0}/task/{0}/children", postmaster));
    for (pid_t child = 0; children >> child;) {
        found.push_back(child);
    }
    return found;
}

}  // namespace

TestServer* TestServer::instance() {
    static const std::unique_ptr<TestServer> server = []() -> std::unique_ptr<TestServer> {
        if (findPrograms().empty() || !hasOdbcDriver()) {
            return nullptr;
        }
        return std::make_unique<TestServer>();
    }();
    return server.get();
}

TestServer::TestServer() : programs_(findPrograms()), port_(freePort()) {
    if (const char* user = serverUser()) {
        const passwd* entry = getpwnam(user);
        EXPECT_TRUE(entry != nullptr && chown(folder_.path().c_str(), entry->pw_uid, entry->pw_gid) == 0);
    }
    EXPECT_TRUE(asServerUser(
        fmt::format("{}/initdb -D {}/data -U quelm -A trust -E UTF8 --locale=C --no-sync", programs_, folder_.path())));
    // The ordinary user needs its password, so that one can be wrong.
    std::ofstream(folder_.file("data/pg_hba.conf"))
        << "host all server all scram-sha-256\nlocal all server scram-sha-256\nlocal all all trust\nhost all all all "
           "trust\n";
    EXPECT_TRUE(start());
}

TestServer::~TestServer() {
    if (running_) {
        freeze(false);
        stop();
    }
}

bool TestServer::start() {
    running_ = asServerUser(fmt::format(
        "{}/pg_ctl -w -t 30 -D {}/data -l {}/log -o '-k {} -p {} -c listen_addresses=127.0.0.1 -c fsync=off "
        "-c max_connections=12 -c superuser_reserved_connections=3 -c log_statement=none' start",
        programs_, folder_.path(), folder_.path(), folder_.path(), port_));
    return running_;
}

bool TestServer::stop() {
    running_ = false;
    return asServerUser(fmt::format("{}/pg_ctl -w -D {}/data -m fast stop", programs_, folder_.path()));
}

void TestServer::freeze(bool frozen) {
    for (const pid_t process : serverProcesses(folder_.path())) {
        kill(process, frozen ? SIGSTOP : SIGCONT);
    }
}

void TestServer::limitFiles(rlim_t bytes) {
    const std::string limit = bytes == RLIM_INFINITY ? "unlimited" : std::to_string(bytes);
    for (const pid_t process : serverProcesses(folder_.path())) {
        // A session may have ended meanwhile.
        EXPECT_TRUE(asServerUser(fmt::format("prlimit --fsize={}: --pid {}", limit, process)) || kill(process, 0) != 0);
    }
}

std::string TestServer::connectionString(const std::string& user, const std::string& password) const {
    return fmt::format("Driver=PostgreSQL Unicode;Server=127.0.0.1;Port={};Database=postgres;UID={};PWD={}", port_,
                       user, password);
}

void TestServer::resetDatabase() {
    runOnServer("DROP SCHEMA public CASCADE; CREATE SCHEMA public; GRANT ALL ON SCHEMA public TO PUBLIC; " +
                contentsOf("schema/postgresql.sql"));
}

bool TestServer::asServerUser(const std::string& command) const {
    const std::string prefix =
        serverUser() ? fmt::format("setpriv --reuid={0} --regid={0} --clear-groups ", serverUser()) : std::string();
    return std::system((fmt::format("cd {} && {}{} >/dev/null 2>&1", folder_.path(), prefix, command)).c_str()) == 0;
}

void runOnServer(const std::string& sql) {
    try {
        OdbcDriver().connection(ConnectionString(TestServer::instance()->connectionString()))->execute(sql, {});
    } catch (const RuntimeError& error) {
        ADD_FAILURE() << error.description();
    }
}

}  // namespace quelm::test
