// How fast a client learns of all items with type, value, quality, time stamp, rights and rate: by IOPCBrowse in
// portions with the properties in them, and by flat browsing with a call for the properties of each item. Prints JSON.
//   bench_Browsing

#include <fmt/ranges.h>

#include <algorithm>
#include <chrono>
#include <functional>

#include "BenchServer.h"

namespace quelm::bench {
namespace {

constexpr std::int32_t itemCount = 100'000;
constexpr std::uint32_t portion = 1'000;
constexpr int rounds = 3;

void putIds(dcom::ndr::Writer& out) {
    constexpr std::uint32_t count = 6;
    out.u32(count);
    out.u32(count);
    for (std::uint32_t id = 1; id <= count; ++id) {
        out.u32(id);
    }
}

void checkResult(const Bytes& results, std::uint32_t result) {
    expect(results.size() >= 4, "a reply is too short");
    dcom::ndr::Reader end{std::span<const std::uint8_t>(results).last(4)};
    expect(end.u32() == result, "a call failed");
}

class BrowsingClient : private OpcClient {
 public:
    BrowsingClient(const BenchServer& server, unsigned level)
        : OpcClient(server.activationPort, server.objectPort, level, password),
          browse_(serverInterface(opcda::wire::iidOpcBrowse)),
          flat_(serverInterface(opcda::wire::iidOpcBrowseServerAddressSpace)),
          properties_(serverInterface(opcda::wire::iidOpcItemProperties)) {}
    using OpcClient::leave;

    // Items found.
    std::int32_t inPortions() {
        std::int32_t found = 0;
        for (std::int32_t unit = 0; unit < unitCount; ++unit) {
            std::string point;
            do {
                found += nextPortion(fmt::format("Plant.Unit{}", unit), point);
            } while (!point.empty());
        }
        return found;
    }

    std::int32_t oneByOne() {
        Call all;
        all.out.u16(3);  // flat
        all.out.wideString("");
        all.out.u16(0);
        all.out.u32(0);
        const Bytes browsed = connection_.call(browse, 5, &flat_, all.bytes);
        checkResult(browsed, 0);
        dcom::ndr::Reader in(browsed);
        in.bytes(8);
        const Uuid names = readReference(in);
        std::int32_t found = 0;
        for (std::uint32_t fetched = portion; fetched == portion;) {
            Call next;
            next.out.u32(portion);
            const Bytes some = connection_.call(enumString, 3, &names, next.bytes);
            dcom::ndr::Reader end{std::span<const std::uint8_t>(some).last(8)};
            fetched = end.u32();
            for (std::uint32_t i = 0; i < fetched; ++i) {
                askProperties(itemId(found++));
            }
        }
        return found;
    }

 private:
    std::int32_t nextPortion(const std::string& branch, std::string& point) {
        Call call;
        call.out.wideString(branch);
        call.out.pointer();
        call.out.wideString(point);
        call.out.u32(portion);
        call.out.u16(1);  // branches and items
        call.out.wideString("");
        call.out.wideString("");
        call.out.u32(0);
        call.out.u32(1);  // with values
        putIds(call.out);
        const Bytes results = connection_.call(browse3, 4, &browse_, call.bytes);
        checkResult(results, 0);
        dcom::ndr::Reader in(results);
        in.bytes(12);  // header, referent
        point = in.wideString();
        in.u32();
        return static_cast<std::int32_t>(in.u32());
    }

    void askProperties(const std::string& item) {
        Call call;
        call.out.wideString(item);
        putIds(call.out);
        checkResult(connection_.call(itemProperties, 4, &properties_, call.bytes), 0);
    }

    Uuid browse_, flat_, properties_;
};

// Items a second, and microseconds that the server's threads have run for each; the best of the rounds.
struct Speed {
    double items = 0;
    double processor = 1e9;

    void take(const BenchServer& server, const std::function<std::int32_t()>& browse) {
        const double before = processorTime(server.process);
        const auto began = std::chrono::steady_clock::now();
        expect(browse() == itemCount, "items are missing");
        const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - began;
        items = std::max(items, itemCount / taken.count());
        processor = std::min(processor, (processorTime(server.process) - before) * 1e6 / itemCount);
    }
    std::string json() const { return fmt::format("{{\"items\": {:.0f}, \"processor\": {:.3f}}}", items, processor); }
};

void run() {
    const BenchServer server(itemCount);
    std::vector<std::string> parts;
    for (const unsigned level : {2U, 5U, 6U}) {
        BrowsingClient client(server, level);
        Speed portions;
        Speed single;
        for (int i = 0; i < rounds; ++i) {
            portions.take(server, [&client] { return client.inPortions(); });
            single.take(server, [&client] { return client.oneByOne(); });
        }
        parts.push_back(
            fmt::format("{{\"level\": {}, \"portions\": {}, \"single\": {}}}", level, portions.json(), single.json()));
        client.leave();
    }
    fmt::print("{{\"browsing\": [{}]}}\n", fmt::join(parts, ",\n "));
}

}  // namespace
}  // namespace quelm::bench

int main() {
    try {
        quelm::bench::run();
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
