// How clients are called back: connection points, the messages to clients' objects, and what comes to nothing.

#include "OpcSupport.h"
#include "opcda/wire/OpcGroupObject.h"

namespace quelm::opcda::wire::test {
namespace {

class Callbacks : public OpcWire {
 protected:
    Callbacks() : handle_(addGroup("g")) {}

    Reply call(dcom::orpc::ComObject& object, ConnectionPoint method, std::span<const std::uint8_t> stub) {
        return OpcWire::call(object, {iidConnectionPoint, method}, stub);
    }
    using OpcWire::call;

    Object pointOf(dcom::orpc::ComObject& owner, const Uuid& iid) {
        EXPECT_HEX(call(owner, ConnectionPointContainer::FindConnectionPoint, Parameters().uuid(iid)).bytes,
                   interfacePointer + "00000000");
        return context_.written.back();
    }
    std::uint32_t advise(dcom::orpc::ComObject& point) {
        const Reply reply = call(point, ConnectionPoint::Advise, pointer(reference('5')));
        EXPECT_EQ(reply.result(), S_OK);
        return reply.reader().u32();
    }

    std::uint32_t handle_;
};

TEST_F(Callbacks, AreArrangedAtTheOneConnectionPointOfAnObject) {
    const struct {
        Object owner;
        Uuid offered;
        Uuid other;
    } cases[] = {{group_, iidOpcDataCallback, iidOpcShutdown}, {server_, iidOpcShutdown, iidOpcDataCallback}};
    for (const auto& [owner, offered, other] : cases) {
        const Object point = pointOf(*owner, offered);
        EXPECT_EQ(pointOf(*owner, offered), point);
        EXPECT_HEX(call(*owner, ConnectionPointContainer::FindConnectionPoint, Parameters().uuid(other)).bytes,
                   "00000000 00020480");
        EXPECT_HEX(call(*owner, ConnectionPointContainer::EnumConnectionPoints, {}).bytes,
                   interfacePointer + "00000000");
        EXPECT_HEX(
            call(*context_.written.back(), {iidEnumConnectionPoints, Enumeration::Next}, Parameters().u32(2)).bytes,
            "02000000 00000000 01000000 04000200 04000000 04000000 4D454F57 01000000 01000000");
        EXPECT_EQ(context_.written.back(), point);
        EXPECT_HEX(call(*point, ConnectionPoint::GetConnectionInterface, {}).bytes, Parameters().uuid(offered).u32(0));
        EXPECT_HEX(call(*point, ConnectionPoint::GetConnectionPointContainer, {}).bytes, interfacePointer + "00000000");
        EXPECT_EQ(context_.written.back(), owner);

        const std::uint32_t cookie = advise(*point);
        const auto& sink = *remotes_.objects.back();
        EXPECT_EQ(sink.request.iid, offered);
        EXPECT_EQ(sink.request.client, "OPC client 192.0.2.9:50000 (account 'PLANT\\historian')");
        EXPECT_EQ(sink.request.account, "PLANT\\historian");
        EXPECT_EQ(sink.request.host, "192.0.2.9");
        EXPECT_EQ(sink.request.reference.resolver, (std::vector<dcom::orpc::StringBinding>{{"10.0.0.2", 0}}));
        EXPECT_HEX(call(*point, ConnectionPoint::EnumConnections, {}).bytes, interfacePointer + "00000000");
        EXPECT_HEX(call(*context_.written.back(), {iidEnumConnections, Enumeration::Next}, Parameters().u32(2)).bytes,
                   Parameters()
                       .hex("02000000 00000000 01000000 04000200")
                       .u32(cookie)
                       .u32(98)
                       .u32(98)
                       .add(reference('0'))
                       .hex("0000 01000000 01000000"));
        EXPECT_HEX(call(*point, ConnectionPoint::Unadvise, Parameters().u32(cookie + 1)).bytes, "00020480");
        EXPECT_HEX(call(*point, ConnectionPoint::Unadvise, Parameters().u32(cookie)).bytes, "00000000");
        EXPECT_TRUE(sink.released);
        EXPECT_HEX(call(*point, ConnectionPoint::Unadvise, Parameters().u32(cookie)).bytes, "00020480");
    }
}

TEST_F(Callbacks, GoToNoObjectThatCannotBeCalled) {
    const Object point = pointOf(*group_, iidOpcDataCallback);
    const auto expectRefusal = [&](std::span<const std::uint8_t> stub, const char* reply) {
        EXPECT_HEX(call(*point, ConnectionPoint::Advise, stub).bytes, reply);
    };
    Bytes marshalledByItself = reference('5');
    marshalledByItself[4] = 4;
    expectRefusal(Parameters().u32(0), "00000000 57000780");
    expectRefusal(pointer(marshalledByItself), "00000000 02020480");
    expectRefusal(pointer(Bytes(20)), "00000000 02020480");
    expectRefusal(pointer({}), "00000000 02020480");
    remotes_.isFull = true;
    expectRefusal(pointer(reference('5')), "00000000 01020480");
    remotes_.isFull = false;
    Hold rest = memoryOf(server_->server().budget());
    rest.set(server_->server().budget()->memory.room());
    expectRefusal(pointer(reference('5')), "00000000 0E000780");
    EXPECT_TRUE(remotes_.objects.empty());
    EXPECT_HEX(call(*point, ConnectionPoint::EnumConnections, {}).bytes, "00000000 0E000780");
}

// A sink that was given up is the end of its own connection, whichever of the group's objects it was made at.
TEST_F(Callbacks, EndWithTheirObject) {
    const std::uint32_t first = advise(*pointOf(*group_, iidOpcDataCallback));
    context_.written.clear();
    group_.reset();
    EXPECT_EQ(call(OpcServer::GetGroupByName, Parameters().text("g").uuid(iidOpcItemMgt)).result(), S_OK);
    const Object point = pointOf(*context_.written.back(), iidOpcDataCallback);
    const std::uint32_t second = advise(*point);
    EXPECT_NE(first, second);
    FakeRemoteObjects::giveUp(*remotes_.objects.at(0));
    EXPECT_TRUE(remotes_.objects.at(0)->released);
    EXPECT_FALSE(remotes_.objects.at(1)->released);
    call(*point, ConnectionPoint::EnumConnections, {});
    const Reply left = call(*context_.written.back(), {iidEnumConnections, Enumeration::Next}, Parameters().u32(2));
    EXPECT_HEX(std::span(left.bytes).subspan(8, 12), Parameters().hex("01000000 04000200").u32(second));
    EXPECT_EQ(call(*point, ConnectionPoint::Unadvise, Parameters().u32(first)).result(), CONNECT_E_NOCONNECTION);
    EXPECT_EQ(call(OpcServer::RemoveGroup, Parameters().u32(handle_).u32(0)).result(), OPC_S_INUSE);
    EXPECT_TRUE(remotes_.objects.at(1)->released);
    EXPECT_EQ(call(*point, ConnectionPoint::Unadvise, Parameters().u32(second)).result(), E_FAIL);
}

// Every message as it goes out, sent by a sink of a group that knows nothing of it.
TEST_F(Callbacks, AreMessagesToTheClientsObject) {
    const auto budget = server_->server().budget();
    Group& group = dynamic_cast<OpcGroupObject&>(*group_).group();
    auto connection =
        std::make_unique<SinkConnection>(outgoing_, std::make_shared<ConnectionBook>(), memoryOf(budget), Bytes{});
    ASSERT_TRUE(connection->reach({}));
    DataSink sink(group, std::move(connection));
    const auto& calls = remotes_.objects.at(0)->calls;

    CallbackItems items{7, 9, S_FALSE, S_OK, {100, 101, 102}, {quality::good, 0x40, 0}, {}, {S_OK, S_OK, E_FAIL}};
    items.fileTimes.assign(3, timeSource().fileTimeNow());
    OpcValue value;
    messages_.begin(ValueForm::marshalled);
    for (const Variant& each : {Variant(12.5F), Variant("A"), Variant()}) {
        EXPECT_EQ(convert(each, VT_EMPTY, value), S_OK);
        messages_.add(value);
    }
    EXPECT_EQ(messages_.size(), 84U);
    sink.onDataChange(items);
    EXPECT_EQ(calls.back().opnum, 3);
    EXPECT_HEX(calls.back().parameters,
               "07000000 09000000 01000000 00000000 03000000"
               "03000000 64000000 65000000 66000000"
               "03000000 04000200 08000200 0C000200 00000000"
               "03000000 00000000 0400 000000000000 04000000 00004841"
               "05000000 00000000 0800 000000000000 08000000 04000200 01000000 02000000 01000000 4100 0000"
               "03000000 00000000 0000 000000000000 00000000"
               "03000000 C000 4000 0000 0000"
               "03000000" STAMP STAMP STAMP "03000000 00000000 00000000 05400080");

    // Nothing changed, but the client wants to hear of it: no array is missing.
    const std::size_t before = budget->memory.used();
    messages_.begin(ValueForm::marshalled);
    sink.onDataChange({0, 9, S_OK, S_OK, {}, {}, {}, {}});
    EXPECT_HEX(calls.back().parameters,
               "00000000 09000000 00000000 00000000 00000000 00000000 00000000 00000000 00000000 00000000");
    EXPECT_GT(budget->memory.used(), before);
    // A text of odd length as the last value, with what the next column needs behind it and no more.
    const Variant odd("A");
    EXPECT_EQ(convert(odd, VT_EMPTY, value), S_OK);
    messages_.begin(ValueForm::marshalled);
    messages_.add(value);
    sink.onReadComplete({8, 9, S_OK, S_OK, {100}, {quality::good}, {0}, {S_OK}});
    EXPECT_EQ(calls.back().opnum, 4);
    EXPECT_HEX(calls.back().parameters,
               "08000000 09000000 00000000 00000000 01000000 01000000 64000000 01000000 04000200 00000000"
               "05000000 00000000 0800 000000000000 08000000 04000200 01000000 02000000 01000000 4100 0000"
               "01000000 C000 0000 01000000 00000000 00000000 01000000 00000000");
    sink.onWriteComplete(10, 9, S_FALSE, Handles{100, 101}, std::vector<HResult>{OPC_E_BADRIGHTS, S_OK});
    EXPECT_EQ(calls.back().opnum, 5);
    EXPECT_HEX(calls.back().parameters,
               "0A000000 09000000 01000000 02000000 02000000 64000000 65000000 02000000 060004C0 00000000");
    sink.onCancelComplete(11, 9);
    EXPECT_EQ(calls.back().opnum, 6);
    EXPECT_HEX(calls.back().parameters, "0B000000 09000000");
    for (std::size_t left = 5; left > 0; --left) {
        EXPECT_EQ(sink.unanswered(), left);
        FakeRemoteObjects::answer(*remotes_.objects.at(0));
    }
    EXPECT_EQ(sink.unanswered(), 0U);
}

// Whatever was begun ends in one message, which carries the client's own number.
TEST_F(Callbacks, AnswerAsynchronousCalls) {
    Handles handles = addItems({"A.Count", "Switch"});
    handles.push_back(0xBAD);
    const Parameters all = Parameters().counted(handles).u32(7);
    Parameters values;
    values.counted(handles).u32(3).u32(0).u32(0).u32(0).u32(8);
    const Parameters once = Parameters().u16(1).u32(9);
    const std::pair<Method, const char*> unconnected[] = {
        {AsyncIo2::Read, "00000000 00000000 00020480"}, {AsyncIo2::Write, "00000000 00000000 00020480"},
        {AsyncIo2::Refresh2, "00000000 00020480"},      {AsyncIo2::SetEnable, "00020480"},
        {AsyncIo2::GetEnable, "00000000 00020480"},     {AsyncIo2::Cancel2, "05400080"},
    };
    for (const auto& [method, reply] : unconnected) {
        const Parameters& request = method.is(AsyncIo2::Refresh2) ? once : method.is(AsyncIo2::Write) ? values : all;
        EXPECT_HEX(call(method, request).bytes, reply) << method;
    }
    const Object point = pointOf(*group_, iidOpcDataCallback);
    const std::uint32_t cookie = advise(*point);
    const auto sink = remotes_.objects.back();
    const auto next = [&] {
        loop_.advance(0);
        EXPECT_EQ(sink->calls.size(), 1U);
        return sink->calls.empty() ? FakeRemoteObjects::Call{} : FakeRemoteObjects::answer(*sink);
    };
    const std::string readings =
        "02000000 64000000 65000000 02000000 04000200 08000200 00000000"
        "03000000 00000000 0300 000000000000 03000000 07000000"
        "03000000 00000000 0B00 000000000000 0B000000 FFFF0000"
        "02000000 C000 C000 02000000" STAMP STAMP "02000000 00000000 00000000";
    FakeRemoteObjects::Call answer = next();
    EXPECT_EQ(answer.opnum, 3) << "all items, once";
    EXPECT_HEX(answer.parameters, "00000000 05000000 00000000 00000000 02000000" + readings);

    EXPECT_HEX(call(AsyncIo2::Read, all).bytes, "01000000 04000200 03000000 00000000 00000000 010004C0 01000000");
    answer = next();
    EXPECT_EQ(answer.opnum, 4);
    EXPECT_HEX(answer.parameters, "07000000 05000000 00000000 00000000 02000000" + readings);
    EXPECT_EQ(events_.reads, std::vector<std::int32_t>{2});

    EXPECT_HEX(call(AsyncIo2::Write, values).bytes, "02000000 04000200 03000000 00000000 00000000 010004C0 01000000");
    answer = next();
    EXPECT_EQ(answer.opnum, 5);
    EXPECT_HEX(answer.parameters,
               "08000000 05000000 01000000 02000000 02000000 64000000 65000000 02000000 05400080 05400080");

    const Parameters young = Parameters().u32(1000).u32(9);
    EXPECT_HEX(call(AsyncIo2::Refresh2, once).bytes, "03000000 00000000");
    EXPECT_HEX(next().parameters, "09000000 05000000 00000000 00000000 02000000" + readings);
    EXPECT_HEX(call(AsyncIo3::RefreshMaxAge, young).bytes, "04000000 00000000");
    answer = next();
    EXPECT_EQ(answer.opnum, 3);
    EXPECT_HEX(answer.parameters, "09000000 05000000 00000000 00000000 02000000" + readings);

    const std::string oneBad = "04000200 03000000 00000000 00000000 010004C0 01000000";
    EXPECT_HEX(call(AsyncIo3::ReadMaxAge, Parameters().counted(handles).array(Handles{0, 1000, 0}).u32(7)).bytes,
               "05000000" + oneBad);
    EXPECT_HEX(next().parameters, "07000000 05000000 00000000 00000000 02000000" + readings);
    EXPECT_EQ(events_.reads, (std::vector<std::int32_t>{2, 1}));
    EXPECT_HEX(call(AsyncIo3::WriteVqt, Parameters().counted(handles).u32(3).add(Bytes(3 * 28)).u32(8)).bytes,
               "06000000" + oneBad);
    EXPECT_HEX(next().parameters,
               "08000000 05000000 01000000 02000000 02000000 64000000 65000000 02000000 05400080 05400080");

    EXPECT_EQ(call({iidOpcAsyncIo3, Method(AsyncIo2::Read).opnum}, all).result(), S_FALSE);
    EXPECT_HEX(call({iidOpcAsyncIo3, Method(AsyncIo2::Cancel2).opnum}, Parameters().u32(7)).bytes, "00000000");
    answer = next();
    EXPECT_EQ(answer.opnum, 6);
    EXPECT_HEX(answer.parameters, "07000000 05000000");

    EXPECT_HEX(call(AsyncIo2::GetEnable, {}).bytes, "01000000 00000000");
    EXPECT_HEX(call(AsyncIo2::SetEnable, Parameters().u32(0)).bytes, "00000000");
    EXPECT_HEX(call(AsyncIo2::GetEnable, {}).bytes, "00000000 00000000");
    EXPECT_HEX(call(AsyncIo2::Read, Parameters().u32(0).u32(0).u32(7)).bytes, "00000000 00000000 57000780");

    EXPECT_EQ(call(AsyncIo2::Read, all).result(), S_FALSE);
    EXPECT_EQ(call(*point, ConnectionPoint::Unadvise, Parameters().u32(cookie)).result(), S_OK);
    loop_.advance(1000);
    EXPECT_TRUE(sink->calls.empty()) << "nothing comes after Unadvise";
}

TEST_F(Callbacks, AskClientsToLetGo) {
    advise(*pointOf(*server_, iidOpcShutdown));
    const auto sink = remotes_.objects.back();
    for (int attempt = 0; attempt < 2; ++attempt) {
        application_.requestShutdown("Bye");
    }
    EXPECT_EQ(outgoing_.shutdownRequests, 1U) << "who has not answered is not asked again";
    const FakeRemoteObjects::Call asked = FakeRemoteObjects::answer(*sink);
    EXPECT_EQ(asked.opnum, 3);
    EXPECT_HEX(asked.parameters, "04000000 00000000 04000000 4200 7900 6500 0000");
    EXPECT_EQ(outgoing_.shutdownRequests, 0U);
    application_.requestShutdown("Bye");
    EXPECT_EQ(outgoing_.shutdownRequests, 1U);
    server_.reset();
    context_.written.clear();
    EXPECT_EQ(outgoing_.shutdownRequests, 0U);
}

}  // namespace
}  // namespace quelm::opcda::wire::test
