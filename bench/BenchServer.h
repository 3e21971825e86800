#pragma once

// A whole server of the benchmarks' own in a process of its own: items without a plant behind them, set when the
// benchmark says so. And what a process has run so far.

#include <fmt/format.h>
#include <malloc.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "OPC/Main/OpcNetwork.h"
#include "WireClient.h"
#include "base/TimeSource.h"

namespace quelm::bench {

inline constexpr std::string_view password = "bench-1";

inline constexpr std::int32_t unitCount = 50;

inline std::string itemId(std::int32_t number) {
    return fmt::format("Plant.Unit{}.Item{:06}", number % unitCount, number);
}

inline std::vector<std::string> firstItems(std::int64_t count) {
    std::vector<std::string> items;
    for (std::int32_t number = 0; number < count; ++number) {
        items.push_back(itemId(number));
    }
    return items;
}

inline int listenAnywhere(std::uint16_t& port) {
    const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    expect(::bind(listener, reinterpret_cast<sockaddr*>(&address), size) == 0 && ::listen(listener, 4) == 0 &&
               ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) == 0,
           "cannot listen");
    port = ntohs(address.sin_port);
    return listener;
}

inline std::uint16_t freePort() {
    std::uint16_t port = 0;
    ::close(listenAnywhere(port));
    return port;
}

// What all threads of a process have run so far, in seconds; or without its main thread, which is the plant's. The
// first figure of schedstat, in nanoseconds.
enum class Threads : std::uint8_t { All, WithoutMain };
inline double processorTime(pid_t process, Threads which = Threads::All) {
    double sum = 0;
    for (const auto& thread : std::filesystem::directory_iterator(fmt::format("/proc/{}/task", process))) {
        double ran = 0;
        std::ifstream(thread.path() / "schedstat") >> ran;
        const bool isMain = thread.path().filename() == std::to_string(process);
        sum += which == Threads::WithoutMain && isMain ? 0 : ran / 1e9;
    }
    expect(sum > 0, "the kernel does not tell what a thread has run");
    return sum;
}

// Runs in a process of its own until this one ends; ready() tells that clients may come.
template <class Body>
pid_t inChild(Body body) {
    int ready[2];
    expect(::pipe(ready) == 0, "no pipe");
    const pid_t child = ::fork();
    if (child == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        try {
            body([&ready] { expect(::write(ready[1], "!", 1) == 1, "nobody listens"); });
        } catch (const std::exception& error) {
            std::fprintf(stderr, "%s\n", error.what());
        }
        std::_Exit(1);
    }
    ::close(ready[1]);
    char sign = 0;
    expect(::read(ready[0], &sign, 1) == 1, "a server did not start");
    ::close(ready[0]);
    return child;
}

// Answers a device read out of the items, as the server host does.
class CacheAnswers final : public ISLIKServerEvents {
 public:
    explicit CacheAnswers(ISLIKTags& items) : items_(items) {}
    void SLIKServer1_OnClientDisconnect(std::int32_t /*lngRemainingClients*/) override {}
    void SLIKServer1_OnRead(std::int32_t /*lngCount*/, const std::vector<ISLIKRequestedItem*>& objItems,
                            std::int32_t& /*lngError*/) override {
        for (ISLIKRequestedItem* const item : objItems) {
            const ISLIKTag& tag = items_.Item(item->Name());
            item->SetVQT(tag.Value(), tag.Quality(), tag.Timestamp());
        }
    }
    void SLIKServer1_OnWrite(std::int32_t /*lngCount*/, std::int32_t& /*lngError*/) override {}

 private:
    ISLIKTags& items_;
};

class BenchServer {
 public:
    // Its process begins now, while this one is still small.
    explicit BenchServer(std::int32_t items) {
        int passes[2];
        expect(::pipe(passes) == 0, "no pipe");
        passes_ = passes[1];
        process = inChild([&](auto ready) { serve(items, passes[0], ready); });
    }
    // Sets every item to another value, in one pass. Returns at once.
    void pass() const { expect(::write(passes_, "!", 1) == 1, "the server went away"); }

    std::uint16_t activationPort = freePort();
    std::uint16_t objectPort = freePort();
    pid_t process = 0;

 private:
    template <class Ready>
    void serve(std::int32_t items, int passes, Ready ready) const {
        const auto settings = std::filesystem::temp_directory_path() / fmt::format("quelm-bench-{}.conf", ::getpid());
        std::ofstream(settings) << fmt::format(
            "[Listen]\nAddress = 127.0.0.1\nActivationPort = {}\nObjectPort = {}\n"
            "[Security]\nMinimumLevel = connect\n[Accounts]\nPLANT\\reader = password:{}\n"
            "[Callbacks]\nAccount = PLANT\\server\nSecret = password:{}\nMinimumLevel = connect\n",
            activationPort, objectPort, password, password);
        std::filesystem::permissions(settings, std::filesystem::perms::owner_read);
        ::setenv("QUELM_DCOM_CONF", settings.c_str(), 1);
        ::mallopt(M_MMAP_THRESHOLD, 1 << 20);  // as the program does
        AsioLoop loop;
        AsioLoop networkLoop;
        SLIKServer control(loop, networkLoop);
        CacheAnswers answers(control.SLIKTags());
        control.SetEvents(&answers);
        std::vector<PlantTag*> tags;
        for (std::int32_t number = 0; number < items; ++number) {
            tags.push_back(&control.SLIKTags().Add(itemId(number), 1, Variant(20.0F + static_cast<float>(number)), 0xC0,
                                                   localNow()));
        }
        const auto silence = [](std::string_view) {};
        const auto trouble = [](std::string_view line) {
            std::fprintf(stderr, "%.*s\n", static_cast<int>(line.size()), line.data());
        };
        const health::PlantHealth health(loop, networkLoop);
        OpcNetwork network(
            control, health, loop, networkLoop, {},
            {.weakened = silence, .notice = silence, .client = silence, .trouble = trouble, .failure = trouble});
        control.setHooks({[&network] { network.open(); }, {}, {}, {}, {}});
        control.StartServer();
        std::filesystem::remove(settings);
        float round = 0;
        const auto watch = loop.watch(passes, [&tags, &round, passes] {
            char sign = 0;
            expect(::read(passes, &sign, 1) == 1, "the benchmark has ended");
            const Date now = localNow();
            ++round;
            for (std::size_t i = 0; i < tags.size(); ++i) {
                tags[i]->SetVQT(Variant(round + static_cast<float>(i)), 0xC0, now);
            }
        });
        ready();
        loop.run();
    }

    int passes_ = -1;
};

}  // namespace quelm::bench
