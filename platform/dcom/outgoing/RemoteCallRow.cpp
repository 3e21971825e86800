// The objects of a remote process, and the row of what is called there: one call at a time.

#include <fmt/format.h>

#include <utility>

#include "dcom/orpc/OrpcTypes.h"
#include "dcom/outgoing/Candidates.h"
#include "dcom/outgoing/RemoteObject.h"
#include "dcom/outgoing/RemoteProcess.h"

namespace quelm::dcom::outgoing {

namespace {

// Further ways to say that an object is gone: it is not connected, its identifier or its process is not known.
constexpr Fault notConnected{0x800401FD};
constexpr Fault invalidIpid{0x80010113};
constexpr Fault invalidObject{0x80010114};

Trouble troubleOf(const Channel& channel, Fault fault) {
    Reason reason = Reason::Fault;
    if (fault == Fault::Disconnected || fault == notConnected || fault == invalidIpid || fault == invalidObject) {
        reason = Reason::UnknownObject;
    } else if (fault == Fault::UnknownInterface || fault == faultOf(E_NOINTERFACE)) {
        reason = Reason::NoInterface;
    }
    return channel.trouble(reason, fmt::format("{:#010x}", static_cast<std::uint32_t>(fault)));
}

}  // namespace

// ---- The row -----------------------------------------------------------------------------------------------------

void RemoteProcess::pump() {
    if (state_ != State::Ready || job_ != Job::None) {
        return;
    }
    if (!releases_.empty()) {
        release();
    } else if (count_ != 0 && (!proven_ || !unasked_.empty())) {
        // Whether a log-on was taken shows in the first answer only, and no call of an object is to be lost by it: on a
        // new connection one of them is asked for its interface again.
        ask(anyObject());
    } else if (!waiting_.empty()) {
        Object& next = *waiting_.front();
        if (caller_.mayCall(next.calls.front().parameters->size())) {
            call(next);
        }
    } else if (count_ == 0) {
        ended_(*this);
    }
}

void RemoteProcess::begin(Job job, Object* object) {
    job_ = job;
    jobObject_ = object;
}

// The job is over, however it ended. A call whose answer will never be known may have been carried out: it counts as
// answered and is not repeated.
void RemoteProcess::settle() {
    const Job job = std::exchange(job_, Job::None);
    Object* const object = std::exchange(jobObject_, nullptr);
    const auto answered = std::exchange(answered_, nullptr);
    if (object == nullptr) {
        return;
    }
    if (job == Job::Asking) {
        move(*object, object->asked.count == 0 ? unasked_ : object->calls.empty() ? resting_ : waiting_);
        return;
    }
    if (!object->calls.empty()) {
        move(*object, waiting_);
    }
    answered();
}

// A log-on that the other end takes nothing by shows in the first answer only.
bool RemoteProcess::isLogOnRefused(const rpc::CallResult& result) const {
    return !proven_ && isAccessDenied(result.fault);
}

// Each call is a doing of its own, of which the process has not heard before.
const orpc::ObjectCallHeader& RemoteProcess::nextHeader() {
    const std::uint64_t number = ++surroundings_.latestCall;
    for (std::size_t i = 0; i < sizeof number; ++i) {
        header_.causality.bytes[i] = static_cast<std::uint8_t>(number >> 8 * i);
        header_.causality.bytes[8 + i] = static_cast<std::uint8_t>(oxid_ >> 8 * i);
    }
    return header_;
}

void RemoteProcess::release() {
    begin(Job::Releasing, nullptr);
    approach_->channel().call(
        Step::Call, {orpc::iidRemUnknown, orpc::opnumOf(orpc::RemUnknownCall::Release), remUnknown_},
        [this](ndr::Writer& out) { orpc::writeRemRelease(out, nextHeader(), std::exchange(releases_, {})); },
        [this](const rpc::CallResult& result) { onReleased(result); }, programLimit);
}

void RemoteProcess::onReleased(const rpc::CallResult& result) {
    const auto self = shared_from_this();
    if (isLogOnRefused(result)) {
        refuseWay(approach_->channel().troubleOf(result));
    } else {
        onAnswered();
    }
    settle();
    pump();
}

void RemoteProcess::ask(Object& object) {
    move(object, resting_);
    begin(Job::Asking, &object);
    approach_->channel().call(
        Step::AskInterface, {orpc::iidRemUnknown, orpc::opnumOf(orpc::RemUnknownCall::QueryInterface), remUnknown_},
        [this, &request = object.request](ndr::Writer& out) {
            orpc::writeRemQueryInterface(out, nextHeader(), request.reference.object.ipid, request.iid,
                                         orpc::referencesPerPointer);
        },
        [this](const rpc::CallResult& result) { onAsked(result); }, programLimit);
}

void RemoteProcess::onAsked(const rpc::CallResult& result) {
    const auto self = shared_from_this();
    const Channel& channel = approach_->channel();
    if (isLogOnRefused(result)) {
        refuseWay(channel.troubleOf(result));
        return settle();
    }
    onAnswered();
    const auto answer = result.fault == Fault::None ? orpc::parseRemQueryInterface(result.stub) : std::nullopt;
    if (answer && !failed(answer->result) && answer->reference.publicReferences != 0) {
        const orpc::HeldReferences asked{answer->reference.ipid, answer->reference.publicReferences};
        if (jobObject_ != nullptr && jobObject_->asked.count == 0) {
            jobObject_->asked = asked;
        } else {
            giveBack(asked);
        }
    } else if (jobObject_ != nullptr) {
        giveUp(*jobObject_, answer && failed(answer->result) ? troubleOf(channel, faultOf(answer->result))
                            : result.fault != Fault::None    ? troubleOf(channel, result.fault)
                                                             : channel.trouble(Reason::Garbage));
    }
    settle();
    pump();
}

void RemoteProcess::call(Object& object) {
    move(object, resting_);
    begin(Job::Calling, &object);
    Object::Call call = object.takeCall();
    answered_ = std::move(call.answered);
    const auto limit = programLimit + sendLimit * (call.parameters->size() >> 16U);
    approach_->channel().call(
        Step::Call, {object.request.iid, call.opnum, object.asked.ipid},
        [this](ndr::Writer& out) { orpc::writeOrpcThis(out, nextHeader()); },
        [this](const rpc::CallResult& result) { onCalled(result); }, limit, std::move(call.parameters));
}

void RemoteProcess::onCalled(const rpc::CallResult& result) {
    const auto self = shared_from_this();
    onAnswered();
    if (result.fault != Fault::None && jobObject_ != nullptr) {
        onFault(*jobObject_, result);
    }
    settle();
    pump();
}

void RemoteProcess::onFault(Object& object, const rpc::CallResult& result) {
    const Trouble trouble = troubleOf(approach_->channel(), result.fault);
    if (trouble.isFinal()) {
        giveUp(object, trouble);
    } else if (!std::exchange(object.isFaultSaid, true)) {
        say(object, "Trouble with calling back", trouble, "; further calls go on");
    }
}

// ---- The objects -------------------------------------------------------------------------------------------------

std::unique_ptr<orpc::IRemoteObject> RemoteProcess::add(orpc::RemoteObjectRequest request) {
    learn(candidates(request.reference.resolver, host_));
    auto object = std::make_unique<Object>(shared_from_this(), std::move(request));
    unasked_.push_back(object.get());
    object->list = &unasked_;
    object->place = std::prev(unasked_.end());
    pinger_.hold(object->request.reference.object.oid);
    // The client's own call, within which this may happen, is answered first.
    if (++count_ == 1 || state_ == State::Ready) {
        timer_->start(std::chrono::milliseconds(0));
    }
    return object;
}

void RemoteProcess::onCallWaiting(Object& object) {
    if (object.asked.count != 0 && object.list == &resting_ && jobObject_ != &object) {
        move(object, waiting_);
        pump();
    }
}

void RemoteProcess::move(Object& object, Objects& to) {
    to.splice(to.end(), *object.list, object.place);
    object.list = &to;
}

RemoteProcess::Object& RemoteProcess::anyObject() {
    return *(!unasked_.empty() ? unasked_ : !waiting_.empty() ? waiting_ : resting_).front();
}

void RemoteProcess::remove(Object& object) {
    const orpc::ObjectReference& reference = object.request.reference.object;
    giveBack({reference.ipid, reference.publicReferences});
    giveBack(object.asked);
    forget(object);
    // Many may go at once, and what they held is given back in one call.
    if (state_ == State::Ready || (state_ == State::Waiting && count_ == 0)) {
        timer_->start(std::chrono::milliseconds(0));
    }
}

void RemoteProcess::forget(Object& object) {
    object.list->erase(object.place);
    --count_;
    pinger_.letGo(object.request.reference.object.oid);
    if (jobObject_ == &object) {
        jobObject_ = nullptr;
        answered_ = nullptr;
    }
}

void RemoteProcess::giveBack(const orpc::HeldReferences& references) {
    if (references.count != 0 && releases_.size() < mostReleases) {
        releases_.push_back(references);
    }
}

void RemoteProcess::giveUp(Object& object, const Trouble& trouble) {
    say(object, "Gave up calling back", trouble, "");
    if (trouble.reason != Reason::UnknownObject) {
        const orpc::ObjectReference& reference = object.request.reference.object;
        giveBack({reference.ipid, reference.publicReferences});
        giveBack(object.asked);
    }
    const auto givenUp = std::move(object.request.givenUp);
    forget(object);
    object.detach();
    givenUp();
}

void RemoteProcess::giveUpAll(const Trouble& trouble, std::string_view why) {
    // Who subscribes anew begins anew.
    ended_(*this);
    timer_->stop();
    if (count_ != 0) {
        say(anyObject(), "Gave up calling back", trouble,
            (count_ == 1 ? "" : fmt::format("; so with all {} sinks of this program", count_)).append(why));
    }
    while (count_ != 0) {
        Object& object = anyObject();
        const auto givenUp = std::move(object.request.givenUp);
        forget(object);
        object.detach();
        givenUp();
    }
}

void RemoteProcess::onPing(const Trouble* trouble) {
    if (trouble == nullptr) {
        isPingSaid_ = false;
    } else if (count_ != 0 && !std::exchange(isPingSaid_, true)) {
        say(anyObject(), "Cannot ping for", *trouble, "; after three missed pings its machine may let go of the sink");
    }
}

void RemoteProcess::say(const Object& object, std::string_view what, const Trouble& trouble, std::string_view after) {
    surroundings_.say(host_, fmt::format("{} {}", what, kindOf(trouble)),
                      fmt::format("{} {}: {}{}", what, object.request.client,
                                  describe(trouble, surroundings_.settings.settingsPath), after));
}

}  // namespace quelm::dcom::outgoing
