#pragma once

// Everything between the control and the network: object exporter, activation, listeners, and the settings that say
// who may come in. Opened when the control starts, closed when the server has unloaded.

#include <functional>
#include <memory>
#include <string_view>

#include "Message Loop/AsioLoop.h"
#include "OPC/Main/Systemd.h"
#include "SLIK-DA/SLIKServer.h"

namespace quelm {

class OpcNetwork {
 public:
    // Plain lines for the operator.
    struct Lines {
        std::function<void(std::string_view)> weakened;  // a setting that lets in what the default keeps out
        std::function<void(std::string_view)> notice;    // where clients are served
        std::function<void(std::string_view)> trouble;   // damaged settings, refused clients
    };

    // passed: sockets to serve clients on in place of the settings' addresses, where there are any. control and loop
    // must outlive the network.
    OpcNetwork(SLIKServer& control, AsioLoop& loop, systemd::PassedSockets passed, Lines lines);
    ~OpcNetwork();
    OpcNetwork(const OpcNetwork&) = delete;
    OpcNetwork& operator=(const OpcNetwork&) = delete;

    // Reads the settings and lets clients in. Raises RuntimeError with the address, the reason and the remedy when an
    // address cannot be listened on; nothing listens then.
    void open();
    // Lets go of all clients and closes all sockets.
    void close();

 private:
    struct Impl;
    SLIKServer& control_;
    AsioLoop& loop_;
    systemd::PassedSockets passed_;
    Lines lines_;
    std::unique_ptr<Impl> impl_;
};

}  // namespace quelm
