// Area 9, second part: which changes a subscription sends, and how often.

#include <algorithm>
#include <array>

#include "OPC/Client/check/Sent.h"
#include "base/Quality.h"
#include "opcda/client/Words.h"

namespace quelm::opcclient::check {

namespace changes {
namespace {

using namespace opcda::client;
using namespace std::chrono_literals;
using Kind = Called::Kind;

// In which something changes in any plant that is worth a server.
constexpr auto aLongWhile = 45s;

std::set<std::uint32_t> allOf(const Group& group) {
    std::set<std::uint32_t> all;
    for (std::size_t i = 0; i < group.items.size(); ++i) {
        all.insert(100 + static_cast<std::uint32_t>(i));
    }
    return all;
}

// Most of the server's items, so that some value changes soon.
Group manyItems(Stage& stage, std::uint32_t rate = 200) {
    return stage.groupOf(std::min<std::size_t>(stage.items().size(), 500), subscribing(true, rate));
}

void changesAlone(Stage& stage, Findings& found) {
    stage.item(1);
    const Group group = manyItems(stage);
    const auto sink = advised(stage, found, group);
    awaitHandles(stage, found, *sink, allOf(group));
    const std::size_t first = sink->calls().size();
    if (!stage.waitUntil([&] { return sink->calls().size() > first; }, aLongWhile)) {
        found.skip("nothing changed within 45 s");
    }
    const std::string repeated = repeatedBy(*sink);
    found.expect(repeated.empty(), repeated);
    for (const Called* called : sentOf(*sink, Kind::DataChange, 0)) {
        expectMasters(found, *called);
    }
}

void timeAloneIsNoChange(Stage& stage, Findings& found) {
    const Group group = manyItems(stage);
    const auto sink = advised(stage, found, group);
    stage.wait(5s);
    const std::string repeated = repeatedBy(*sink);
    found.expect(repeated.empty(), repeated);
}

void keepsRate(Stage& stage, Findings& found) {
    const Group group = manyItems(stage, 2000);
    const auto sink = advised(stage, found, group);
    stage.wait(9s);
    const auto sent = sentOf(*sink, Kind::DataChange, 0);
    for (std::size_t i = 2; i < sent.size(); ++i) {
        const std::uint64_t between = sent[i]->at - sent[i - 1]->at;
        found.expect(between >= group.rate * 3 / 4, fmt::format("{} ms between two callbacks", between));
    }
}

void disabling(Stage& stage, Findings& found) {
    const Group group = manyItems(stage);
    sayAlive(group);
    const auto io = stage.as<IOPCAsyncIO2>(group.state);
    const auto sink = advised(stage, found, group);
    awaited(stage, found, *sink, Kind::DataChange, 0);
    stage.settle();
    found.result("SetEnable(false)", io.SetEnable(false), {S_OK});
    stage.wait(500ms);
    const std::size_t before = sink->calls().size();
    stage.wait(silenceOf(group));
    found.equal("the number of callbacks", sink->calls().size(), before);
    found.result("SetEnable(true)", io.SetEnable(true), {S_OK});
    stage.wait(silenceOf(group));
    const std::string repeated = repeatedBy(*sink);
    found.expect(repeated.empty(), repeated);
}

void overflow(Stage& stage, Findings& found) {
    const auto fits = [](const KnownItem& item) { return item.value.number().value_or(0) > 40'000; };
    const KnownItem& item = stage.itemWhere(fits, "a number beyond 40,000");
    const Group group = stage.groupWith({item.id}, subscribing(true, 500), VT_I2);
    const auto sink = advised(stage, found, group);
    const Called first = awaited(stage, found, *sink, Kind::DataChange, 0);
    found.result("the master error", first.data.masterError, {S_FALSE});
    for (const auto& each : first.data.items) {
        found.expect(failed(each.error) && each.value.isEmpty(),
                     resultName(each.error) + " with " + typeName(each.value.type));
    }
    stage.wait(silenceOf(group));
    const auto sent = sentOf(*sink, Kind::DataChange, 0);
    const auto fails = std::count_if(sent.begin(), sent.end(), [](const Called* called) {
        return !called->data.items.empty() && failed(called->data.items.front().error);
    });
    found.expect(fails == 1 || sent.size() > static_cast<std::size_t>(fails), "the same failure came again");
}

// The items that came more than once, by their client handles.
std::set<std::uint32_t> changedIn(const Sink& sink) {
    std::set<std::uint32_t> seen;
    std::set<std::uint32_t> changed;
    for (const Called* called : sentOf(sink, Kind::DataChange, 0)) {
        for (const auto& item : called->data.items) {
            if (!seen.insert(item.clientHandle).second) {
                changed.insert(item.clientHandle);
            }
        }
    }
    return changed;
}

// A callback that has an item with the value that it had before and another quality.
const Called* qualityAlone(const Sink& sink) {
    std::map<std::uint32_t, const DataEvent::Item*> last;
    for (const Called* called : sentOf(sink, Kind::DataChange, 0)) {
        for (const auto& item : called->data.items) {
            const DataEvent::Item* const before = std::exchange(last[item.clientHandle], &item);
            if (before != nullptr && before->value == item.value && before->quality != item.quality) {
                return called;
            }
        }
    }
    return nullptr;
}

void qualityIsAChange(Stage& stage, Findings& found) {
    stage.item();
    const Group group = manyItems(stage);
    const auto sink = advised(stage, found, group);
    const auto io = stage.as<IOPCSyncIO>(group.state);
    awaitHandles(stage, found, *sink, allOf(group));
    if (!stage.waitUntil([&] { return qualityAlone(*sink) != nullptr; }, aLongWhile)) {
        // Silence says something only where a read shows that nothing was to be said.
        stage.wait(silenceOf(group));
        std::map<std::uint32_t, std::uint16_t> sent;
        for (const Called* called : sentOf(*sink, Kind::DataChange, 0)) {
            for (const auto& item : called->data.items) {
                sent[item.clientHandle] = item.quality;
            }
        }
        for (const ItemState& item : io.Read(Source::Cache, group.items).out.items.value_or(std::vector<ItemState>())) {
            found.expect(
                item.quality == sent[item.clientHandle],
                fmt::format("item {} has become {}, which was not sent", item.clientHandle, qualityText(item.quality)));
        }
        found.skip(fmt::format("no quality alone changed within {} s", aLongWhile.count()));
    }
    expectMasters(found, *qualityAlone(*sink));
}

// The numbers among the known items that have no range of units.
std::vector<std::string> withoutRange(Stage& stage) {
    const auto group = manyItems(stage);
    const auto list = stage.as<IOPCItemMgt>(group.state).CreateEnumerator(IEnumOPCItemAttributes::iid);
    std::vector<std::string> ids;
    if (list.out) {
        const auto all = IEnumOPCItemAttributes(*list.out).Next(static_cast<std::uint32_t>(group.items.size())).out;
        for (const ItemAttributes& each : all.value_or(std::vector<ItemAttributes>())) {
            if (each.unitsType == 0 && each.canonicalType != VT_BSTR && each.itemId) {
                ids.push_back(*each.itemId);
            }
        }
    }
    return ids;
}

void noRangeNoDeadband(Stage& stage, Findings& found) {
    GroupRequest request = subscribing(true);
    request.percentDeadband = 50.0F;
    request.clientHandle = 79;
    const auto possible = stage.opcServer().AddGroup(request, IOPCItemMgt::iid);
    if (failed(possible.result)) {
        found.result("AddGroup", possible.result, {E_INVALIDARG, OPC_E_DEADBANDNOTSUPPORTED});
        found.skip("the server takes no deadband");
    }
    const auto ids = withoutRange(stage);
    if (ids.empty()) {
        found.skip("every item has a range of units");
    }
    const Group plain = stage.groupWith(ids, subscribing(true));
    const Group banded = stage.groupWith(ids, request);
    const auto sink = advised(stage, found, plain);
    const auto second = advised(stage, found, banded);
    awaitHandles(stage, found, *sink, allOf(plain));
    awaitHandles(stage, found, *second, allOf(banded));
    if (!stage.waitUntil([&] { return !changedIn(*sink).empty(); }, aLongWhile)) {
        found.skip("nothing changed within 45 s");
    }
    const std::set<std::uint32_t> changed = changedIn(*sink);
    stage.wait(silenceOf(banded));
    const std::set<std::uint32_t> came = changedIn(*second);
    found.expect(std::includes(came.begin(), came.end(), changed.begin(), changed.end()),
                 fmt::format("{} items changed, {} of them came with a deadband", changed.size(), came.size()));
}

constexpr std::array<Case, 7> cases{{
    {119, Version::Da2, "values change", "OnDataChange with what has changed alone", changesAlone},
    {120, Version::Da2, "time stamps alone change", "no callback", timeAloneIsNoChange},
    {121, Version::Da2, "a quality alone changes", "OnDataChange; master quality S_FALSE unless all are good",
     qualityIsAChange},
    {122, Version::Da2, "update rate 2000 ms", "no two callbacks within it", keepsRate},
    {123, Version::Da2, "SetEnable(false), SetEnable(true)", "silence; then what has changed alone", disabling},
    {126, Version::Da2, "a number beyond 40,000 as VT_I2", "a failure, VT_EMPTY, once", overflow},
    {127, Version::Da2, "deadband 50 %, items without a range of units", "each change is sent all the same",
     noRangeNoDeadband},
}};

}  // namespace
}  // namespace changes

std::span<const Case> changeCases() {
    return changes::cases;
}

}  // namespace quelm::opcclient::check
