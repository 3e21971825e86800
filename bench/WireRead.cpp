// A cache read as a client sees it: the whole way through sockets, log-on, protection, decoding, items, encoding and
// back. Beside it the least that any server could need: 64 bytes there and back between two blocking sockets.
//
// The client's view moves with the time that an idle core takes to wake up. What the server's own threads have run for
// a call does not, so that it stands beside it: counter "processor", in seconds a call. Its floor at the protected
// levels is that of the level connect and what the cipher library alone takes for the same bytes.

#include <benchmark/benchmark.h>
#include <openssl/md5.h>
#include <openssl/rc4.h>

#include <ctime>
#include <optional>

#include "BenchServer.h"

namespace quelm::bench {
namespace {

constexpr std::int32_t itemCount = 10'000;
constexpr std::size_t pingSize = 64;

std::optional<BenchServer> server;
std::uint16_t pingPort = 0;
pid_t pingProcess = 0;

void startPings() {
    const int listener = listenAnywhere(pingPort);
    pingProcess = inChild([listener](auto ready) {
        ready();
        for (;;) {
            const int client = ::accept(listener, nullptr, nullptr);
            const int on = 1;
            ::setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            char ping[pingSize];
            while (::recv(client, ping, sizeof ping, MSG_WAITALL) == static_cast<ssize_t>(sizeof ping) &&
                   ::send(client, ping, sizeof ping, MSG_NOSIGNAL) == static_cast<ssize_t>(sizeof ping)) {
            }
            ::close(client);
        }
    });
}

// encode(reader): the request. Arguments: items in a call, authentication level.
template <class Encode>
void measureReads(benchmark::State& state, Encode encode) {
    const auto level = static_cast<unsigned>(state.range(1));
    GroupReader reader(server->activationPort, server->objectPort, level, password, firstItems(state.range(0)));
    reader.check();
    // A protected request is good for one sending only; they are made in advance, off the clock.
    const std::size_t prepared =
        level < 5 ? 1 : std::min<std::size_t>(1'000, 2'000'000 / static_cast<std::size_t>(state.range(0)));
    std::vector<Bytes> requests;
    std::size_t next = 0;
    const double before = processorTime(server->process);
    for (auto _ : state) {
        if (next == requests.size()) {
            state.PauseTiming();
            requests.clear();
            for (std::size_t i = 0; i < prepared; ++i) {
                requests.push_back(encode(reader));
            }
            next = 0;
            state.ResumeTiming();
        }
        benchmark::DoNotOptimize(reader.exchange(requests[next]).data());
        next = level < 5 ? 0 : next + 1;
    }
    state.counters["processor"] = (processorTime(server->process) - before) / static_cast<double>(state.iterations());
    // Prepared requests that were not sent leave the signatures' count ahead, but the connection ends here anyway.
    state.SetItemsProcessed(state.iterations() * state.range(0));
    state.counters["calls"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

void cacheRead(benchmark::State& state) {
    measureReads(state, [](GroupReader& reader) { return reader.encodeRead(); });
}

// With a maximum age that every value meets.
void maxAgeRead(benchmark::State& state) {
    constexpr std::uint32_t day = 86'400'000;
    measureReads(state, [](GroupReader& reader) { return reader.encodeReadMaxAge(day); });
}

// What the cipher library takes for these PDUs: HMAC-MD5 over all but the signature, RC4 over the checksum and, sealed,
// over the stub.
void protectionAlone(std::span<std::uint8_t> pdus, std::size_t headerSize, bool sealed, const MD5_CTX& key,
                     RC4_KEY& cipher) {
    while (!pdus.empty()) {
        const std::span<std::uint8_t> pdu = pdus.first(pdus[8] + 256U * pdus[9]);
        const std::size_t covered = pdu.size() - dcom::ntlm::ServerContext::signatureSize;
        if (sealed) {
            std::uint8_t* const stub = pdu.data() + headerSize;
            RC4(&cipher, covered - headerSize - rpc::trailerSize, stub, stub);
        }
        std::uint8_t checksum[MD5_DIGEST_LENGTH] = {};
        MD5_CTX context = key;
        MD5_Update(&context, checksum, 4);
        MD5_Update(&context, pdu.data(), covered);
        MD5_Final(checksum, &context);
        context = key;
        MD5_Update(&context, checksum, sizeof checksum);
        MD5_Final(checksum, &context);
        RC4(&cipher, 8, checksum, pdu.data() + covered);
        pdus = pdus.subspan(pdu.size());
    }
}

// Arguments as above.
void protection(benchmark::State& state) {
    const auto level = static_cast<unsigned>(state.range(1));
    GroupReader reader(server->activationPort, server->objectPort, level, password, firstItems(state.range(0)));
    Bytes request = reader.encodeRead();
    const auto sent = reader.exchange(request);
    Bytes reply(sent.begin(), sent.end());
    const std::uint8_t block[MD5_CBLOCK] = {};
    MD5_CTX key;
    MD5_Init(&key);
    MD5_Update(&key, block, sizeof block);
    RC4_KEY cipher;
    RC4_set_key(&cipher, MD5_DIGEST_LENGTH, block);
    const std::clock_t before = std::clock();
    for (auto _ : state) {
        protectionAlone(request, rpc::callHeaderSize + 16, level == 6, key, cipher);
        protectionAlone(reply, rpc::callHeaderSize, level == 6, key, cipher);
    }
    state.counters["processor"] =
        static_cast<double>(std::clock() - before) / CLOCKS_PER_SEC / static_cast<double>(state.iterations());
}

void pingPong(benchmark::State& state) {
    const Socket socket(pingPort);
    std::uint8_t ping[pingSize] = {};
    const double before = processorTime(pingProcess);
    for (auto _ : state) {
        socket.send(ping);
        std::size_t received = 0;
        while (received < pingSize) {
            received += socket.receive(std::span(ping).subspan(received));
        }
    }
    state.counters["processor"] = (processorTime(pingProcess) - before) / static_cast<double>(state.iterations());
    state.counters["calls"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

BENCHMARK(pingPong)->UseRealTime();
BENCHMARK(protection)->ArgsProduct({{1, 100, 1'000, 10'000}, {5, 6}})->ArgNames({"items", "level"});
BENCHMARK(cacheRead)->ArgsProduct({{1, 100, 1'000, 10'000}, {2, 5, 6}})->ArgNames({"items", "level"})->UseRealTime();
BENCHMARK(maxAgeRead)->ArgsProduct({{1, 100, 1'000, 10'000}, {2}})->ArgNames({"items", "level"})->UseRealTime();

}  // namespace
}  // namespace quelm::bench

int main(int argc, char** argv) {
    // The children come first, while this process is still small.
    quelm::bench::startPings();
    quelm::bench::server.emplace(quelm::bench::itemCount);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
