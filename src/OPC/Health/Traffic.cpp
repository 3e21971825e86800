#include "OPC/Health/Traffic.h"

#include <utility>

namespace quelm::health {

dcom::Fault CountedCalls::call(const dcom::rpc::Call& call, dcom::ndr::Writer& reply) {
    Caller& caller = connections_[call.peer.id];
    if (caller.traffic == nullptr || caller.account != call.account) {
        caller = {call.account, trafficOf(call.peer.host(), call.account)};
    }
    ++calls_;
    ++caller.traffic->calls;
    const Stopwatch watch;
    caller.traffic->lastCall = watch.begunAt();
    const dcom::Fault fault = real_.call(call, reply);
    longest_.note(watch.milliseconds());
    return fault;
}

std::shared_ptr<Traffic> CountedCalls::trafficOf(std::string_view host, const std::string& account) {
    std::string key = std::string(host) + '\n' + account;
    std::weak_ptr<Traffic>& place = (*known_)[key];
    std::shared_ptr<Traffic> traffic = place.lock();
    if (traffic == nullptr) {
        traffic = {new Traffic, [known = known_, key = std::move(key)](Traffic* gone) {
                       delete gone;
                       known->erase(key);
                   }};
        place = traffic;
    }
    return traffic;
}

}  // namespace quelm::health
