// A program's dealings with a server, over real sockets: good ones at every level, and servers that refuse, hang, end
// or lie.

#include "client/ServerWorld.h"

#include "dcom/orpc/RemoteActivation.h"

namespace quelm::dcom::client::test {
namespace {

using rpc::AuthLevel;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Kind = Trouble::Kind;
using std::chrono::milliseconds;

const std::array wanted{iidServer, iidNobody};

class Dealings : public ServerWorld {
 protected:
    static std::uint32_t echo(const Interface& object) {
        const Bytes results = object.call(6, [](ndr::Writer& out) { out.u32(42); });
        return ndr::Reader(results).u32();
    }
    // What an action comes to: "Refused: sentence", or "" where it comes to nothing bad.
    template <class Action>
    static std::string trouble(const Action& action) {
        try {
            action();
        } catch (const Trouble& caught) {
            return std::string(kindName(caught.kind)) + ": " + caught.what();
        }
        return {};
    }
    Interface activate(Session& session) {
        return *session.activate(classTest, std::array{iidServer}).interfaces.at(0).second;
    }
};

TEST_F(Dealings, MakeCallAskAndLetGoAtEveryLevelInBothForms) {
    wire.minimumLevel = AuthLevel::None;
    const struct {
        LogOn logOn;
        bool olderForm;
    } cases[] = {{{}, false},
                 {{}, true},
                 {logOn(AuthLevel::Connect), false},
                 {logOn(AuthLevel::Integrity), false},
                 {logOn(AuthLevel::Privacy), true}};
    for (const auto& entry : cases) {
        events.clear();
        activationGate.hidden = entry.olderForm ? std::optional(orpc::iidRemoteScmActivator) : std::nullopt;
        AuthLevel level = AuthLevel::None;
        objectGate.answer = [&](const rpc::Call& call, ndr::Writer&) -> std::optional<Fault> {
            level = call.level;
            return std::nullopt;
        };
        Session session(loop, "127.0.0.1", entry.logOn, settings());
        auto made = session.activate(classTest, wanted);
        EXPECT_EQ(made.result, S_OK);
        EXPECT_EQ(made.interfaces.at(1).first, E_NOINTERFACE);
        EXPECT_FALSE(made.interfaces.at(1).second);
        std::optional<Interface> server = made.interfaces.at(0).second;
        made.interfaces.clear();
        EXPECT_EQ(echo(*server), 42U);
        // The exporter asks for connect at least, where there is an account to come with.
        EXPECT_EQ(level, entry.logOn.account ? entry.logOn.level : AuthLevel::None);

        EXPECT_EQ(server->query(iidNobody).result, E_NOINTERFACE);
        std::optional<Interface> browse = server->query(iidBrowse).interface;
        EXPECT_EQ(browse->iid(), iidBrowse);
        EXPECT_EQ(browse->oid(), server->oid());
        factory->latest->child = std::make_shared<orpc::test::TestObject>("group", events);
        const Bytes results = server->call(3);
        ndr::Reader in(results);
        EXPECT_TRUE(in.pointer());
        std::optional<Interface> group = server->adopt(orpc::readInterfacePointer(in));
        EXPECT_FALSE(server->adopt({}));
        factory->latest->child.reset();
        EXPECT_EQ(echo(*group), 42U);
        EXPECT_EQ(exporter.objectCount(), 2U);

        group.reset();
        EXPECT_THAT(events, IsEmpty()) << "with the next call";
        EXPECT_EQ(echo(*browse), 42U);
        EXPECT_THAT(events, ElementsAre("group"));
        server.reset();
        session.run(milliseconds(0));
        EXPECT_EQ(exporter.objectCount(), 1U) << "another interface of it is held";
        browse.reset();
        session.run(milliseconds(0));
        EXPECT_EQ(exporter.objectCount(), 0U);
    }
}

// A machine of two addresses, of which only one is served; what is held is pinged.
TEST_F(Dealings, EndWithTheSessionWhateverIsStillHeld) {
    std::optional<Interface> server;
    std::vector<std::string> steps;
    int pings = 0;
    activationGate.answer = [&pings](const rpc::Call& call, ndr::Writer&) -> std::optional<Fault> {
        pings += call.interfaceId == orpc::iidObjectExporter ? 1 : 0;
        return std::nullopt;
    };
    Settings with = settings();
    with.lookUp = [](const std::string& name) { return std::vector<std::string>{"127.0.0." + name, "127.0.0.1"}; };
    with.trace = [&steps](const std::string& step) { steps.push_back(step); };
    with.pingPeriod = milliseconds(20);
    {
        Session session(loop, "9", logOn(), with);
        server = activate(session);
        EXPECT_EQ(session.serverAddress(), "127.0.0.1");
        Interface dropped = activate(session);
        EXPECT_TRUE(session.runUntil([&pings] { return pings == 2; }, std::chrono::seconds(20)));
    }
    ASSERT_GT(steps.size(), 3U);
    steps.resize(4);
    const std::string port = ':' + std::to_string(activationPort);
    EXPECT_THAT(steps, ElementsAre("9 is 127.0.0.9", HasSubstr("nobody listens at 127.0.0.9" + port),
                                   "connected to 127.0.0.1" + port + ", level integrity",
                                   "connected to 127.0.0.1" + port + ", level integrity"));
    EXPECT_EQ(exporter.objectCount(), 1U);
    EXPECT_THROW(server->call(6), std::logic_error);
    EXPECT_THROW(server->query(iidBrowse), std::logic_error);
    server.reset();
}

// The sink of a client, and the server that calls it with an account of its own.
class Sink final : public ICallback {
 public:
    HResult called(std::uint16_t opnum, ndr::Reader& parameters) override {
        calls.push_back(fmt::format("{} {}", opnum, parameters.u32()));
        return onCall ? onCall() : S_OK;
    }
    std::vector<std::string> calls;
    std::function<HResult()> onCall;
};

class CalledBack : public Dealings {
 protected:
    // Has the server call an object that it was handed the reference of; gives the sink's calls and what the server
    // has to say in the end.
    std::vector<std::string> callBack(Session& session, Sink& sink, const Uuid& marshalledAs,
                                      std::optional<ntlm::ClientAccount> serverAccount) {
        const auto reference = session.exportObject(iidBrowse, sink, marshalledAs);
        EXPECT_THAT(session.callbackAddress(), HasSubstr("127.0.0.1:"));
        EXPECT_THAT(trouble([&] { activate(session).adopt(reference); }), HasSubstr("Garbage"))
            << "a server that hands it back";
        outgoing::CallSettings callSettings;
        callSettings.allowNoLogOn = !serverAccount;
        callSettings.account = std::move(serverAccount);
        outgoing::RemoteProcesses processes(
            {dialer, loop, callSettings, [&](auto&, auto&, const std::string& line) { sink.calls.push_back(line); }});
        bool isOver = false;
        orpc::RemoteObjectRequest request{
            *orpc::parseRemoteReference(reference), iidBrowse, "client", {}, "127.0.0.1", [&isOver] { isOver = true; }};
        EXPECT_EQ(request.reference.iid, marshalledAs);
        const auto object = processes.connect(std::move(request));
        Bytes parameters(4, 7);
        object->call(3, std::make_shared<Bytes>(parameters), [] {});
        object->call(4, std::make_shared<Bytes>(Bytes(2)), [&isOver] { isOver = true; });
        EXPECT_TRUE(session.runUntil([&] { return isOver || !sink.calls.empty(); }, std::chrono::seconds(20)));
        if (session.wasCalledBack() && sink.calls.front().starts_with("3")) {
            EXPECT_TRUE(session.runUntil([&] { return isOver; }, std::chrono::seconds(20)));
        }
        return sink.calls;
    }

    net::TcpDialer dialer{loop};
};

TEST_F(CalledBack, ByWhomTheSettingsLetIn) {
    const auto own = account("ELSEWHERE", "Reader", "secret");
    const auto other = account("", "opcserver", "other");
    const auto wrong = account("PLANT", "reader", "wrong");
    const struct {
        const char* name;
        Uuid marshalledAs;
        std::optional<ntlm::ClientAccount> server;
        bool open;
        const char* first;
    } cases[] = {{"own account", orpc::iidUnknown, own, false, "3 117901063"},
                 {"as its interface", iidBrowse, own, false, "3 117901063"},
                 {"further account", orpc::iidUnknown, other, false, "3 117901063"},
                 {"wrong password", orpc::iidUnknown, wrong, false, "refused the log-on"},
                 {"no log-on, allowed", orpc::iidUnknown, {}, true, "3 117901063"},
                 {"no log-on", orpc::iidUnknown, {}, false, "refused the log-on"}};
    for (const auto& entry : cases) {
        SCOPED_TRACE(entry.name);
        Settings with = settings();
        with.callbackAccounts = {other};
        with.allowCallbacksWithoutLogOn = entry.open;
        Session session(loop, "127.0.0.1", logOn(), with);
        activate(session);
        Sink sink;
        EXPECT_EQ(session.callbackAddress(), "");
        sink.onCall = [&] {  // nothing may wait within
            EXPECT_THROW(session.run(milliseconds(1)), std::logic_error);
            return S_OK;
        };
        const auto calls = callBack(session, sink, entry.marshalledAs, entry.server);
        ASSERT_FALSE(calls.empty());
        EXPECT_THAT(calls.front(), HasSubstr(entry.first));
        if (calls.front() == entry.first) {  // and parameters that cannot be read
            EXPECT_THAT(calls, ElementsAre(entry.first, "4 0", HasSubstr("answered with 0x000006f7")));
        }
        EXPECT_TRUE(session.wasCalledBack());
    }
}

TEST_F(Dealings, SaysWhatIsWrongAndWhatToDo) {
    const auto with = [this](auto change) {
        Settings result = settings();
        change(result);
        return result;
    };
    Session host(loop, "", logOn(), settings());
    EXPECT_THAT(trouble([&] { activate(host); }), HasSubstr("Address: "));
    const struct {
        LogOn logOn;
        Settings settings;
        std::function<std::optional<Fault>(const rpc::Call&, ndr::Writer&)> answer;
        Uuid classId;
        const char* expected;
    } cases[] = {
        {logOn(AuthLevel::Integrity, "wrong"), settings(), {}, classTest, "LogOnRefused"},
        {{}, settings(), {}, classTest, "LogOnRefused"},
        {logOn(), with([](Settings& s) { s.activationPort = 1; }), {}, classTest, "Refused: nobody listens at 127"},
        {logOn(), settings(), {}, orpc::test::classUnknown, "ClassUnknown"},
        {logOn(), settings(), [](auto&, auto&) { return Fault::ServerTooBusy; }, classTest, "Fault: 127"},
        {logOn(), with([](Settings& s) { s.callLimit = milliseconds(20); }),
         [](auto&, auto&) { return Fault::Deferred; }, classTest, "TimeLimit"},
        {logOn(), with([](Settings& s) { s.maxAnswer = 100; }), {}, classTest, "Garbage"},
        {logOn(), settings(),
         [](auto&, ndr::Writer& reply) {
             reply.u64(0);
             return Fault::None;
         },
         classTest, "Garbage"},
        {logOn(), settings(),
         [this](auto&, auto&) {
             loop.post([this] { tcp.close(); });
             return Fault::Deferred;
         },
         classTest, "Closed"},
    };
    std::vector<rpc::CallTicket> tickets;
    for (const auto& entry : cases) {
        SCOPED_TRACE(entry.expected);
        activationGate.answer = {};
        if (entry.answer) {
            activationGate.answer = [&](const rpc::Call& call, ndr::Writer& reply) -> std::optional<Fault> {
                const auto fault = entry.answer(call, reply);
                tickets.push_back(fault == Fault::Deferred ? call.defer() : rpc::CallTicket());
                return fault;
            };
        }
        Session session(loop, "127.0.0.1", entry.logOn, entry.settings);
        EXPECT_THAT(trouble([&] { session.activate(entry.classId, wanted); }),
                    AllOf(testing::StartsWith(entry.expected), HasSubstr("; ")));
    }
}

// What a server that lies can do to the calls of an object.
TEST_F(Dealings, WithAServerThatLies) {
    using Answer = std::function<Fault(ndr::Writer&)>;
    const auto reference = [](std::uint64_t oxid, const Uuid& ipid, std::string_view resolver) {
        Bytes bytes;
        ndr::Writer out(bytes);
        out.u32(orpc::objectSignature);
        out.u32(orpc::standardReference);
        out.uuid(iidServer);
        orpc::writeObjectReference(out, {5, oxid, 1, ipid});
        orpc::Bindings(std::string(resolver), {}, 0).write(out);
        return bytes;
    };
    const Uuid ipid = Uuid::parse("00000001-0000-0000-0000-0000000000AA");
    Session session(loop, "127.0.0.1", logOn(), settings());
    const Interface server = activate(session);
    for (const Answer& answer :
         std::initializer_list<Answer>{[](ndr::Writer&) { return Fault::None; },
                                       [](ndr::Writer& out) {  // as many extensions as there are numbers
                                           out.u32(0);
                                           out.u32(1);
                                           out.u32(0xFFFFFFFF);
                                           out.u32(0);
                                           out.u32(1);
                                           out.u32(0xFFFFFFFF);
                                           return Fault::None;
                                       }}) {
        objectGate.answer = [&](const rpc::Call&, ndr::Writer& out) { return answer(out); };
        EXPECT_THAT(trouble([&] { server.call(6); }), HasSubstr("Garbage"));
        EXPECT_THAT(trouble([&] { server.query(iidBrowse); }), HasSubstr("Garbage"));
    }
    objectGate.answer = {};
    EXPECT_THAT(trouble([&] { server.adopt(Bytes(20)); }), HasSubstr("Garbage"));
    EXPECT_THAT(trouble([&] { server.adopt(reference(5, Uuid{}, "127.0.0.1")); }), HasSubstr("Garbage"));
    EXPECT_EQ(echo(*server.adopt(reference(server.oxid(), server.ipid(), "127.0.0.1"))), 42U) << "nothing is wrong";
    // A process that nobody knows, at a machine that is this one or none; its resolver is the server's own.
    std::vector<Interface> astray;
    for (std::uint64_t oxid = 1; trouble([&] {
                                     astray.push_back(*server.adopt(
                                         reference(oxid, ipid, "127.0.0.1[" + std::to_string(activationPort) + ']')));
                                 }).empty();
         ++oxid) {
        ASSERT_LT(oxid, 100U);
    }
    EXPECT_THAT(trouble([&] { astray.front().call(6); }), HasSubstr("Garbage"));
    astray.clear();
    EXPECT_THAT(trouble([&] { server.adopt(reference(1000, ipid, "224.0.0.1"))->call(6); }), HasSubstr("Refused"))
        << "at the server's own machine";

    exporter.revokeAll();
    try {
        server.call(6);
        FAIL();
    } catch (const Trouble& gone) {
        EXPECT_EQ(gone.code, static_cast<std::uint32_t>(RPC_E_DISCONNECTED));
    }
}

TEST_F(Dealings, GoOnAfterAnInterruptionAndAfterTheConnectionEnded) {
    Session session(loop, "127.0.0.1", logOn(), settings());
    const Interface server = activate(session);
    EXPECT_EQ(echo(server), 42U);
    std::vector<rpc::CallTicket> tickets;
    objectGate.answer = [&](const rpc::Call& call, ndr::Writer&) {
        tickets.push_back(call.defer());
        loop.post([&] { session.interrupt(); });
        return Fault::Deferred;
    };
    EXPECT_THAT(trouble([&] { server.call(6); }), HasSubstr("Interrupted"));
    objectGate.answer = {};
    EXPECT_EQ(echo(server), 42U);
    session.interrupt();
    EXPECT_THAT(trouble([&] { session.run(std::chrono::seconds(20)); }), HasSubstr("Interrupted"));

    bool isClosed = false;
    loop.post([&] {
        tcp.close();
        isClosed = true;
    });
    EXPECT_TRUE(session.runUntil([&] { return isClosed; }, std::chrono::seconds(20)));
    session.run(milliseconds(5));
    EXPECT_THAT(trouble([&] { server.call(6); }), HasSubstr("Refused: nobody listens")) << "was dialled anew";
}

}  // namespace
}  // namespace quelm::dcom::client::test
