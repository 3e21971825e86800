#pragma once

// Everything between the control and the network: object exporter, activation, listeners, the settings that say who
// may come in, and the thread that all of it runs on. Opened when the control starts, closed when the server has
// unloaded.

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

#include "OPC/Health/Answers.h"
#include "OPC/Health/PlantHealth.h"
#include "OPC/Main/Systemd.h"
#include "loop/AsioLoop.h"
#include "loop/LineCrossing.h"
#include "slikda/SLIKServer.h"

namespace quelm {

class OpcNetwork {
 public:
    // Plain lines for the operator; called on the plant's thread.
    struct Lines {
        std::function<void(std::string_view)> weakened;  // a setting that lets in what the default keeps out
        std::function<void(std::string_view)> notice;    // where clients are served
        std::function<void(std::string_view)> client;    // who comes and goes; settings that were read anew
        std::function<void(std::string_view)> trouble;   // damaged settings, refused clients
        std::function<void(std::string_view)> failure;   // let out by a handler; the network goes on
    };

    // passed: sockets to serve clients on in place of the settings' addresses, where there are any. loop is the
    // network's, which nobody else runs. health is what operators are told who ask. control, health and loops must
    // outlive the network.
    OpcNetwork(SLIKServer& control, const health::PlantHealth& health, AsioLoop& plant, AsioLoop& loop,
               systemd::PassedSockets passed, Lines lines);
    ~OpcNetwork();
    OpcNetwork(const OpcNetwork&) = delete;
    OpcNetwork& operator=(const OpcNetwork&) = delete;

    // The branch that the settings give the items about the server itself; "": none.
    static std::string systemBranch();
    // Reads the settings, lets clients in and begins the network's thread. Raises RuntimeError with the address, the
    // reason and the remedy when an address cannot be listened on; nothing listens then.
    void open();
    // Reads the settings anew: accounts and levels hold for log-ons from now on, calls to clients and times from now
    // on, and whether the server is kept running at once. Lines say so, and which changed settings need a restart. A
    // damaged file changes nothing. Before open() there is nothing to do.
    void reload();
    // Asks clients that want to be told to let go of the server; they may or may not. Not after close().
    void requestShutdown(std::string_view reason);
    // Lets go of all clients, closes all sockets and ends the thread; what was asked just before has a moment to reach
    // its clients, and their programs that were called back to take back what was held of them. What clients leave
    // behind, their going above all, is then on its way to the plant.
    void close();

 private:
    struct Impl;
    void openControl();
    void reloadFor(health::ReloadDone done);
    void run();
    void goOnClosing();

    SLIKServer& control_;
    const health::PlantHealth& health_;
    AsioLoop& plant_;
    AsioLoop& loop_;
    systemd::PassedSockets passed_;
    Lines lines_;
    LineCrossing trouble_;
    LineCrossing client_;
    LineCrossing failure_;
    std::unique_ptr<Impl> impl_;
    std::thread thread_;
};

}  // namespace quelm
