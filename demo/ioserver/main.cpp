// The demo plant's I/O server: keeps the realtime database moving as real I/O servers would. It beats every second,
// completes a refresh of all data once a minute, moves the measured values, counts the counters up, and carries out
// the commands that stand in the message table.
//   DemoIOServer --database FILE | --connection STRING
//                [--period MILLISECONDS] [--misbehave never-answer|broken-xml|delete-record]
// FILE: an SQLite database. STRING: as Connection2 in Quelm.ini. Other people on the machine see the command line, so a
// password is better kept behind a DSN.

#include <fmt/format.h>
#include <time.h>

#include <charconv>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "CommandQueue.h"
#include "DB Interface Library/sql/Sql.h"
#include "Plant.h"
#include "base/RuntimeError.h"

namespace {

volatile std::sig_atomic_t ending = 0;

constexpr long shortestPeriod = 10;
constexpr long longestPeriod = 3600000;

struct Options {
    std::string connection;
    long period = 1000;  // milliseconds
    demo::Misbehaviour misbehaviour = demo::Misbehaviour::None;
};

bool takeOption(Options& options, std::string_view name, std::string_view value) {
    if (name == "--database") {
        options.connection = "Driver=SQLite;Database=" + std::string(value);
        return !value.empty();
    }
    if (name == "--connection") {
        options.connection = value;
        return !value.empty();
    }
    if (name == "--period") {
        const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), options.period);
        return error == std::errc() && end == value.data() + value.size() && options.period >= shortestPeriod &&
               options.period <= longestPeriod;
    }
    const std::optional<demo::Misbehaviour> misbehaviour = demo::misbehaviourNamed(value);
    options.misbehaviour = misbehaviour.value_or(demo::Misbehaviour::None);
    return name == "--misbehave" && misbehaviour;
}

std::optional<Options> readOptions(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; i += 2) {
        if (!takeOption(options, argv[i], i + 1 < argc ? argv[i + 1] : "")) {
            return std::nullopt;
        }
    }
    return options.connection.empty() ? std::nullopt : std::optional(options);
}

struct IOServer {
    IOServer(quelm::ISqlConnection& database, demo::Misbehaviour misbehaviour)
        : plant(database), commands(database, plant, misbehaviour) {}
    demo::Plant plant;
    demo::CommandQueue commands;
};

// Readers see a cycle whole or not at all. Its first statement writes: there SQLite waits until other programs have
// written, while in the middle of a transaction it would refuse to.
void runCycle(quelm::ISqlConnection& database, IOServer& server) {
    database.beginTransaction();
    server.plant.cycle();
    server.commands.carryOut();
    database.execute("COMMIT", {});
}

// Raises RuntimeError when the connection string is unusable. A database that is away, at the start or later, is said
// once and waited for.
void serve(const Options& options) {
    const std::unique_ptr<quelm::ISqlConnection> database = quelm::builtInSqlDrivers().connection(options.connection);
    std::optional<IOServer> server;
    bool isAway = false;
    while (ending == 0) {
        try {
            if (!server) {
                server.emplace(*database, options.misbehaviour);
            }
            runCycle(*database, *server);
            if (std::exchange(isAway, false)) {
                fmt::print(stderr, "DemoIOServer: the database is back\n");
            }
        } catch (const quelm::RuntimeError& error) {
            // Takes back what the cycle has written.
            database->close();
            if (!std::exchange(isAway, true)) {
                fmt::print(stderr, "DemoIOServer: {}; trying again every {} ms\n", error.what(), options.period);
            }
        }
        const timespec pause{options.period / 1000, options.period % 1000 * 1000000};
        nanosleep(&pause, nullptr);
    }
}

}  // namespace

int main(int argc, char** argv) {
    const std::optional<Options> options = readOptions(argc, argv);
    if (!options) {
        fmt::print(stderr,
                   "usage: DemoIOServer --database FILE | --connection STRING\n"
                   "                    [--period MILLISECONDS] [--misbehave never-answer|broken-xml|delete-record]\n");
        return 2;
    }
    std::signal(SIGTERM, [](int) { ending = 1; });
    std::signal(SIGINT, [](int) { ending = 1; });
    try {
        serve(*options);
    } catch (const std::exception& error) {
        fmt::print(stderr, "DemoIOServer: {}\n", error.what());
        return 1;
    }
    return 0;
}
