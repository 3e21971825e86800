#pragma once

// What the cases stand on: a client of the server, objects and groups that are made for one case and let go of behind
// it, items that the server is known to have, and a sink that writes down what the server calls.

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "OPC/Client/check/Case.h"
#include "dcom/client/Session.h"
#include "opcda/client/BrowseStubs.h"
#include "opcda/client/EnumeratorStubs.h"
#include "opcda/client/GroupStubs.h"
#include "opcda/client/ServerStubs.h"
#include "opcda/client/Sinks.h"

namespace quelm::opcclient::check {

using dcom::client::Interface;
using dcom::client::Session;
using opcda::OPC_E_BADRIGHTS;
using opcda::OPC_E_BADTYPE;
using opcda::OPC_E_DEADBANDNOTSET;
using opcda::OPC_E_DEADBANDNOTSUPPORTED;
using opcda::OPC_E_DUPLICATENAME;
using opcda::OPC_E_INVALID_PID;
using opcda::OPC_E_INVALIDCONTINUATIONPOINT;
using opcda::OPC_E_INVALIDFILTER;
using opcda::OPC_E_INVALIDHANDLE;
using opcda::OPC_E_INVALIDITEMID;
using opcda::OPC_E_NOBUFFERING;
using opcda::OPC_E_NOTSUPPORTED;
using opcda::OPC_E_RATENOTSET;
using opcda::OPC_E_UNKNOWNITEMID;
using opcda::OPC_E_UNKNOWNPATH;
using opcda::OPC_S_INUSE;
using opcda::OPC_S_UNSUPPORTEDRATE;
using opcda::VarType;
using opcda::VT_ARRAY;
using opcda::VT_BOOL;
using opcda::VT_BSTR;
using opcda::VT_DATE;
using opcda::VT_EMPTY;
using opcda::VT_I1;
using opcda::VT_I2;
using opcda::VT_I4;
using opcda::VT_NULL;
using opcda::VT_R4;
using opcda::VT_R8;
using opcda::VT_UI1;
using opcda::VT_UINT;
using opcda::client::ask;
using opcda::client::Errors;
using opcda::client::GroupRequest;
using opcda::client::IOPCItemMgt;
using opcda::client::IOPCServer;
using opcda::client::Maybe;
using opcda::client::Reply;
using opcda::client::Value;

// How the server under check is reached.
struct Target {
    std::function<std::unique_ptr<Session>()> connect;  // a further client, with a process of its own as servers see it
    Uuid classId;
    std::string progId;              // empty: not known
    std::vector<std::string> items;  // given by the user: the first known ones, those found by browsing behind them
    std::function<void(const std::string&)> tell;  // asks somebody at the server to do something
};

// An item that the server has, as it was found before the first case.
struct KnownItem {
    std::string id;
    VarType type = 0;  // canonical
    std::uint32_t rights = 0;
    Value value;
    std::uint16_t quality = 0;
};

// A group of the server with the handles that it gave.
struct Group {
    Interface state;  // by the interface that it was asked for
    std::uint32_t handle = 0;
    std::uint32_t rate = 0;            // ms, as the server revised it
    std::vector<std::uint32_t> items;  // server handles
};

// "IOPCSyncIO"; the id in digits for one that OPC DA does not know.
std::string interfaceName(const Uuid& iid);
// An interface id that nobody has.
inline constexpr Uuid unknownIid = Uuid::parse("7F0E2A41-93C5-4D18-A6B7-0C52E9D1384F");

// A callback as it came. Times: milliseconds of a clock that only goes forward.
struct Called {
    enum class Kind { DataChange, ReadComplete, WriteComplete, Cancel } kind;
    opcda::client::DataEvent data;  // of a write: without values; of a cancelled transaction: the two ids alone
    std::uint64_t at = 0;
};

class Sink {
 public:
    Sink(Session& session, const Interface& group);
    Sink(const Sink&) = delete;
    Sink& operator=(const Sink&) = delete;
    ~Sink();

    // S_OK, or why Advise failed.
    HResult advised() const { return result_; }
    std::uint32_t cookie() const { return cookie_; }
    const std::vector<Called>& calls() const { return calls_; }
    void forget() { calls_.clear(); }
    HResult unadvise();
    // Lets go of the connection point, which holds the group, without a word to it.
    void release() { point_.reset(); }

 private:
    void take(Called::Kind kind, const opcda::client::DataEvent& event);

    Session& session_;
    std::vector<Called> calls_;
    opcda::client::DataSink sink_;
    std::optional<opcda::client::IConnectionPoint> point_;
    HResult result_ = S_OK;
    std::uint32_t cookie_ = 0;
};

class Stage {
 public:
    // Finds the items that the cases use. Throws Trouble.
    Stage(AsioLoop& loop, Target target);
    ~Stage();

    // Around each case. A case has so long for all that it does; what it waits for then ends with Trouble(Interrupted)
    // and timeIsUp().
    void begin(std::chrono::milliseconds limit);
    void end() noexcept;
    void tell(const std::string& what) const { target_.tell(what); }
    bool timeIsUp() const { return timeIsUp_; }
    // What waits ends with Trouble(Interrupted).
    void interrupt();
    // After trouble with the connection: the next case has a new one.
    void reconnect();

    const Target& target() const { return target_; }
    AsioLoop& loop() { return loop_; }
    Session& session();
    // The client of others: a session of its own, until the end of the case.
    Session& otherSession();
    // Its program dies: without a word to anybody.
    void killOther();

    // A server object of this case. The first one is made when it is asked for.
    const Interface& server();
    IOPCServer opcServer() { return as<IOPCServer>(server()); }
    Interface newServer(Session& session);
    void dropServer() { server_.reset(); }

    // The other interface of the same object; ends the case where it is missing.
    template <class Typed>
    Typed as(const Interface& object) {
        auto reply = ask<Typed>(object);
        need(reply.out.has_value(), "there is no " + interfaceName(Typed::iid));
        return std::move(*reply.out);
    }
    // The same for an interface that OPC DA leaves to the server, or that is new in 3.0.
    template <class Typed>
    Typed asOffered(const Interface& object) {
        auto reply = ask<Typed>(object);
        if (!reply.out) {
            findings_->skip("the server does not offer " + interfaceName(Typed::iid));
        }
        return std::move(*reply.out);
    }

    // A group of the server object, active, 1000 ms unless asked for otherwise.
    Group group(const GroupRequest& request = {});
    Group groupOn(const Interface& server, const GroupRequest& request);
    // With so many items in it, the first ones known; client handles 100, 101 and so on.
    Group groupOf(std::size_t items, const GroupRequest& request = {});
    Group groupWith(const std::vector<std::string>& ids, const GroupRequest& request = {}, VarType type = 0);

    // Known items; both end the case where there are not so many.
    const KnownItem& item(std::size_t index = 0);
    const KnownItem& itemWhere(const std::function<bool(const KnownItem&)>& fits, std::string_view what);
    const std::vector<KnownItem>& items() const { return items_; }

    // The server knows then what was let go of.
    void settle() { wait(std::chrono::milliseconds(100)); }
    void wait(std::chrono::milliseconds time);
    bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit);

    // Of the case that runs.
    void use(Findings& findings) { findings_ = &findings; }

 private:
    void need(bool holds, std::string_view came) { findings_->need(holds, came); }
    void findItems();
    void describe(std::vector<std::string> ids);

    AsioLoop& loop_;
    Target target_;
    std::unique_ptr<Session> session_, other_;
    std::optional<Interface> server_;
    std::vector<KnownItem> items_;
    std::unique_ptr<ITimer> timer_;
    bool timeIsUp_ = false;
    Findings* findings_ = nullptr;
};

}  // namespace quelm::opcclient::check
