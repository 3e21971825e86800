#include "dcom/outgoing/Channel.h"

#include <fmt/format.h>

#include <utility>

namespace quelm::dcom::outgoing {

Channel::Channel(IDialer& dialer, IMessageLoop& loop, const Address& address, const rpc::LogOnSettings& logOn,
                 const Uuid& firstInterface, IOwner& owner, const ChannelLimits& limits)
    : address_(address),
      logOn_(logOn),
      firstInterface_(firstInterface),
      owner_(owner),
      deadline_(loop, [this] { onTimeLimit(); }),
      limits_(limits),
      limit_(limits.connect),
      link_(dialer.dial(address, *this)) {
    if (logOn_.account != nullptr) {
        logOn_.account = &account_.emplace(*logOn_.account);
    }
    deadline_.set(limit_);
}

Trouble Channel::trouble(Reason reason, std::string detail) const {
    return {step_, reason, address_.text(), std::move(detail)};
}

Trouble Channel::troubleOf(const rpc::CallResult& result) const {
    if (result.fault == Fault::None) {
        return trouble(Reason::Garbage);
    }
    if (isAccessDenied(result.fault)) {
        return {Step::LogOn, Reason::LogOnRefused, address_.text(), {}};
    }
    return trouble(Reason::Fault, fmt::format("fault {:#010x}", static_cast<std::uint32_t>(result.fault)));
}

void Channel::connected() {
    step_ = Step::LogOn;
    limit_ = limits_.logOn;
    deadline_.set(limit_);
    connection_.emplace(logOn_, firstInterface_, limits_.answer);
    goOn();
}

void Channel::received(std::span<const std::uint8_t> data) {
    if (connection_) {
        connection_->received(data);
        goOn();
    }
}

void Channel::writable() {
    awaitsRoom_ = false;
    goOn();
}

// What the connection came to by what has just happened.
void Channel::goOn() {
    if (const auto failure = connection_->failure(); failure != rpc::ClientFailure::None) {
        return fail({step_, reasonOf(failure), address_.text(), std::string(clientFailureText(failure)), failure});
    }
    flush();
    if (!connection_->idle()) {
        return;
    }
    if (!opened_) {
        opened_ = true;
        deadline_.clear();
        owner_.opened();
    } else if (result_) {
        deadline_.clear();
        const rpc::CallResult result = *std::exchange(result_, std::nullopt);
        std::exchange(done_, nullptr)(result);
    }
}

// So much in one turn as the connection has made ready; of a large call the rest has to wait for the next turn.
void Channel::flush() {
    if (awaitsRoom_ || connection_->output().empty()) {
        return;
    }
    connection_->sent(link_->send(connection_->output()));
    if (!connection_->output().empty()) {
        awaitsRoom_ = true;
        link_->awaitRoom();
    }
}

void Channel::call(Step step, const rpc::CallTarget& target, const rpc::ClientConnection::WriteStub& front, Done done,
                   std::chrono::milliseconds limit, rpc::ClientConnection::SharedStub more) {
    step_ = step;
    limit_ = limit;
    deadline_.set(limit);
    done_ = std::move(done);
    connection_->call(
        target, front, [this](const rpc::CallResult& result) { result_ = result; }, std::move(more));
    flush();
}

void Channel::ended(std::string_view reason) {
    if (!connection_) {
        return fail(trouble(Reason::Unreachable, std::string(reason)));
    }
    fail(reason.empty() ? trouble(Reason::Closed) : trouble(Reason::Broken, std::string(reason)));
}

void Channel::onTimeLimit() {
    fail(trouble(Reason::Silent, fmt::format("{} s", limit_.count() / 1000)));
}

void Channel::fail(const Trouble& trouble) {
    deadline_.clear();
    link_.reset();
    done_ = nullptr;
    owner_.broken(trouble);
}

}  // namespace quelm::dcom::outgoing
