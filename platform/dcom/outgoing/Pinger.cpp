#include "dcom/outgoing/Pinger.h"

#include <fmt/format.h>

#include <utility>

#include "dcom/orpc/OrpcTypes.h"
#include "dcom/orpc/RemoteCalls.h"

namespace quelm::dcom::outgoing {

Pinger::Pinger(Surroundings& surroundings, std::string client, LogOnTries& tries,
               std::function<void(const Trouble*)> outcome)
    : surroundings_(surroundings),
      client_(std::move(client)),
      tries_(tries),
      outcome_(std::move(outcome)),
      timer_(surroundings.loop.makeTimer([this] { onTimer(); })) {
    timer_->start(surroundings_.settings.pingPeriod);
}

void Pinger::letGo(std::uint64_t oid) {
    const auto held = held_.find(oid);
    if (--held->second == 0) {
        held_.erase(held);
    }
}

void Pinger::onTimer() {
    timer_->start(surroundings_.settings.pingPeriod);
    if (!held_.empty() && !resolver_.empty()) {
        madeAnew_ = false;
        approach_ =
            std::make_unique<Approach>(surroundings_, client_, tries_, resolver_, orpc::iidObjectExporter,
                                       surroundings_.settings.minimumLevel, static_cast<Approach::IOwner&>(*this));
        approach_->begin();
    }
}

void Pinger::opened(Channel& channel) {
    ping(channel);
}

// Never a change of nothing, which ends the connection of some clients.
void Pinger::ping(Channel& channel) {
    adding_.clear();
    removing_.clear();
    for (const auto& [oid, count] : held_) {
        if (adding_.size() < mostChanges && !known_.contains(oid)) {
            adding_.push_back(oid);
        }
    }
    for (const std::uint64_t oid : known_) {
        if (removing_.size() < mostChanges && !held_.contains(oid)) {
            removing_.push_back(oid);
        }
    }
    const bool changes = !adding_.empty() || !removing_.empty();
    if (!changes && setId_ == 0) {
        return onAnswered();  // all was let go of meanwhile
    }
    using Call = orpc::ObjectExporterCall;
    const rpc::CallTarget target{
        orpc::iidObjectExporter, orpc::opnumOf(changes ? Call::ComplexPing : Call::SimplePing), {}};
    if (changes) {
        channel.call(
            Step::Ping, target,
            [this](ndr::Writer& out) { orpc::writeComplexPing(out, setId_, ++sequence_, adding_, removing_); },
            [this, &channel](const rpc::CallResult& result) { onComplexPing(channel, result); }, serviceLimit);
    } else {
        channel.call(
            Step::Ping, target, [this](ndr::Writer& out) { orpc::writeSimplePing(out, setId_); },
            [this, &channel](const rpc::CallResult& result) { onSimplePing(channel, result); }, serviceLimit);
    }
}

void Pinger::onSimplePing(Channel& channel, const rpc::CallResult& result) {
    const auto status = result.fault == Fault::None ? orpc::parseSimplePing(result.stub) : std::nullopt;
    if (!status) {
        return approach_->next(channel.troubleOf(result));
    }
    if (*status != 0) {
        return onRefused(channel, *status);
    }
    onAnswered();
}

void Pinger::onComplexPing(Channel& channel, const rpc::CallResult& result) {
    const auto answer = result.fault == Fault::None ? orpc::parseComplexPing(result.stub) : std::nullopt;
    if (!answer) {
        return approach_->next(channel.troubleOf(result));
    }
    if (answer->status != 0) {
        return onRefused(channel, answer->status);
    }
    setId_ = answer->setId;
    known_.insert(adding_.begin(), adding_.end());
    for (const std::uint64_t oid : removing_) {
        known_.erase(oid);
    }
    if (adding_.size() == mostChanges || removing_.size() == mostChanges) {
        return ping(channel);
    }
    onAnswered();
}

// The other machine was started anew, or has let go of the set for want of pings: all goes into a new one, once.
void Pinger::onRefused(Channel& channel, std::uint32_t status) {
    if (std::exchange(madeAnew_, true)) {
        return approach_->next(channel.trouble(Reason::Fault, fmt::format("status {}", status)));
    }
    setId_ = 0;
    sequence_ = 0;
    known_.clear();
    ping(channel);
}

void Pinger::lost(const Trouble& trouble) {
    approach_->next(trouble);
}

void Pinger::exhausted(const Trouble& worst) {
    approach_.reset();
    // Sooner than in a whole period, so that one trouble costs no object.
    timer_->start(surroundings_.settings.pingPeriod / 4);
    outcome_(&worst);
}

void Pinger::onAnswered() {
    approach_.reset();
    outcome_(nullptr);
}

}  // namespace quelm::dcom::outgoing
