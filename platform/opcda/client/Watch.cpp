#include <algorithm>
#include <utility>

#include "base/TimeSource.h"
#include "opcda/client/ItemGroup.h"
#include "opcda/client/Readings.h"

namespace quelm::opcda::client {

using std::chrono::milliseconds;

namespace {

// Values that wait for run(); older ones go first.
constexpr std::size_t mostWaiting = 1'000'000;
// So long a server may be silent before it is asked whether it lives.
constexpr std::uint64_t longestSilence = 15'000;

std::uint64_t now() {
    return timeSource().monotonicMilliseconds();
}

// For the next sleep of at most so long; a time that is past is none.
milliseconds until(std::uint64_t time, std::uint64_t present, milliseconds limit) {
    return time <= present ? milliseconds(0) : std::min(limit, milliseconds(time - present));
}

bool isSame(const ItemValue& left, const ItemValue& right) {
    return left.result == right.result && left.quality == right.quality && left.value == right.value;
}

}  // namespace

Watch::Watch(const OpcSession& session, std::vector<std::string> itemIds, const Options& options, Handler handler)
    : session_(session),
      options_(options),
      handler_(std::move(handler)),
      group_(session, std::move(itemIds), options.updateRate, true),
      start_(now()),
      lastSign_(start_),
      due_(start_) {
    if (options_.pollOnly) {
        pollFromNowOn("as it was told to");
    } else {
        subscribe();
    }
}

Watch::~Watch() {
    unsubscribe();
}

void Watch::subscribe() {
    const auto container = ask<IConnectionPointContainer>(group_.target());
    auto point = container.out ? container.out->FindConnectionPoint(DataSink::iid).out : std::nullopt;
    if (!point) {
        return pollFromNowOn("the server does not call clients back (it has no connection point for IOPCDataCallback)");
    }
    sink_ = std::make_unique<DataSink>();
    sink_->onDataChange = [this](const DataEvent& event) { take(event); };
    point_.emplace(*std::move(point));
    try {
        const auto advised = point_->Advise(session_.callbacks().exportObject(DataSink::iid, *sink_));
        if (failed(advised.result)) {
            return pollFromNowOn("the server refused the subscription: " + resultText(advised.result));
        }
        cookie_ = advised.out;
    } catch (const dcom::client::Trouble& trouble) {
        // Where this machine cannot listen it can still read.
        if (trouble.kind != dcom::client::Trouble::Kind::Address) {
            throw;
        }
        return pollFromNowOn(trouble.what());
    }
    session_.note("Subscribed by IOPCDataCallback; the server calls " + session_.callbacks().callbackAddress());
}

void Watch::unsubscribe() {
    try {
        if (cookie_ != 0) {
            point_->Unadvise(std::exchange(cookie_, 0));
        }
    } catch (const std::exception&) {
        // A server that is gone calls nobody.
    }
    point_.reset();
    if (sink_) {
        session_.callbacks().withdraw(*sink_);
        sink_.reset();
    }
}

void Watch::pollFromNowOn(std::string why) {
    unsubscribe();
    whyPolling_ = std::move(why);
    due_ = now();
    session_.note("Reading every " + std::to_string(group_.updateRate()) + " ms: " + whyPolling_);
}

// Runs while a call waits or in run(), where no calls may be made: kept for deliver().
void Watch::take(const DataEvent& event) {
    wasCalledBack_ = true;
    lastSign_ = now();
    std::vector<ItemValue> values;
    for (const DataEvent::Item& item : event.items) {
        if (item.clientHandle < group_.itemIds().size()) {
            values.push_back(readingOf(item));
            values.back().itemId = group_.itemIds()[item.clientHandle];
        }
    }
    if (values.empty()) {
        return;
    }
    waiting_ += values.size();
    events_.push_back(std::move(values));
    while (waiting_ > mostWaiting && events_.size() > 1) {
        waiting_ -= events_.front().size();
        lost_ += events_.front().size();
        events_.pop_front();
    }
}

void Watch::deliver() {
    while (!events_.empty()) {
        const std::vector<ItemValue> values = std::move(events_.front());
        events_.pop_front();
        waiting_ -= values.size();
        handler_(values);
    }
}

// Reading gives them anyway, callbacks never.
void Watch::giveFailures() {
    std::vector<ItemValue> values;
    for (std::size_t i = 0; i < group_.results().size(); ++i) {
        if (failed(group_.results()[i])) {
            values.push_back({group_.itemIds()[i], {}, 0, 0, group_.results()[i]});
        }
    }
    if (!values.empty()) {
        handler_(values);
    }
}

void Watch::run(milliseconds limit) {
    const std::uint64_t end = now() + static_cast<std::uint64_t>(std::max<milliseconds::rep>(0, limit.count()));
    do {
        const std::uint64_t present = now();
        const milliseconds rest = until(end, present, limit);
        sink_ ? runSubscribed(rest) : runPolling(rest);
    } while (now() < end);
}

void Watch::runSubscribed(milliseconds limit) {
    if (!std::exchange(wereFailuresGiven_, true)) {
        giveFailures();
    }
    const std::uint64_t patience =
        static_cast<std::uint64_t>(options_.patience.count()) + 2 * std::uint64_t{group_.updateRate()};
    const bool isFirstAwaited = !wasCalledBack_ && !group_.serverHandles().empty();
    const std::uint64_t next = isFirstAwaited ? start_ + patience : lastSign_ + longestSilence;
    const bool came = session_.callbacks().runUntil([this] { return !events_.empty(); }, until(next, now(), limit));
    deliver();
    if (came || now() < next) {
        return;
    }
    if (isFirstAwaited && !wasCalledBack_) {
        return pollFromNowOn("no callback came within " + std::to_string(patience / 1000) +
                             " s. The server was told to call " + session_.callbacks().callbackAddress() +
                             ": a firewall may be in the way, or the server may not be allowed to log on here");
    }
    session_.status();
    lastSign_ = now();
}

void Watch::runPolling(milliseconds limit) {
    session_.callbacks().runUntil([] { return false; }, until(due_, now(), limit));
    if (now() >= due_) {
        poll();
    }
}

// From the cache, which an active group's rate keeps young; the first time it may be empty still.
void Watch::poll() {
    const std::uint64_t begun = now();
    std::vector<ItemValue> values = group_.read(latest_.empty() ? fromDevice : fromCache);
    std::vector<ItemValue> changed;
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (latest_.empty() || !isSame(values[i], latest_[i])) {
            changed.push_back(values[i]);
        }
    }
    latest_ = std::move(values);
    due_ = begun + std::max<std::uint64_t>(group_.updateRate(), 100);
    if (!changed.empty()) {
        handler_(changed);
    }
}

}  // namespace quelm::opcda::client
