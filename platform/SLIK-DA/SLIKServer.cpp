#include "SLIK-DA/SLIKServer.h"

#include "SLIK-DA/Identity.h"

namespace quelm {

namespace {

constexpr auto outOfMemory = static_cast<std::int32_t>(0x8007000EU);

void callOrRaise(const std::function<void()>& hook, const char* withoutHook) {
    if (!hook) {
        throw RuntimeError(errors::invalidCall, withoutHook);
    }
    hook();
}

constexpr const char* registeredByPackage =
    "The server is registered and unregistered by its package; there is nothing that can be done from here";

}  // namespace

void RequestedItem::ask(const SLIKTag& tag, StampConverter& stamps) {
    tag_ = &tag;
    stamps_ = &stamps;
    filled_ = false;
}

void RequestedItem::SetVQT(const Variant& varValue, std::int16_t intQuality, Date dtmTimestamp) {
    if (varValue.kind() == VariantKind::Object) {
        throw RuntimeError(errors::typeMismatch);
    }
    value_ = varValue;
    quality_ = static_cast<std::uint16_t>(intQuality);
    fileTime_ = stamps_->fileTime(dtmTimestamp);
    filled_ = true;
}

void SLIKServer::RegisterServer() {
    callOrRaise(hooks_.registerServer, registeredByPackage);
}

void SLIKServer::UnregisterServer() {
    callOrRaise(hooks_.unregisterServer, registeredByPackage);
}

void SLIKServer::StartServer() {
    callOrRaise(hooks_.openNetwork, "There is no network to let clients in from");
}

std::string SLIKServer::AppID() const {
    return std::string(identity::applicationId);
}

std::string SLIKServer::AppName() const {
    return std::string(identity::description);
}

void SLIKServer::RequestDisconnect(std::string_view strReason) {
    if (hooks_.requestDisconnect) {
        hooks_.requestDisconnect(strReason);
    }
}

void SLIKServer::clientGone() noexcept {
    --clients_;
    if (events_ == nullptr) {
        return;
    }
    try {
        events_->SLIKServer1_OnClientDisconnect(clients_);
    } catch (...) {
        reportFailure("OnClientDisconnect");
    }
}

std::int32_t SLIKServer::deviceRead(std::span<const SLIKTag* const> tags,
                                    std::span<const RequestedItem>& readings) noexcept {
    readings = {};
    if (tags.empty()) {
        return 0;
    }
    try {
        if (requested_.size() < tags.size()) {
            requested_.resize(tags.size());
        }
        requestedPointers_.resize(tags.size());
    } catch (...) {
        return outOfMemory;
    }
    for (std::size_t i = 0; i < tags.size(); ++i) {
        requested_[i].ask(*tags[i], items_.stamps());
        requestedPointers_[i] = &requested_[i];
    }
    std::int32_t error = events_ == nullptr ? failed : 0;
    if (events_ != nullptr) {
        try {
            events_->SLIKServer1_OnRead(static_cast<std::int32_t>(tags.size()), requestedPointers_, error);
        } catch (...) {
            reportFailure("OnRead");
            error = failed;
        }
    }
    readings = std::span<const RequestedItem>(requested_).first(tags.size());
    return error;
}

std::int32_t SLIKServer::write(std::size_t count) noexcept {
    std::int32_t error = events_ == nullptr ? failed : 0;
    if (events_ == nullptr || count == 0) {
        return error;
    }
    try {
        events_->SLIKServer1_OnWrite(static_cast<std::int32_t>(count), error);
    } catch (...) {
        reportFailure("OnWrite");
        error = failed;
    }
    return error;
}

void SLIKServer::reportFailure(std::string_view event) noexcept {
    try {
        if (hooks_.eventFailed) {
            hooks_.eventFailed(event, currentError());
        }
    } catch (...) {
        // The report itself failed, and there is nobody left to tell; the clients must be served on.
        return;
    }
}

}  // namespace quelm
