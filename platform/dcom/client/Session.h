#pragma once

// A program's dealings with one server machine: logs on, makes objects there, calls them, and is called back. Made for
// programs of one thread: every call waits for its answer by running the loop.
//
//     quelm::AsioLoop loop;
//     Session session(loop, "10.0.0.5", {account("PLANT", "reader", password), rpc::AuthLevel::Integrity});
//     const auto made = session.activate(classId, std::array{iidOpcServer});
//     const Interface& server = *made.interfaces.at(0).second;
//     const std::vector<std::uint8_t> status = server.call(6);

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/HResult.h"
#include "base/Uuid.h"
#include "dcom/client/Interface.h"
#include "dcom/client/Trouble.h"
#include "dcom/ndr/Reader.h"
#include "dcom/ntlm/ClientContext.h"
#include "dcom/orpc/OrpcTypes.h"
#include "dcom/outgoing/Dialer.h"
#include "dcom/rpc/AuthLevel.h"
#include "loop/AsioLoop.h"

namespace quelm::dcom::client {

// Who logs on to the server, and how calls are protected. A server that asks for more in its answers gets it.
struct LogOn {
    std::optional<ntlm::ClientAccount> account;  // none: without a log-on, and without protection
    rpc::AuthLevel level = rpc::AuthLevel::Integrity;
};

// An account from what a user types: names and password in UTF-8. An empty domain leaves the choice to the server.
ntlm::ClientAccount account(std::string_view domain, std::string_view user, std::string_view password);

struct Settings {
    std::uint16_t activationPort = 135;             // where objects are asked for
    std::chrono::milliseconds connectLimit{5'000};  // for a connection; twice as much to bind and log on
    std::chrono::milliseconds callLimit{30'000};    // for a call's answer
    std::size_t maxAnswer = 64U << 20U;             // bytes of one answer's results; held only as far as they came
    std::chrono::milliseconds pingPeriod{120'000};  // servers count three of them without a ping as our death

    // Callbacks. The address that this end listens on, numeric; empty: the one that leads to the server.
    std::string listenAddress;
    // What the server is told to call; empty: the same. For a machine behind a translation of addresses.
    std::string callbackAddress;
    std::uint16_t callbackPort = 0;  // where sinks are called; 0: any that is free
    // Where the server asks for that port: 0: at the port of the sinks, which the sink's reference names. Servers on
    // Windows ask at 135, whatever the reference names; a program needs a privilege to listen there.
    std::uint16_t resolverPort = 0;
    // Who may call back besides the session's own account, whatever domain is given with the names.
    std::vector<ntlm::ClientAccount> callbackAccounts;
    bool allowCallbacksWithoutLogOn = false;

    // Takes a line for each step, for a user who wants to see them; no secrets are in there.
    std::function<void(const std::string&)> trace;
    // For tests: connections over something else than sockets, and names from elsewhere than the system's name service
    // (IPv4 addresses; none where a name is not known).
    outgoing::IDialer* dialer = nullptr;
    std::function<std::vector<std::string>(const std::string& name)> lookUp;
};

struct Activated {
    // S_OK, or another success where only some of the interfaces are there, or the server's failure.
    HResult result = S_OK;
    // In the order asked for; nothing where the result of the one is a failure.
    std::vector<std::pair<HResult, std::optional<Interface>>> interfaces;
};

// An object of this program that a server calls.
class ICallback {
 public:
    virtual ~ICallback() = default;
    // A call: parameters stands behind the header of object calls; what does not decode is answered with a fault. Gives
    // the method's HRESULT. What it throws is answered with a fault, and traced. Only to take note: no call to a server
    // may be made from within.
    virtual HResult called(std::uint16_t opnum, ndr::Reader& parameters) = 0;
};

class Session {
 public:
    // host: a name or a numeric IPv4 address; nothing is dialled yet. The loop must outlive the session.
    Session(AsioLoop& loop, std::string host, LogOn logOn, Settings settings = {});
    // Gives back all references, which takes a few seconds at most where the server no longer answers, and closes the
    // connections.
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Makes an object of the class, starting its program if need be, and gives these interfaces of it. Asks in the
    // younger form, and in the older one where the machine does not know that. Throws Trouble, ClassUnknown and
    // AccessDenied for these two results too. At least one interface.
    Activated activate(const Uuid& classId, std::span<const Uuid> iids);

    // A marshalled reference, for the server, of an object of this program that has one interface. Listens from the
    // first one on. marshalledAs: the interface that the method takes which the reference is handed over by; servers
    // ask such an object for the one that they call. The callback must outlive the session or withdraw(). Throws
    // Trouble (Address) where this end cannot listen, and where the server's address is not known.
    std::vector<std::uint8_t> exportObject(const Uuid& iid, ICallback& callback,
                                           const Uuid& marshalledAs = orpc::iidUnknown);
    // Calls to it are answered as to an object that is gone, from now on.
    void withdraw(ICallback& callback);

    // Lets callbacks come, and gives back what was let go of. Throws Trouble(Interrupted). The pings that keep objects
    // alive go out while a call waits, or here: a program that holds objects is to be in either every two minutes.
    void run(std::chrono::milliseconds limit);
    // The same until the condition holds, which is looked at whenever something has happened; gives whether it does.
    bool runUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit);

    // From a handler of the loop, a signal's: what waits throws Trouble(Interrupted), once; what nobody waited for, the
    // next wait. The session is good for further calls: to let go of what it made in the server.
    void interrupt();

    // Ends as a program does that dies: connections are closed, sinks answer no more, no pings go out, nothing is given
    // back. For checks of servers. Handles may be let go of and are good for nothing else.
    void abandon();

    // "192.0.2.7:40123": what the server would call. Empty before the first exportObject().
    std::string callbackAddress() const;
    // How the server's machine was reached: "10.0.0.5". Empty before.
    std::string serverAddress() const;
    // A call has come to one of the sinks, or a question for them: the way back is open.
    bool wasCalledBack() const;

 private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace quelm::dcom::client
