#include "dcom/client/Line.h"

#include <fmt/format.h>

#include "base/TimeSource.h"

namespace quelm::dcom::client {

namespace {

// Ends what was begun unless it came to its end: a connection whose answer nobody waits for any more is of no use.
class Undo {
 public:
    explicit Undo(std::unique_ptr<outgoing::Channel>& channel) : channel_(&channel) {}
    Undo(const Undo&) = delete;
    Undo& operator=(const Undo&) = delete;
    ~Undo() {
        if (channel_ != nullptr) {
            channel_->reset();
        }
    }
    void dismiss() { channel_ = nullptr; }

 private:
    std::unique_ptr<outgoing::Channel>* channel_;
};

}  // namespace

Line::Line(Core& core, Purpose purpose, std::vector<outgoing::Address> addresses, const Uuid& first,
           rpc::AuthLevel level, bool logsOn)
    : core_(core),
      purpose_(purpose),
      addresses_(std::move(addresses)),
      first_(first),
      logOn_(core.logOnSettings(level, logsOn)) {
    if (addresses_.empty()) {
        throw explain({outgoing::Step::Connect, outgoing::Reason::NoAddress}, purpose, {});
    }
}

bool Line::tryAddress(std::size_t which) {
    good_ = which;
    isOpen_ = isProven_ = false;
    failure_.reset();
    const outgoing::ChannelLimits limits{core_.settings.connectLimit, 2 * core_.settings.connectLimit,
                                         core_.settings.maxAnswer};
    channel_ = std::make_unique<outgoing::Channel>(core_.dialer, core_.loop, address(), logOn_, first_,
                                                   static_cast<outgoing::Channel::IOwner&>(*this), limits);
    Undo undo(channel_);
    core_.waiting.until([this] { return isOpen_ || failure_; });
    if (failure_) {
        return false;
    }
    undo.dismiss();
    core_.trace(fmt::format("connected to {}, level {}", address().text(), rpc::levelName(logOn_.level)));
    return true;
}

std::string Line::who() const {
    return logOn_.account != nullptr ? nameOf(core_.logOn, logOn_.level) : std::string();
}

// From the address that was good before on. Of several failures the one that led farthest says most. A log-on that was
// refused is not tried elsewhere: each one counts at the account, which a domain may lock.
void Line::open() {
    std::optional<outgoing::Trouble> worst;
    const std::size_t begin = good_;
    for (std::size_t i = 0; i < addresses_.size(); ++i) {
        if (tryAddress((begin + i) % addresses_.size())) {
            return;
        }
        core_.trace(fmt::format("{}: {}", address().text(), explain(*failure_, purpose_, who()).what()));
        if (!worst || failure_->step > worst->step) {
            worst = failure_;
        }
        if (failure_->reason == outgoing::Reason::LogOnRefused) {
            break;
        }
    }
    failure_ = worst;
    throw explain(*worst, purpose_, who());
}

// Servers and firewalls end connections that carry nothing; that shows once the loop has run again.
void Line::refresh() {
    constexpr std::uint64_t fresh = 1'000;
    if (channel_ != nullptr && timeSource().monotonicMilliseconds() - lastUse_ > fresh) {
        core_.waiting.settle();
    }
    if (channel_ != nullptr && failure_) {
        channel_.reset();
    }
}

Line::Result Line::call(const rpc::CallTarget& target, const Stub& stub, std::chrono::milliseconds limit) {
    refresh();
    if (channel_ == nullptr) {
        open();
    }
    std::optional<Result> result;
    Undo undo(channel_);
    channel_->call(
        outgoing::Step::Call, target, [](ndr::Writer&) {},
        [&result](const rpc::CallResult& answer) {
            result = Result{answer.fault, {answer.stub.begin(), answer.stub.end()}};
        },
        limit, stub);
    core_.waiting.until([&] { return result || failure_; });
    if (!result) {
        throw explain(*failure_, purpose_, who());
    }
    if (!isProven_ && outgoing::isAccessDenied(result->fault)) {
        throw explain({outgoing::Step::LogOn, outgoing::Reason::LogOnRefused, address().text()}, purpose_, who());
    }
    isProven_ = true;
    lastUse_ = timeSource().monotonicMilliseconds();
    undo.dismiss();
    return std::move(*result);
}

}  // namespace quelm::dcom::client
