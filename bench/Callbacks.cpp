// What it costs to call clients back: the server's own processor time for one callback, beside that of a cache read of
// as many items; how soon a whole pass is with ten subscribers; what a reading client waits while two hundred others
// are called back; and what memory a subscribed item takes. Prints JSON.
//   bench_Callbacks [cost|pass|waits]...     all of them unless some are named

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <deque>
#include <exception>
#include <string>
#include <thread>
#include <vector>

#include "BenchServer.h"
#include "SinkHost.h"

namespace quelm::bench {
namespace {

using std::chrono::steady_clock;

constexpr std::int32_t itemCount = 100'000;
constexpr unsigned levelConnect = 2;
constexpr unsigned levelIntegrity = 5;
constexpr unsigned levelPrivacy = 6;
constexpr std::uint32_t fastestRate = 100;
constexpr int rounds = 7;

// Clients of hosts of their own.
std::uint32_t hostNumber(std::uint32_t number) {
    return INADDR_LOOPBACK + (1U << 8U) + number;
}

std::vector<std::string> itemsFrom(std::size_t first, std::size_t count) {
    std::vector<std::string> items;
    for (std::size_t i = first; i < first + count; ++i) {
        items.push_back(itemId(static_cast<std::int32_t>(i % itemCount)));
    }
    return items;
}

// The fewest seconds that the network's thread has run for one of them, of several rounds.
template <class Prepare, class Round>
double best(const BenchServer& server, Prepare prepare, Round round) {
    double least = 1e9;
    for (int i = 0; i < rounds; ++i) {
        prepare();
        std::this_thread::sleep_for(std::chrono::milliseconds(2 * fastestRate));
        const double before = processorTime(server.process, Threads::WithoutMain);
        const double count = round();
        least = std::min(least, (processorTime(server.process, Threads::WithoutMain) - before) / count);
    }
    return least;
}

// What a client held may be held a while longer: the next one comes from another host.
std::uint32_t nextHost() {
    static std::uint32_t number = 1'000;
    return hostNumber(++number);
}

std::size_t groupsOf(std::size_t items) {
    return std::min<std::size_t>(1'000, itemCount / items);
}

// One subscriber, whose groups of so many items all change: what one callback costs, its share of the pass included.
double callbackCost(const BenchServer& server, unsigned level, std::size_t items) {
    SinkHost sinks(level, password);
    OpcClient client(server.activationPort, server.objectPort, levelConnect, password, nextHost());
    const std::size_t groups = groupsOf(items);
    for (std::uint32_t i = 0; i < groups; ++i) {
        const std::string name = fmt::format("Group{}", i);
        client.addGroup(name, fastestRate, itemsFrom(i * items, items));
        client.advise(name, sinks.sink(i));
    }
    expect(sinks.awaitItems(groups * items), "the first values did not come");
    const double least = best(
        server, [&sinks] { sinks.forget(); },
        [&] {
            server.pass();
            expect(sinks.awaitItems(groups * items), "values did not come");
            return static_cast<double>(sinks.callbacks());
        });
    client.leave();
    return least;
}

// The same groups, each read once after each pass.
double readCost(const BenchServer& server, unsigned level, std::size_t items) {
    GroupReader reader(server.activationPort, server.objectPort, level, password, itemsFrom(0, items), nextHost());
    reader.check();
    const std::size_t groups = groupsOf(items);
    for (std::size_t i = 1; i < groups; ++i) {
        reader.add(itemsFrom(i * items, items));
    }
    std::vector<Bytes> requests(groups);
    const double least = best(
        server,
        [&] {
            server.pass();
            for (std::size_t i = 0; i < groups; ++i) {
                requests[i] = reader.encodeRead(i);
            }
        },
        [&] {
            for (const Bytes& request : requests) {
                reader.exchange(request);
            }
            return static_cast<double>(groups);
        });
    reader.leave();
    return least;
}

std::string costs(const BenchServer& server) {
    std::string result;
    for (const std::size_t items : {1, 100, 1'000, 10'000}) {
        for (const unsigned level : {levelConnect, levelIntegrity, levelPrivacy}) {
            result += fmt::format("{}{{\"items\": {}, \"level\": {}, \"callback\": {:.9f}, \"read\": {:.9f}}}",
                                  result.empty() ? "" : ", ", items, level, callbackCost(server, level, items),
                                  readCost(server, level, items));
        }
    }
    return fmt::format("\"costs\": [{}]", result);
}

double residentBytes(pid_t process) {
    double pages = 0;
    std::ifstream(fmt::format("/proc/{}/statm", process)) >> pages >> pages;
    return pages * static_cast<double>(::sysconf(_SC_PAGESIZE));
}

// All items to each of ten subscribers: seconds until the last one has them, and bytes for each subscribed item.
std::string wholePass(const BenchServer& server) {
    constexpr std::uint32_t subscribers = 10;
    SinkHost sinks(levelIntegrity, password);
    std::deque<OpcClient> clients;
    for (std::uint32_t i = 0; i < subscribers; ++i) {
        clients.emplace_back(server.activationPort, server.objectPort, levelConnect, password, hostNumber(i))
            .addGroup("All", fastestRate, itemsFrom(0, itemCount));
    }
    // What all subscriptions share is there with the first of them.
    constexpr std::uint64_t all = std::uint64_t{subscribers} * itemCount;
    double first = 0;
    for (std::uint32_t i = 0; i < subscribers; ++i) {
        clients[i].advise("All", sinks.sink(0, i));
        expect(sinks.awaitItems(std::uint64_t{i + 1} * itemCount), "the first values did not come");
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        first = i == 0 ? residentBytes(server.process) : first;
    }
    const double bytes = (residentBytes(server.process) - first) / (all - itemCount);
    double least = 1e9;
    for (int i = 0; i < rounds; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2 * fastestRate));
        sinks.forget();
        const auto start = steady_clock::now();
        server.pass();
        expect(sinks.awaitItems(all), "values did not come");
        least = std::min(least, std::chrono::duration<double>(sinks.latest() - start).count());
    }
    std::for_each(clients.begin(), clients.end(), [](OpcClient& client) { client.leave(); });
    return fmt::format("\"pass\": {:.4f}, \"bytes\": {:.1f}", least, bytes);
}

// One read a millisecond for so long: the longest wait and the one that 99.9 % keep below, in milliseconds, each from
// the time at which the read was due.
std::string readerWaits(GroupReader& reader, std::chrono::seconds period, const std::function<void()>& eachSecond) {
    std::vector<double> waits;
    const auto start = steady_clock::now();
    auto second = start;
    for (auto due = start; due < start + period; due += std::chrono::milliseconds(1)) {
        std::this_thread::sleep_until(due);
        if (due >= second) {
            eachSecond();
            second += std::chrono::seconds(1);
        }
        reader.read();
        waits.push_back(std::chrono::duration<double, std::milli>(steady_clock::now() - due).count());
    }
    std::sort(waits.begin(), waits.end());
    return fmt::format("{{\"longest\": {:.2f}, \"p999\": {:.2f}}}", waits.back(), waits[waits.size() * 999 / 1000]);
}

// Beside 200 clients with 100 groups of ten items each, all of which change once a second.
std::string waits(const BenchServer& server) {
    constexpr std::uint32_t clientCount = 200;
    constexpr std::uint32_t groups = 100;
    constexpr std::size_t items = 10;
    constexpr std::chrono::seconds period{20};
    GroupReader reader(server.activationPort, server.objectPort, levelIntegrity, password, itemsFrom(0, 1));
    const std::string idle = readerWaits(reader, period, [] {});
    SinkHost sinks(levelIntegrity, password);
    std::deque<OpcClient> clients;
    for (std::uint32_t i = 0; i < clientCount; ++i) {
        clients.emplace_back(server.activationPort, server.objectPort, levelConnect, password, hostNumber(i));
        for (std::uint32_t group = 0; group < groups; ++group) {
            const std::string name = fmt::format("Group{}", group);
            clients.back().addGroup(name, 500, itemsFrom((i * groups + group) * items, items));
            clients.back().advise(name, sinks.sink(group, i));
        }
    }
    constexpr std::uint64_t all = std::uint64_t{clientCount} * groups * items;
    expect(sinks.awaitItems(all), "the first values did not come");
    sinks.forget();
    const std::string busy = readerWaits(reader, period, [&server] { server.pass(); });
    expect(sinks.awaitItems(all * static_cast<std::uint64_t>(period.count()) / 2), "most values did not come");
    std::for_each(clients.begin(), clients.end(), [](OpcClient& client) { client.leave(); });
    return fmt::format("\"waits\": {{\"idle\": {}, \"busy\": {}, \"items\": {}}}", idle, busy, sinks.items());
}

void run(const std::vector<std::string>& wanted) {
    const BenchServer server(itemCount);
    std::vector<std::string> parts;
    const auto part = [&](const char* name, auto measure) {
        if (wanted.empty() || std::find(wanted.begin(), wanted.end(), name) != wanted.end()) {
            parts.push_back(measure(server));
        }
    };
    part("cost", costs);
    part("pass", wholePass);
    part("waits", waits);
    fmt::print("{{{}}}\n", fmt::join(parts, ",\n "));
}

}  // namespace
}  // namespace quelm::bench

int main(int argc, char** argv) {
    try {
        quelm::bench::run({argv + 1, argv + argc});
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
