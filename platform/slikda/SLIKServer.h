#pragma once

// The control's plant half, on the plant's thread: what the server host sees of it, and what the network asks of the
// host. What one handler of the plant sets reaches clients as a whole when the handler ends.

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "base/RuntimeError.h"
#include "slikda/ClientDoor.h"
#include "slikda/Crossing.h"
#include "slikda/ISLIKServer.h"
#include "slikda/PlantItems.h"
#include "slikda/SLIKNetwork.h"

namespace quelm {

class SLIKServer final : public ISLIKServer, private IPlantSide {
 public:
    // What the control needs done outside, on the plant's thread; an unset one makes the operation raise
    // (registration, start) or is left out (the others).
    struct Hooks {
        // Raises RuntimeError when that is not possible. The network's thread begins in here, if it has one of its own.
        std::function<void()> openNetwork;
        std::function<void()> registerServer;    // raises RuntimeError
        std::function<void()> unregisterServer;  // raises RuntimeError
        std::function<void(std::string_view reason)> requestDisconnect;
        // A handler of the events let a failure out.
        std::function<void(std::string_view event, const ErrorInfo& failure)> eventFailed;
        // The first start, when items can still be added: behind those of the host.
        std::function<void()> lastItems = {};
    };

    // The loops of the two sides must outlive the control, and run nothing of it when it is gone; tests have one for
    // both.
    SLIKServer(IMessageLoop& plant, IMessageLoop& network) : crossing_(plant, network) {}
    SLIKServer(const SLIKServer&) = delete;
    SLIKServer& operator=(const SLIKServer&) = delete;

    void setHooks(Hooks hooks) { hooks_ = std::move(hooks); }

    void SetEvents(ISLIKServerEvents* objEvents) override { events_ = objEvents; }
    void RegisterServer() override;
    void UnregisterServer() override;
    void StartServer() override;
    std::string AppID() const override;
    std::string AppName() const override;
    PlantItems& SLIKTags() override { return items_; }
    void RequestDisconnect(std::string_view strReason) override;
    void SetSourcesLost(bool blnLost) override { items_.setSourcesLost(blnLost); }
    bool InUse() const override { return wasInUse_ || door_.count() > 0; }

    // This process itself as a client, which keeps the server in use when no other one does; on the plant's thread,
    // once the server is started. Its going is told as that of any client, and nothing when it does not hold.
    void holdAsResident();
    void releaseResident();
    // How many others hold the server, as of now; on the plant's thread.
    std::int32_t clientCount() const { return door_.count() - (isHeld_ ? 1 : 0); }

    // The other half. Belongs to the network's thread from the start on.
    SLIKNetwork& network() { return network_; }

 private:
    void raiseDisconnect(std::int32_t remaining) noexcept override;
    HResult raiseRead(const std::vector<ISLIKRequestedItem*>& items) noexcept override;
    HResult raiseWrite(std::size_t count) noexcept override;
    StampConverter& stamps() override { return items_.stamps(); }
    template <class Raise>
    bool raise(std::string_view event, Raise&& how) noexcept;
    void handOver();

    Hooks hooks_;
    ISLIKServerEvents* events_ = nullptr;
    Crossing crossing_;
    ClientDoor door_;
    PlantItems items_;
    bool underWay_ = false;  // a batch is on its way to the network or back
    bool wasInUse_ = false;  // found by this handler's shutdown notice
    bool isHeld_ = false;    // by this process itself
    SLIKNetwork network_{items_.shown(), crossing_, door_, *this};
};

}  // namespace quelm
