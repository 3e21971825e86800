// One update pass of a site's items, everything included: look-ups, conversion, quality, setting the item, and the
// hand-over to the network's side. Beside it the least that such a pass could do with a plain map: find each item's
// record by its text key and copy it.

#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "CurrentData Reader/CurrentDataReader.h"
#include "OPC/OPC DA Server/SiteDataManager.h"
#include "loop/VirtualLoop.h"
#include "server/Fakes.h"
#include "slikda/SLIKServer.h"

namespace quelm {
namespace {

struct Silence final : IRaiseMsg {
    void RaiseMsg(std::int32_t, std::string_view) override {}
};

struct Database final : fakes::DBIL {
    using fakes::DBIL::DBIL;
    std::vector<ParameterValue> parameterValues;
    void ReadParameterValues(std::string_view, std::vector<ParameterValue>& out) override { out = parameterValues; }
};

constexpr std::int32_t goodMonitorCode = 40;

// A value that differs from item to item and is no whole number.
double valueOf(std::int32_t number) {
    return 20.0 + number * 0.013;
}

// The real managers and the real control's items over a database in memory.
class Site {
 public:
    Site() { manager_.Initialize(&silence_, clock_, database_, "PLANT", 1); }

    void addItem(std::int32_t number, const std::string& id) {
        const fakes::Definition definition{.id = id,
                                           .name = fmt::format("Plant.Unit{}.Item{:06}", number % 50, number)};
        manager_.CreateTag(control_.SLIKTags(), definition);
    }
    void finish() {
        manager_.FinishTagCreation();
        clock_->fire("IOSManager: read CurrentIO");
        control_.setHooks({[] {}, {}, {}, {}, {}});
        control_.StartServer();
    }
    // Up to where clients see it, and the batch's memory is back.
    void pass() {
        manager_.UpdateTagValues();
        plant_.drain();
        network_.drain();
        plant_.drain();
    }

    Database& database() { return *database_; }
    fakes::SiteSetUp& definitions() { return definitions_; }
    std::size_t goodItems() {
        std::size_t good = 0;
        for (std::size_t i = 0; i < items().Count(); ++i) {
            good += items().at(i).qualityWord() == 0xC0 ? 1 : 0;
        }
        return good;
    }

 private:
    const ItemStore& items() { return control_.network().items(); }

    Silence silence_;
    fakes::Journal journal_;
    fakes::SiteSetUp definitions_;
    std::shared_ptr<fakes::Clock> clock_ = std::make_shared<fakes::Clock>(journal_);
    std::shared_ptr<Database> database_ = std::make_shared<Database>(journal_);
    VirtualLoop plant_;
    VirtualLoop network_;
    SLIKServer control_{plant_, network_};
    SiteDataManager manager_{SiteParts{
        [this](IDBIL&, std::string_view) { return std::make_unique<fakes::DataInterface>(journal_, definitions_); },
        [] { return std::make_unique<CurrentDataReader>(); }}};
};

void run(benchmark::State& state, Site& site) {
    const auto count = static_cast<std::size_t>(state.range(0));
    site.pass();
    if (site.goodItems() != count) {
        state.SkipWithError("not every item got a good value");
        return;
    }
    for (auto _ : state) {
        site.pass();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

// Every second item has a channel for its monitor code, which it shares with others of its unit. Its number is short
// because two long channel numbers in one reference read as a parameter's.
struct ChannelsOfItem {
    std::int32_t value;
    std::int32_t code;  // 0: none
};

ChannelsOfItem channelsOf(std::int32_t number) {
    return {100'000 + number, number % 2 == 0 ? 10 + number / 2 % 90 : 0};
}

// The records stand in the order in which the database gives them, which is that of their keys as text; the items in
// the order of their channels.
void channelItems(benchmark::State& state) {
    Site site;
    std::map<std::string, Variant> records;
    std::vector<std::pair<std::int32_t, std::int32_t>> definitions;
    for (std::int32_t number = 0; number < state.range(0); ++number) {
        const ChannelsOfItem channels = channelsOf(number);
        definitions.emplace_back(channels.value, 1);
        records[fmt::format("C{}", channels.value)] = Variant(valueOf(number));
        std::string id = fmt::format("[@{}]", channels.value);
        if (channels.code != 0) {
            if (records.emplace(fmt::format("C{}", channels.code), Variant(goodMonitorCode)).second) {
                definitions.emplace_back(channels.code, 1);
            }
            id += fmt::format(";[@{}]", channels.code);
        }
        site.addItem(number, id);
    }
    std::vector<CurrentIORecord> snapshot;
    for (const auto& [key, value] : records) {
        snapshot.push_back(fakes::record(key, value, {}, localNow()));
    }
    site.database().setChannels(definitions);
    site.database().setSnapshot(std::move(snapshot));
    site.finish();
    run(state, site);
}

std::int32_t pidOf(std::int32_t number) {
    return 100000101 + number / 9801 * 100000 + number / 99 % 99 * 100 + number % 99;
}

void parameterItems(benchmark::State& state) {
    const auto count = static_cast<std::int32_t>(state.range(0));
    Site site;
    for (std::int32_t number = 0; number < count; ++number) {
        const std::int32_t pid = pidOf(number);
        const std::string digits = std::to_string(pid);
        site.definitions().intervalTypesByPID[pid] = "30M";
        ParameterValue value;
        value.PID = pid;
        value.IntervalType = "30M";
        value.Value = Variant(valueOf(number));
        value.MonitorCode = number % 2 == 0 ? Variant(goodMonitorCode) : Variant::null();
        site.database().parameterValues.push_back(std::move(value));
        site.addItem(number, fmt::format("{}-{}-{}-{}-{}", digits.substr(0, 1), digits.substr(1, 3),
                                         digits.substr(4, 1), digits.substr(5, 2), digits.substr(7, 2)));
    }
    site.finish();
    run(state, site);
}

struct Record {
    Variant value;
    std::int16_t quality = 0xC0;
    Date time;
};

template <class KeyOf>
void floorLoop(benchmark::State& state, KeyOf keyOf) {
    std::vector<std::string> keys;
    for (std::int32_t number = 0; number < state.range(0); ++number) {
        keys.push_back(keyOf(number));
    }
    std::vector<std::string> inTextOrder = keys;
    std::sort(inTextOrder.begin(), inTextOrder.end());
    std::unordered_map<std::string, Record> records;
    for (const std::string& key : inTextOrder) {
        records.emplace(key, Record{Variant(valueOf(static_cast<std::int32_t>(key.size()))), 0xC0, localNow()});
    }
    std::vector<Record> items(keys.size());
    for (auto _ : state) {
        for (std::size_t i = 0; i < keys.size(); ++i) {
            const Record& record = records.find(keys[i])->second;
            items[i].value = record.value;
            items[i].quality = record.quality;
            items[i].time = record.time;
        }
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void channelFloor(benchmark::State& state) {
    floorLoop(state, [](std::int32_t number) { return fmt::format("C{}", channelsOf(number).value); });
}

void parameterFloor(benchmark::State& state) {
    floorLoop(state, [](std::int32_t number) { return fmt::format("{}:30M", pidOf(number)); });
}

BENCHMARK(channelItems)->Arg(1'000)->Arg(10'000)->Arg(100'000)->Unit(benchmark::kMicrosecond);
BENCHMARK(channelFloor)->Arg(1'000)->Arg(10'000)->Arg(100'000)->Unit(benchmark::kMicrosecond);
BENCHMARK(parameterItems)->Arg(1'000)->Arg(10'000)->Arg(100'000)->Unit(benchmark::kMicrosecond);
BENCHMARK(parameterFloor)->Arg(1'000)->Arg(10'000)->Arg(100'000)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace quelm

BENCHMARK_MAIN();
