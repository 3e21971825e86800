// The way to the process, and what becomes of it when there is none.

#include "dcom/outgoing/RemoteProcess.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "base/TimeSource.h"
#include "dcom/orpc/OrpcTypes.h"
#include "dcom/outgoing/Candidates.h"
#include "dcom/outgoing/RemoteObject.h"

namespace quelm::dcom::outgoing {

RemoteProcess::RemoteProcess(Surroundings& surroundings, Pace& pace, std::string host, std::string client,
                             std::uint64_t oxid, std::function<void(RemoteProcess&)> ended)
    : surroundings_(surroundings),
      host_(std::move(host)),
      client_(std::move(client)),
      oxid_(oxid),
      ended_(std::move(ended)),
      timer_(surroundings.loop.makeTimer([this] { onTimer(); })),
      pinger_(surroundings, client_, tries_, [this](const Trouble* trouble) { onPing(trouble); }),
      caller_(pace, [this] {
          const auto self = shared_from_this();
          pump();
      }) {}

RemoteProcess::~RemoteProcess() = default;

void RemoteProcess::close() {
    approach_.reset();
    timer_->stop();
    while (count_ != 0) {
        Object& object = anyObject();
        forget(object);
        object.detach();
    }
}

void RemoteProcess::makeRoom() {
    const auto self = shared_from_this();
    approach_.reset();
    giveUpAll(Trouble(trouble_), "; another program needs the place");
}

// The machine may have got another address since an earlier sink was handed over. The one that is tried first stays:
// there the process was found, if it ever was.
void RemoteProcess::learn(std::vector<Address> named) {
    std::erase_if(named, [this](const Address& each) {
        return std::find(resolver_.begin(), resolver_.end(), each) != resolver_.end();
    });
    resolver_.insert(resolver_.begin() + (resolver_.empty() ? 0 : 1), named.begin(), named.end());
    resolver_.resize(std::min(resolver_.size(), mostCandidates));
}

void RemoteProcess::onTimer() {
    const auto self = shared_from_this();
    if (state_ != State::Waiting) {
        return pump();
    }
    // What was refused or let go of before it was reached is given back too, unless nobody is to be reached there.
    if (count_ == 0 && (releases_.empty() || failingSince_)) {
        return ended_(*this);
    }
    approach(State::Resolving, resolver_, orpc::iidObjectExporter, surroundings_.settings.minimumLevel);
}

void RemoteProcess::approach(State state, std::vector<Address> addresses, const Uuid& interfaceId,
                             rpc::AuthLevel level) {
    state_ = state;
    proven_ = false;
    approach_ = std::make_unique<Approach>(surroundings_, client_, tries_, std::move(addresses), interfaceId, level,
                                           static_cast<Approach::IOwner&>(*this));
    approach_->begin();
}

void RemoteProcess::opened(Channel& channel) {
    if (state_ == State::Resolving) {
        return channel.call(
            Step::Resolve, {orpc::iidObjectExporter, orpc::opnumOf(orpc::ObjectExporterCall::ResolveOxid2), {}},
            [this](ndr::Writer& out) { orpc::writeResolveOxid2(out, oxid_); },
            [this](const rpc::CallResult& result) { onResolved(result); }, serviceLimit);
    }
    const auto self = shared_from_this();
    state_ = State::Ready;
    pump();
}

void RemoteProcess::onResolved(const rpc::CallResult& result) {
    const auto self = shared_from_this();
    const auto answer = result.fault == Fault::None ? orpc::parseResolveOxid2(result.stub) : std::nullopt;
    const Channel& channel = approach_->channel();
    if (!answer) {
        return approach_->next(channel.troubleOf(result));
    }
    constexpr std::uint32_t invalidProcess = 1910;
    if (answer->status != 0) {
        return approach_->next(answer->status == invalidProcess
                                   ? channel.trouble(Reason::UnknownProcess)
                                   : channel.trouble(Reason::Fault, fmt::format("status {}", answer->status)));
    }
    // The next round and the pings begin with the address that knew the process.
    const Address good = approach_->address();
    std::erase(resolver_, good);
    resolver_.insert(resolver_.begin(), good);
    tries_.isResolverOpen = !approach_->logsOn();
    pinger_.pingAt(resolver_);
    remUnknown_ = answer->remUnknownIpid;
    header_.minorVersion = std::min(answer->minorVersion, orpc::comMinorVersion);
    const auto hint = rpc::effectiveLevel(static_cast<std::uint8_t>(std::min(answer->levelHint, 255U)));
    approach(State::Connecting, candidates(answer->bindings, host_), orpc::iidRemUnknown,
             std::max(hint, surroundings_.settings.minimumLevel));
}

void RemoteProcess::lost(const Trouble& trouble) {
    const auto self = shared_from_this();
    if (proven_) {
        hangs_ = hangs_ || (job_ == Job::Calling && trouble.reason == Reason::Silent);
        if (job_ == Job::None) {
            failingSince_.reset();
        }
        // A connection that was cut while nothing was under way has cost nobody anything yet.
        retry(trouble, job_ != Job::None);
    } else {
        refuseWay(trouble);
    }
    settle();
}

void RemoteProcess::refuseWay(const Trouble& trouble) {
    if (state_ == State::Ready) {
        state_ = State::Connecting;
    }
    approach_->next(trouble);
}

void RemoteProcess::exhausted(const Trouble& worst) {
    const auto self = shared_from_this();
    tries_.isResolverOpen = tries_.isResolverOpen && state_ != State::Resolving;
    retry(worst, true);
}

void RemoteProcess::retry(const Trouble& trouble, bool isWorthALine) {
    state_ = State::Waiting;
    approach_.reset();
    const std::uint64_t now = timeSource().monotonicMilliseconds();
    if (!failingSince_) {
        failingSince_ = now;
    }
    const std::chrono::milliseconds failing(now - *failingSince_);
    const bool isShutOut = trouble.reason == Reason::LogOnRefused && tries_.left == 0;
    if (trouble.isFinal() || isShutOut || failing >= 3 * surroundings_.settings.pingPeriod) {
        return giveUpAll(trouble, {});
    }
    trouble_ = trouble;
    if (count_ == 0) {
        return ended_(*this);
    }
    if (isWorthALine && !std::exchange(isSaid_, true)) {
        say(anyObject(), "Cannot call back", trouble, "; trying again");
    }
    timer_->start(pause_);
    pause_ = std::min(2 * pause_, longestPause);
}

// What answers for the program of a client that hangs may be well: then only an answered call shows that it goes on.
void RemoteProcess::onAnswered() {
    if (!std::exchange(proven_, true) && approach_->logsOn()) {
        tries_.left = LogOnTries::most;
    }
    pause_ = firstPause;
    if (job_ == Job::Calling || !hangs_) {
        hangs_ = false;
        isSaid_ = false;
        failingSince_.reset();
    }
}

}  // namespace quelm::dcom::outgoing
