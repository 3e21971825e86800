#pragma once

// The way to the server that the command line names: the log-on, the machine, the class.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "OPC/Client/Options.h"
#include "OPC/Client/Screen.h"
#include "dcom/client/Session.h"
#include "opcda/client/Discovery.h"
#include "opcda/client/OpcSession.h"

namespace quelm::opcclient {

// Asks for the password where there is one to ask for. Raises UsageError, Interruption.
dcom::client::LogOn logOnOf(const Options& options);

class Connection {
 public:
    // Nothing is reached for yet. loop, screen and options outlive it.
    Connection(AsioLoop& loop, Screen& screen, const Options& options);

    // A further client of its own, as servers see it.
    std::unique_ptr<dcom::client::Session> newSession();
    dcom::client::Session& session() { return *session_; }

    // The server's class, and its ProgID where that is known. Without --server the only one that the machine has:
    // raises UsageError with their names where there are several, Trouble where there are none.
    const Uuid& classId();
    const std::string& progId();
    opcda::client::OpcSession& opc();

    // What waits ends with Trouble(Interrupted): from a handler of the loop.
    void interrupt();
    // Sessions of newSession() are interrupted by whoever has them.
    void onInterrupt(std::function<void()> handler) { alsoInterrupted_ = std::move(handler); }

 private:
    void choose();

    AsioLoop& loop_;
    Screen& screen_;
    const Options& options_;
    dcom::client::LogOn logOn_;
    std::unique_ptr<dcom::client::Session> session_;
    std::optional<Uuid> classId_;
    std::string progId_;
    std::unique_ptr<opcda::client::OpcSession> opc_;
    std::function<void()> alsoInterrupted_;
};

}  // namespace quelm::opcclient
