#include "slikda/SLIKServer.h"

#include <utility>

#include "slikda/Identity.h"

namespace quelm {

namespace {

void callOrRaise(const std::function<void()>& hook, const char* withoutHook) {
    if (!hook) {
        throw RuntimeError(errors::invalidCall, withoutHook);
    }
    hook();
}

constexpr const char* registeredByPackage =
    "The server is registered and unregistered by its package; there is nothing that can be done from here";

}  // namespace

void SLIKServer::RegisterServer() {
    callOrRaise(hooks_.registerServer, registeredByPackage);
}

void SLIKServer::UnregisterServer() {
    callOrRaise(hooks_.unregisterServer, registeredByPackage);
}

// The network's thread must find everything ready: items, values, and an open crossing.
void SLIKServer::StartServer() {
    if (!items_.isClosed()) {
        if (hooks_.lastItems) {
            hooks_.lastItems();
        }
        items_.close([this] { crossing_.afterPlantsHandler([this] { handOver(); }); });
    }
    crossing_.open();
    try {
        callOrRaise(hooks_.openNetwork, "There is no network to let clients in from");
    } catch (...) {
        crossing_.close();
        throw;
    }
}

std::string SLIKServer::AppID() const {
    return std::string(identity::applicationId);
}

std::string SLIKServer::AppName() const {
    return std::string(identity::description);
}

void SLIKServer::holdAsResident() {
    isHeld_ = isHeld_ || door_.enter();
}

void SLIKServer::releaseResident() {
    if (std::exchange(isHeld_, false)) {
        raiseDisconnect(door_.leave());
    }
}

// A client that is there now counts for the rest of this handler: were it to go before InUse is asked, another one
// could come after it, and would be thrown out. Its going is an event of its own.
void SLIKServer::RequestDisconnect(std::string_view strReason) {
    if (!door_.close()) {
        wasInUse_ = true;
        crossing_.afterPlantsHandler([this] { wasInUse_ = false; });
    }
    if (hooks_.requestDisconnect) {
        hooks_.requestDisconnect(strReason);
    }
}

// One batch is under way at a time. What the plant sets meanwhile goes with the next one: the network, which never
// waits, is not far behind.
void SLIKServer::handOver() {
    const ItemBlock* batch = underWay_ ? nullptr : items_.takeBatch();
    if (batch == nullptr) {
        return;
    }
    underWay_ = true;
    crossing_.toNetwork([this, batch] {
        const ItemBlock& before = items_.shown().show(*batch);
        crossing_.toPlant([this, &before] {
            underWay_ = false;
            items_.giveBack(before);
            handOver();
        });
        network_.valuesShown();
    });
}

// False: the handler let a failure out, or there is none.
template <class Raise>
bool SLIKServer::raise(std::string_view event, Raise&& how) noexcept {
    if (events_ == nullptr) {
        return false;
    }
    try {
        how(*events_);
        return true;
    } catch (...) {
        try {
            if (hooks_.eventFailed) {
                hooks_.eventFailed(event, currentError());
            }
        } catch (...) {
            // The report itself failed, and there is nobody left to tell; the clients must be served on.
            return false;
        }
    }
    return false;
}

void SLIKServer::raiseDisconnect(std::int32_t remaining) noexcept {
    raise("OnClientDisconnect", [&](ISLIKServerEvents& events) { events.SLIKServer1_OnClientDisconnect(remaining); });
}

HResult SLIKServer::raiseRead(const std::vector<ISLIKRequestedItem*>& items) noexcept {
    std::int32_t error = 0;
    const bool answered = raise("OnRead", [&](ISLIKServerEvents& events) {
        events.SLIKServer1_OnRead(static_cast<std::int32_t>(items.size()), items, error);
    });
    return answered ? asResult(error) : E_FAIL;
}

HResult SLIKServer::raiseWrite(std::size_t count) noexcept {
    std::int32_t error = 0;
    const bool answered = raise("OnWrite", [&](ISLIKServerEvents& events) {
        events.SLIKServer1_OnWrite(static_cast<std::int32_t>(count), error);
    });
    return answered ? asResult(error) : E_FAIL;
}

}  // namespace quelm
