// The demo plant's I/O server: keeps the realtime database moving as real I/O servers would. It beats every second,
// completes a refresh of all data once a minute, moves the measured values, counts the counters up, and carries out
// the commands that stand in the message table.
//   DemoIOServer --database FILE [--period MILLISECONDS] [--misbehave never-answer|broken-xml|delete-record]

#include <fmt/format.h>
#include <time.h>

#include <charconv>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <optional>
#include <string>
#include <string_view>

#include "CommandQueue.h"
#include "Database.h"
#include "Plant.h"

namespace {

volatile std::sig_atomic_t ending = 0;

constexpr long shortestPeriod = 10;
constexpr long longestPeriod = 3600000;

struct Options {
    std::string database;
    long period = 1000;  // milliseconds
    demo::Misbehaviour misbehaviour = demo::Misbehaviour::None;
};

bool takeOption(Options& options, std::string_view name, std::string_view value) {
    if (name == "--database") {
        options.database = value;
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
    return options.database.empty() ? std::nullopt : std::optional(options);
}

void serve(const Options& options) {
    demo::Database database(options.database);
    demo::Plant plant(database);
    demo::CommandQueue commands(database, plant, options.misbehaviour);
    while (ending == 0) {
        {
            demo::Transaction transaction(database);
            plant.cycle();
            commands.carryOut();
            transaction.commit();
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
                   "usage: DemoIOServer --database FILE [--period MILLISECONDS]\n"
                   "                    [--misbehave never-answer|broken-xml|delete-record]\n");
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
