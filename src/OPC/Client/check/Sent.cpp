#include "OPC/Client/check/Sent.h"

#include <algorithm>

#include "base/Quality.h"
#include "opcda/client/Words.h"

namespace quelm::opcclient::check {

using opcda::client::DataEvent;
using opcda::client::resultName;

std::vector<const Called*> sentOf(const Sink& sink, Called::Kind kind, std::uint32_t transaction) {
    std::vector<const Called*> calls;
    for (const Called& each : sink.calls()) {
        if (each.kind == kind && each.data.transaction == transaction) {
            calls.push_back(&each);
        }
    }
    return calls;
}

const Called& awaited(Stage& stage, Findings& found, const Sink& sink, Called::Kind kind, std::uint32_t transaction) {
    const auto came = [&] { return !sentOf(sink, kind, transaction).empty(); };
    found.need(stage.waitUntil(came, std::chrono::seconds(10)),
               fmt::format("no callback came for transaction {:X} within 10 s", transaction));
    return *sentOf(sink, kind, transaction).front();
}

std::set<std::uint32_t> handlesIn(const Sink& sink) {
    std::set<std::uint32_t> handles;
    for (const Called* called : sentOf(sink, Called::Kind::DataChange, 0)) {
        for (const auto& item : called->data.items) {
            handles.insert(item.clientHandle);
        }
    }
    return handles;
}

void awaitHandles(Stage& stage, Findings& found, const Sink& sink, const std::set<std::uint32_t>& expected) {
    stage.waitUntil([&] { return handlesIn(sink) == expected; }, std::chrono::seconds(10));
    found.equal("the number of items that came", handlesIn(sink).size(), expected.size());
    found.expect(handlesIn(sink) == expected, "other items came");
}

std::string repeatedBy(const Sink& sink) {
    std::map<std::uint32_t, DataEvent::Item> last;
    for (const Called& called : sink.calls()) {
        if (called.kind != Called::Kind::DataChange) {
            continue;
        }
        for (const DataEvent::Item& item : called.data.items) {
            const auto known = last.find(item.clientHandle);
            if (called.data.transaction == 0 && known != last.end() && known->second.value == item.value &&
                known->second.quality == item.quality && known->second.error == item.error) {
                return fmt::format("item {} was sent twice as {}", item.clientHandle, textOf(item.value));
            }
            last[item.clientHandle] = item;
        }
    }
    return {};
}

void expectMasters(Findings& found, const Called& called) {
    const auto& items = called.data.items;
    const bool isGood =
        std::all_of(items.begin(), items.end(), [](const auto& item) { return quality::isGood(item.quality); });
    const bool isFine = std::all_of(items.begin(), items.end(), [](const auto& item) { return item.error == S_OK; });
    found.equal("the master quality", resultName(called.data.masterQuality), resultName(isGood ? S_OK : S_FALSE));
    found.equal("the master error", resultName(called.data.masterError), resultName(isFine ? S_OK : S_FALSE));
}

opcda::client::GroupRequest subscribing(bool active, std::uint32_t rate) {
    opcda::client::GroupRequest request;
    request.active = active;
    request.updateRate = rate;
    request.clientHandle = 78;
    return request;
}

std::chrono::milliseconds silenceOf(const Group& group) {
    constexpr std::chrono::milliseconds way(300);
    return std::chrono::milliseconds(5ULL * group.rate) + way;
}

void forgetLateOnes(Stage& stage, Sink& sink) {
    stage.wait(std::chrono::milliseconds(500));
    sink.forget();
}

void sayAlive(const Group& group) {
    if (const auto mgt = opcda::client::ask<opcda::client::IOPCGroupStateMgt2>(group.state).out) {
        mgt->SetKeepAlive(group.rate);
    }
}

std::unique_ptr<Sink> advised(Stage& stage, Findings& found, const Group& group) {
    auto sink = std::make_unique<Sink>(stage.session(), group.state);
    found.need(sink->advised() == S_OK, "Advise: " + resultName(sink->advised()));
    return sink;
}

}  // namespace quelm::opcclient::check
