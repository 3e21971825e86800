#include "dcom/outgoing/Approach.h"

#include <utility>

#include "base/TimeSource.h"
#include "dcom/orpc/OrpcTypes.h"

namespace quelm::dcom::outgoing {

Approach::Approach(Surroundings& surroundings, std::string client, LogOnTries& tries, std::vector<Address> addresses,
                   const Uuid& interfaceId, rpc::AuthLevel level, IOwner& owner)
    : surroundings_(surroundings),
      client_(std::move(client)),
      tries_(tries),
      interfaceId_(interfaceId),
      level_(level),
      owner_(owner) {
    const bool hasAccount = surroundings.settings.account.has_value();
    worst_ = addresses.empty() ? Trouble{Step::Connect, Reason::NoAddress}
             : hasAccount      ? Trouble{Step::LogOn, Reason::LogOnRefused}  // too often before
                               : Trouble{Step::Connect, Reason::NoLogOn};
    // What a machine's resolver is asked holds no values, and some take no log-on there.
    const bool asksResolver = hasAccount && interfaceId == orpc::iidObjectExporter;
    for (Address& address : addresses) {
        if (hasAccount) {
            ways_.push_back({address, true});
        }
        if (surroundings.settings.allowNoLogOn || asksResolver) {
            ways_.push_back({std::move(address), false});
        }
    }
}

void Approach::begin() {
    begun_ = timeSource().monotonicMilliseconds();
    tryWay();
}

bool Approach::isWorthTrying(const Way& way) const {
    const bool isOpen = tries_.isResolverOpen && interfaceId_ == orpc::iidObjectExporter;
    return !way.logsOn || (tries_.left > 0 && !isOpen && surroundings_.settings.account);
}

void Approach::tryWay() {
    while (way_ < ways_.size() && !isWorthTrying(ways_[way_])) {
        ++way_;
    }
    const std::chrono::milliseconds taken(timeSource().monotonicMilliseconds() - begun_);
    if (way_ == ways_.size() || taken > longest) {
        return owner_.exhausted(Trouble(worst_));
    }
    turn_.emplace(surroundings_.turns, client_, [this] { dial(); });
}

void Approach::dial() {
    rpc::LogOnSettings logOn;
    if (ways_[way_].logsOn) {
        logOn.account = &*surroundings_.settings.account;
        logOn.level = level_;
    }
    channel_ = std::make_unique<Channel>(surroundings_.dialer, surroundings_.loop, address(), logOn, interfaceId_,
                                         static_cast<Channel::IOwner&>(*this));
}

void Approach::opened() {
    turn_.reset();
    isOpen_ = true;
    owner_.opened(*channel_);
}

void Approach::broken(const Trouble& trouble) {
    if (isOpen_) {
        return owner_.lost(trouble);
    }
    next(trouble);
}

void Approach::next(const Trouble& trouble) {
    if (!std::exchange(hasFailed_, true) || trouble.step > worst_.step) {
        worst_ = trouble;
    }
    if (trouble.reason == Reason::LogOnRefused && logsOn() && tries_.left > 0) {
        --tries_.left;
    }
    const Address tried = address();
    turn_.reset();
    channel_.reset();
    isOpen_ = false;
    do {
        ++way_;
        // Where there is no connection the log-on does not matter.
    } while (trouble.step == Step::Connect && way_ < ways_.size() && address() == tried);
    tryWay();
}

}  // namespace quelm::dcom::outgoing
