// How fast a server answers: the same items read from its cache again and again, by one client, one call at a time.

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <utility>

#include "OPC/Client/Commands.h"
#include "OPC/Client/ValueForms.h"
#include "opcda/client/ItemGroup.h"

namespace quelm::opcclient {

using namespace opcda::client;
using std::chrono::steady_clock;

namespace {

constexpr std::uint32_t standardSeconds = 5;
// Above 10 minutes at 10,000 calls a second; later calls are counted, not kept.
constexpr std::size_t mostTimes = 10'000'000;

// Microseconds, of sorted times.
double percentile(const std::vector<std::int64_t>& sorted, double part) {
    const auto at = static_cast<std::size_t>(part * static_cast<double>(sorted.size()));
    return static_cast<double>(sorted[std::min(at, sorted.size() - 1)]) / 1000;
}

void addLatencies(Answer& answer, std::vector<std::int64_t> times) {
    std::sort(times.begin(), times.end());
    constexpr std::array<std::pair<const char*, double>, 4> parts{
        {{"p50", 0.5}, {"p90", 0.9}, {"p99", 0.99}, {"p999", 0.999}}};
    Json latencies = Json::object();
    for (const auto& [name, part] : parts) {
        latencies[name] = percentile(times, part);
    }
    latencies["max"] = percentile(times, 1.0);
    std::string line = "microseconds a read:";
    for (const auto& [name, value] : latencies.items()) {
        line += fmt::format("  {} {:.0f}", name, value.get<double>());
    }
    answer.lines.push_back(line);
    answer.facts["latencyMicroseconds"] = std::move(latencies);
}

}  // namespace

Answer bench(Connection& connection, Screen& screen, const Options& options) {
    const std::chrono::seconds limit(options.seconds == 0 ? standardSeconds : options.seconds);
    const ItemGroup group(connection.opc(), options.items, options.rate, true);
    std::vector<std::int64_t> times;
    std::size_t reads = 0;
    std::size_t failures = 0;
    const auto began = steady_clock::now();
    auto now = began;
    while (now - began < limit) {
        const std::vector<ItemValue> values = group.read(fromCache);
        const auto before = std::exchange(now, steady_clock::now());
        if (times.size() < mostTimes) {
            times.push_back(std::chrono::nanoseconds(now - before).count());
        }
        failures += static_cast<std::size_t>(
            std::count_if(values.begin(), values.end(), [](const ItemValue& item) { return failed(item.result); }));
        ++reads;
        if (reads % 1000 == 0) {
            screen.progress(fmt::format("{} reads", reads));
        }
    }
    const double seconds = std::chrono::duration<double>(now - began).count();
    Answer answer;
    answer.facts = {{"items", options.items.size()},
                    {"seconds", seconds},
                    {"reads", reads},
                    {"readsPerSecond", static_cast<double>(reads) / seconds},
                    {"valuesPerSecond", static_cast<double>(reads * options.items.size()) / seconds},
                    {"failedValues", failures}};
    answer.lines.push_back(fmt::format("{} reads of {} items in {:.1f} s: {:.0f} reads, {:.0f} values a second", reads,
                                       options.items.size(), seconds, static_cast<double>(reads) / seconds,
                                       static_cast<double>(reads * options.items.size()) / seconds));
    if (failures > 0) {
        answer.lines.push_back(fmt::format("{} values failed", failures));
        answer.code = ExitCode::ItemFailed;
    }
    addLatencies(answer, std::move(times));
    return answer;
}

}  // namespace quelm::opcclient
