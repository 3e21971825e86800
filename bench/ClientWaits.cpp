// How long a client waits for its cache reads, one a millisecond, at a server that runs already.
//   bench_ClientWaits ACTIVATION-PORT OBJECT-PORT SECONDS ITEM
// Prints JSON: the reads, the longest wait and the one that 99.9 % keep below, in milliseconds, each counted from the
// time at which the read was due, so that one long wait shows in all the reads that it held up; and each change of the
// item: its time stamp and the time at which it was seen, both UTC in seconds since 1970, its value and its quality.

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <thread>
#include <vector>

#include "WireClient.h"

namespace quelm::bench {
namespace {

constexpr unsigned levelIntegrity = 5;
constexpr std::chrono::milliseconds pace{1};

struct State {
    double stamp = 0;
    float value = 0;
    unsigned quality = 0;
};

// Of a reply with one item that is a single.
State stateIn(std::span<const std::uint8_t> results) {
    dcom::ndr::Reader in(results);
    in.bytes(12);  // header, referent
    in.u32();      // count
    in.u32();      // client handle
    const std::uint64_t low = in.u32();
    const std::uint64_t high = in.u32();
    State state;
    state.quality = in.u16();
    in.u16();
    in.u32();  // referent
    in.align(8);
    in.bytes(20);  // sizes and types
    state.stamp = static_cast<double>(static_cast<std::int64_t>(high << 32U | low) - 116'444'736'000'000'000) / 1e7;
    state.value = in.f32();
    expect(in.good(), "the reply is malformed");
    return state;
}

double secondsNow() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

void run(char** arguments) {
    GroupReader reader(static_cast<std::uint16_t>(std::atoi(arguments[1])),
                       static_cast<std::uint16_t>(std::atoi(arguments[2])), levelIntegrity, "bench-1", {arguments[4]});
    reader.check();
    std::vector<double> waits;
    std::string changes;
    double lastStamp = 0;
    const auto start = std::chrono::steady_clock::now();
    const auto end = start + std::chrono::seconds(std::atoi(arguments[3]));
    for (auto due = start; due < end; due += pace) {
        std::this_thread::sleep_until(due);
        const State state = stateIn(reader.read());
        waits.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - due).count());
        if (state.stamp != lastStamp) {
            changes += fmt::format("{}[{:.3f}, {:.3f}, {}, {}]", changes.empty() ? "" : ", ", state.stamp, secondsNow(),
                                   state.value, state.quality);
            lastStamp = state.stamp;
        }
    }
    std::sort(waits.begin(), waits.end());
    fmt::print("{{\"reads\": {}, \"longest\": {:.2f}, \"p999\": {:.2f}, \"changes\": [{}]}}\n", waits.size(),
               waits.back(), waits[waits.size() * 999 / 1000], changes);
}

}  // namespace
}  // namespace quelm::bench

int main(int argc, char** argv) {
    try {
        quelm::bench::expect(argc == 5, "ACTIVATION-PORT OBJECT-PORT SECONDS ITEM");
        quelm::bench::run(argv);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
