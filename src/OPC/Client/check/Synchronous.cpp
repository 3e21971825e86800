// Area 7: reads and writes that are answered at once.

#include <algorithm>
#include <array>
#include <cmath>

#include "OPC/Client/check/Stage.h"
#include "base/Quality.h"
#include "base/TimeSource.h"
#include "opcda/client/Words.h"

namespace quelm::opcclient::check {

namespace synchronous {
namespace {

using namespace opcda::client;

constexpr std::int64_t clockTolerance = 600'000'000;  // a minute in 100-nanosecond units

Reply<ItemStates> readAll(Stage& stage, const Group& group, Source source) {
    return stage.as<IOPCSyncIO>(group.state).Read(source, group.items);
}

// The one item's state, from a read that must go well.
ItemState readOne(Stage& stage, Findings& found, const Group& group, Source source) {
    const auto reply = readAll(stage, group, source);
    found.result("Read", reply.result, {S_OK});
    found.need(reply.out.items && reply.out.items->size() == 1, "there is no value");
    return reply.out.items->front();
}

void wellFormed(Findings& found, const ItemState& state) {
    found.expect(state.fileTime > 0, "there is no time stamp");
    // The server's clock may differ from this machine's; a time zone's difference is no clock's.
    found.expect(state.fileTime - timeSource().fileTimeNow() < clockTolerance,
                 "the time stamp is in the future: " + fileTimeText(state.fileTime));
}

void fromCache(Stage& stage, Findings& found) {
    wellFormed(found, readOne(stage, found, stage.groupOf(1), Source::Cache));
}

void fromDevice(Stage& stage, Findings& found) {
    const Group group = stage.groupOf(1);
    const ItemState cached = readOne(stage, found, group, Source::Cache);
    const ItemState device = readOne(stage, found, group, Source::Device);
    wellFormed(found, device);
    found.expect(device.fileTime >= cached.fileTime || quality::isBad(cached.quality),
                 "its time is before the cache's");
}

GroupRequest inactive() {
    GroupRequest request;
    request.active = false;
    return request;
}

void inactiveGroupCache(Stage& stage, Findings& found) {
    const ItemState state = readOne(stage, found, stage.groupOf(1, inactive()), Source::Cache);
    found.equal("the quality", qualityText(state.quality), qualityText(quality::badOutOfService));
}

void inactiveItemCache(Stage& stage, Findings& found) {
    const Group group = stage.groupOf(1);
    stage.as<IOPCItemMgt>(group.state).SetActiveState(group.items, false);
    const ItemState state = readOne(stage, found, group, Source::Cache);
    found.equal("the quality", qualityText(state.quality), qualityText(quality::badOutOfService));
}

void inactiveGroupDevice(Stage& stage, Findings& found) {
    const ItemState state = readOne(stage, found, stage.groupOf(1, inactive()), Source::Device);
    found.expect(state.quality != quality::badOutOfService, "the quality is out of service");
}

void wrongHandle(Stage& stage, Findings& found) {
    const Group group = stage.groupOf(2);
    const std::array handles{group.items[0], ~group.items[0], group.items[1]};
    const auto reply = stage.as<IOPCSyncIO>(group.state).Read(Source::Cache, handles);
    found.codes("Read", reply.result, reply.out.errors, {{S_OK}, {OPC_E_INVALIDHANDLE}, {S_OK}});
    found.need(reply.out.items && reply.out.items->size() == 3, "there are no three values");
    found.expect(reply.out.items->at(1).value.isEmpty(), "the wrong handle has a value");
}

void order(Stage& stage, Findings& found) {
    const Group group = stage.groupOf(2);
    const std::array handles{group.items[1], group.items[0], group.items[1]};
    const auto reply = stage.as<IOPCSyncIO>(group.state).Read(Source::Cache, handles);
    found.need(reply.out.items && reply.out.items->size() == 3, "Read: " + resultName(reply.result));
    const auto& items = *reply.out.items;
    found.expect(items[0].clientHandle == 101 && items[1].clientHandle == 100 && items[2].clientHandle == 101,
                 "the items come in another order");
}

bool isReal(const KnownItem& item) {
    return (item.type == VT_R8 || item.type == VT_R4) && item.value.number().has_value() &&
           !quality::isBad(item.quality);
}

// A known item by another type.
ItemState readAs(Stage& stage, Findings& found, const KnownItem& item, VarType type) {
    const Group group = stage.groupWith({item.id}, {}, type);
    return readOne(stage, found, group, Source::Device);
}

void asText(Stage& stage, Findings& found) {
    const KnownItem& item = stage.itemWhere(isReal, "a number with a good value");
    const ItemState state = readAs(stage, found, item, VT_BSTR);
    found.expect(state.value.type == VT_BSTR, "it comes as " + typeName(state.value.type));
    // A comma may be the locale's.
    std::string text = textOf(state.value);
    std::replace(text.begin(), text.end(), ',', '.');
    const auto read = Value::parse(VT_R8, text);
    found.expect(read && std::abs(*read->number() - *item.value.number()) <= std::abs(*item.value.number()) * 0.5 + 1,
                 "the text does not read as the number: " + text);
}

void overflow(Stage& stage, Findings& found) {
    const auto fits = [](const KnownItem& item) {
        const auto number = item.value.number();
        return number && std::abs(*number) > 40'000 && item.type != VT_BOOL && item.type != VT_DATE &&
               !item.value.isArray() && !quality::isBad(item.quality);
    };
    const Group group = stage.groupWith({stage.itemWhere(fits, "beyond 40,000, with a good value").id}, {}, VT_I2);
    const auto reply = readAll(stage, group, Source::Device);
    found.codes("Read", reply.result, reply.out.errors, {{DISP_E_OVERFLOW}});
    found.expect(reply.out.items && reply.out.items->size() == 1 && reply.out.items->front().value.isEmpty(),
                 "a value came with the failure");
}

void rounding(Stage& stage, Findings& found) {
    const auto fits = [](const KnownItem& item) {
        const double part = isReal(item) ? std::abs(*item.value.number() - std::round(*item.value.number())) : 0;
        return part > 0.1 && part < 0.45 && std::abs(*item.value.number()) < 1e9;
    };
    const KnownItem& item = stage.itemWhere(fits, "a number with a fraction");
    const ItemState state = readAs(stage, found, item, VT_I4);
    const double number = state.value.number().value_or(std::nan(""));
    // The item may have moved a little meanwhile; cutting off would always be below.
    found.expect(state.value.type == VT_I4 && std::abs(number - *item.value.number()) <= 0.5 + std::abs(number) * 0.1,
                 fmt::format("{} comes as {}", *item.value.number(), textOf(state.value)));
}

void booleans(Stage& stage, Findings& found) {
    const auto fits = [](const KnownItem& item) { return item.type == VT_BOOL && item.value.number() == 1.0; };
    const KnownItem& item = stage.itemWhere(fits, "a BOOL that is true");
    for (const Value& expected :
         {Value::integer(VT_I4, -1), Value::integer(VT_UI1, 255), Value::integer(VT_BOOL, -1)}) {
        const Value came = readAs(stage, found, item, expected.type).value;
        found.expect(came == expected, fmt::format("as {} it is {}", typeName(expected.type), textOf(came)));
    }
}

void textAsNumber(Stage& stage, Findings& found) {
    const auto fits = [](const KnownItem& item) {
        return item.type == VT_BSTR && !textOf(item.value).empty() && !Value::parse(VT_R8, textOf(item.value));
    };
    const KnownItem& item = stage.itemWhere(fits, "a text that is no number");
    const Group group = stage.group();
    const ItemDefinition definition{item.id, "", true, 100, VT_R8, {}};
    const auto added = stage.as<IOPCItemMgt>(group.state).AddItems(std::array{definition});
    if (added.result != S_OK || !added.out.items) {
        found.codes("AddItems", added.result, added.out.errors, {{OPC_E_BADTYPE, DISP_E_TYPEMISMATCH}});
        return;
    }
    const std::array handle{added.out.items->front().serverHandle};
    const auto reply = stage.as<IOPCSyncIO>(group.state).Read(Source::Device, handle);
    found.codes("Read", reply.result, reply.out.errors, {{DISP_E_TYPEMISMATCH}});
    found.expect(reply.out.items && reply.out.items->front().value.isEmpty(), "a value came with the failure");
}

void badItem(Stage& stage, Findings& found) {
    const KnownItem& item =
        stage.itemWhere([](const KnownItem& each) { return quality::isBad(each.quality); }, "of bad quality");
    const auto reply = readAll(stage, stage.groupWith({item.id}), Source::Cache);
    found.need(reply.out.errors && reply.out.errors->size() == 1 && reply.out.items,
               "Read: " + resultName(reply.result));
    found.expect(!failed(reply.out.errors->front()), "the item's code is " + resultName(reply.out.errors->front()));
    found.expect(quality::isBad(reply.out.items->front().quality), "it is not bad any more");
}

// What the user has allowed to be written to; it must turn out not to be.
const KnownItem& readOnlyItem(Stage& stage, Findings& found) {
    const KnownItem& item = stage.item();
    if ((item.rights & 2U) != 0) {
        found.skip(item.id + " may be written to");
    }
    return item;
}

void refusesWrite(Stage& stage, Findings& found) {
    const Group group = stage.groupWith({readOnlyItem(stage, found).id});
    const ItemState before = readOne(stage, found, group, Source::Device);
    const auto io = stage.as<IOPCSyncIO>(group.state);
    const auto reply = io.Write(group.items, std::array{Value::integer(VT_I4, 1)});
    found.codes("Write", reply.result, reply.out, {{OPC_E_BADRIGHTS, E_FAIL}});
    if (reply.out && reply.out->size() == 1 && reply.out->front() == E_FAIL) {
        found.tolerate("E_FAIL, which says less than OPC_E_BADRIGHTS");
    }
    const ItemState after = readOne(stage, found, group, Source::Device);
    found.expect(before.value == after.value || after.fileTime > before.fileTime, "the value has changed");
}

void refusesWrites(Stage& stage, Findings& found) {
    const Group group = stage.groupWith({readOnlyItem(stage, found).id});
    const std::array handles{group.items[0], ~group.items[0]};
    const std::array values{Value::integer(VT_I4, 1), Value::integer(VT_I4, 1)};
    const auto reply = stage.as<IOPCSyncIO>(group.state).Write(handles, values);
    found.codes("Write", reply.result, reply.out, {{OPC_E_BADRIGHTS, E_FAIL}, {OPC_E_INVALIDHANDLE}});
}

void refusesVqt(Stage& stage, Findings& found) {
    const KnownItem& item = readOnlyItem(stage, found);
    const Group group = stage.groupWith({item.id});
    const auto group2 = stage.asOffered<IOPCSyncIO2>(group.state);
    const auto itemIo = stage.asOffered<IOPCItemIO>(stage.server());
    const std::array ids{item.id};
    const Value one = Value::integer(VT_I4, 1);
    for (const ValueToWrite& value : {ValueToWrite{one, {}, {}}, ValueToWrite{{}, quality::good, {}},
                                      ValueToWrite{{}, {}, timeSource().fileTimeNow()}}) {
        const auto first = group2.WriteVQT(group.items, std::array{value});
        found.codes("IOPCSyncIO2::WriteVQT", first.result, first.out, {{OPC_E_BADRIGHTS, OPC_E_NOTSUPPORTED, E_FAIL}});
        const auto second = itemIo.WriteVQT(ids, std::array{value});
        found.codes("IOPCItemIO::WriteVQT", second.result, second.out, {{OPC_E_BADRIGHTS, OPC_E_NOTSUPPORTED, E_FAIL}});
    }
}

constexpr std::array<Case, 16> cases{{
    {73, Version::Da2, "Read(cache)", "S_OK; a time stamp in UTC, not in the future", fromCache},
    {74, Version::Da2, "Read(device)", "S_OK; not older than the cache", fromDevice},
    {75, Version::Da2, "inactive group: Read(cache)", "S_OK; out of service", inactiveGroupCache},
    {76, Version::Da2, "inactive item: Read(cache)", "S_OK; out of service", inactiveItemCache},
    {77, Version::Da2, "inactive group: Read(device)", "S_OK; the item's quality", inactiveGroupDevice},
    {78, Version::Da2, "Read(item, wrong handle, item)", "S_FALSE, S_OK, OPC_E_INVALIDHANDLE with VT_EMPTY, S_OK",
     wrongHandle},
    {79, Version::Da2, "Read(second, first, second)", "three values in that order", order},
    {80, Version::Da2, "a number as VT_BSTR", "a text that reads as the number", asText},
    {81, Version::Da2, "a number beyond 40,000 as VT_I2", "S_FALSE, DISP_E_OVERFLOW, VT_EMPTY", overflow},
    {82, Version::Da2, "a number with a fraction as VT_I4", "rounded", rounding},
    {83, Version::Da2, "a true BOOL as VT_I4, VT_UI1, VT_BOOL", "-1; 255; true", booleans},
    {84, Version::Da2, "a text as VT_R8", "refused, or DISP_E_TYPEMISMATCH and VT_EMPTY", textAsNumber},
    {85, Version::Da2, "an item of bad quality: Read", "no failure; quality bad", badItem},
    {86, Version::Da2, "Write to a read-only item", "S_FALSE, OPC_E_BADRIGHTS; the value as before", refusesWrite,
     true},
    {87, Version::Da2, "Write(read-only item, wrong handle)", "S_FALSE, OPC_E_BADRIGHTS, OPC_E_INVALIDHANDLE",
     refusesWrites, true},
    {88, Version::Da3, "WriteVQT of value, quality, time to a read-only item",
     "S_FALSE, OPC_E_BADRIGHTS or OPC_E_NOTSUPPORTED", refusesVqt, true},
}};

}  // namespace
}  // namespace synchronous

std::span<const Case> syncCases() {
    return synchronous::cases;
}

}  // namespace quelm::opcclient::check
