// What this end says as a client, against our own server's end, and answers that are cut or hostile.

#include "dcom/orpc/RemoteCalls.h"

#include "dcom/orpc/RemoteActivation.h"
#include "orpc/OrpcWorld.h"

namespace quelm::dcom::orpc::test {

class RemoteCalls : public World {
 protected:
    template <class Write>
    static Bytes stub(Write write) {
        Bytes bytes;
        ndr::Writer out(bytes);
        write(out);
        return bytes;
    }
    // The answer to this request, and that none of its beginnings passes for it.
    template <class Parse>
    auto answered(Parse parse, rpc::CallHandler& port, const Uuid& iid, const Uuid* ipid, std::uint16_t opnum,
                  const Bytes& request) {
        send(port, peer(1), iid, ipid, opnum, request);
        EXPECT_EQ(status, Fault::None);
        for (std::size_t size = 0; size < reply.size(); ++size) {
            EXPECT_FALSE(parse(std::span(reply).first(size))) << size;
        }
        return parse(reply).value();
    }
};

TEST_F(RemoteCalls, FindAnObjectAskForAnInterfaceAndLetGo) {
    const Uuid ipid = activate();
    const std::uint64_t oxid = exporter.oxid();
    const auto resolved =
        answered(parseResolveOxid2, activation, iidObjectExporter, nullptr, opnumOf(ObjectExporterCall::ResolveOxid2),
                 stub([oxid](ndr::Writer& out) { writeResolveOxid2(out, oxid); }));
    EXPECT_EQ(resolved.status, 0U);
    EXPECT_EQ(resolved.levelHint, 2U);
    const std::vector<StringBinding> expected{{"192.0.2.1", 49200}, {"quelm-srv", 49200}};
    EXPECT_EQ(resolved.bindings, expected) << "each one once";

    const auto ask = [&](const Uuid& iid) {
        return answered(parseRemQueryInterface, objects, iidRemUnknown, &resolved.remUnknownIpid,
                        opnumOf(RemUnknownCall::QueryInterface),
                        stub([&](ndr::Writer& out) { writeRemQueryInterface(out, {}, ipid, iid, 5); }));
    };
    EXPECT_EQ(ask(iidNobody).result, E_NOINTERFACE);
    const QueriedInterface queried = ask(iidBrowse);
    EXPECT_EQ(queried.result, S_OK);
    EXPECT_EQ(queried.reference.publicReferences, 5U);
    EXPECT_EQ(queried.reference.oxid, oxid);
    EXPECT_EQ(queried.reference.oid, lastOid);

    const std::vector<HeldReferences> held{HeldReferences{queried.reference.ipid, 5}, HeldReferences{ipid, 5}};
    send(objects, peer(1), iidRemUnknown, &resolved.remUnknownIpid, opnumOf(RemUnknownCall::Release),
         stub([&held](ndr::Writer& out) { writeRemRelease(out, {}, held); }));
    EXPECT_EQ(exporter.objectCount(), 0U);
}

TEST_F(RemoteCalls, AskForAnObjectInBothForms) {
    const std::vector<Uuid> iids{iidServer, iidNobody, iidBrowse};
    const struct {
        Uuid iid;
        std::uint16_t opnum;
        decltype(&writeCreateInstance) write;
        decltype(&parseCreateInstance) parse;
    } forms[] = {{iidRemoteScmActivator, 4, writeCreateInstance, parseCreateInstance},
                 {iidActivation, 0, writeRemoteActivation, parseRemoteActivation}};
    for (const auto& form : forms) {
        const auto request = [&](const Uuid& classId) {
            return stub([&](ndr::Writer& out) { form.write(out, {}, classId, iids); });
        };
        const auto made = answered(form.parse, activation, form.iid, nullptr, form.opnum, request(classTest));
        EXPECT_EQ(made.result, S_OK);
        EXPECT_EQ(made.oxid, exporter.oxid());
        EXPECT_EQ(made.process.remUnknownIpid, exporter.remUnknownIpid());
        EXPECT_EQ(made.process.levelHint, 2U);
        EXPECT_EQ(made.process.minorVersion, 7U);
        const std::vector<StringBinding> bindings{{"192.0.2.1", 49200}, {"quelm-srv", 49200}};
        EXPECT_EQ(made.process.bindings, bindings);
        ASSERT_EQ(made.interfaces.size(), 3U);
        EXPECT_EQ(made.interfaces[1].result, E_NOINTERFACE);
        EXPECT_FALSE(made.interfaces[1].reference);
        EXPECT_EQ(made.interfaces[2].reference->iid, iidBrowse);
        EXPECT_TRUE(alive(peer(2), made.interfaces[0].reference->object.ipid));

        send(activation, peer(1), form.iid, nullptr, form.opnum, request(classTest));
        for (std::size_t at = 0; at < reply.size(); ++at) {  // whatever stands there, it ends
            for (const std::uint8_t value : {0x00, 0x7F, 0xFF}) {
                Bytes damaged = reply;
                damaged[at] = value;
                form.parse(damaged);
            }
        }
        send(activation, peer(1), form.iid, nullptr, form.opnum, request(classUnknown));
        EXPECT_EQ(form.parse(reply).value().result, REGDB_E_CLASSNOTREG);
    }
    // As clients on Windows lay the younger one out: blob, list of the properties, properties.
    Parameters expected = Parameters().hex("05000700 00000000 00000000 00000000000000000000000000000000 00000000");
    expected.hex("00000000 04000200 A0010000 A0010000 4D454F57 04000000");
    expected.hex("A201000000000000C000000000000046 3803000000000000C000000000000046 00000000 78010000");
    expected.hex("68010000 00000000 01100800 CCCCCCCC 88000000 00000000 68010000 98000000 00000000 02000000 04000000");
    expected.uuid({}).hex("04000200 08000200 00000000 04000000 AB01000000000000C000000000000046");
    expected.hex("A501000000000000C000000000000046 A401000000000000C000000000000046 AA01000000000000C000000000000046");
    expected.hex("04000000 58000000 28000000 20000000 30000000");
    expected.hex("01100800 CCCCCCCC 48000000 00000000").uuid(classTest).hex("14000000 00000000 00000000 01000000");
    expected.hex("00000000 04000200 58000000 05000700 01000000").uuid(iidServer).u32(0);
    expected.hex("01100800 CCCCCCCC 18000000 00000000").add(Bytes(24)).hex("01100800 CCCCCCCC 10000000 00000000");
    expected.add(Bytes(16)).hex("01100800 CCCCCCCC 20000000 00000000 00000000 04000200 03000000 01000000 08000200");
    expected.hex("01000000 0700 0000 00000000");
    EXPECT_HEX(stub([](ndr::Writer& out) { writeCreateInstance(out, {}, classTest, std::array{iidServer}); }),
               expected);
}

TEST_F(RemoteCalls, PingASet) {
    activate();
    const std::array oids{lastOid};
    const auto made =
        answered(parseComplexPing, activation, iidObjectExporter, nullptr, opnumOf(ObjectExporterCall::ComplexPing),
                 stub([&oids](ndr::Writer& out) { writeComplexPing(out, 0, 1, oids, {}); }));
    EXPECT_EQ(made.status, 0U);
    const std::uint32_t pinged =
        answered(parseSimplePing, activation, iidObjectExporter, nullptr, opnumOf(ObjectExporterCall::SimplePing),
                 stub([&made](ndr::Writer& out) { writeSimplePing(out, made.setId); }));
    EXPECT_EQ(pinged, 0U);
}

TEST_F(RemoteCalls, ReadAReferenceAsAClientMarshalsIt) {
    const auto reference = [](const std::string& units) {
        return fromHex(
            "4D454F57 01000000 0000000000000000C000000000000046 00000000 05000000 0102030405060708"
            "1112131415161718 AABBCCDD00000000C000000000000046" +
            units);
    };
    // "10.1.2.3[44717]", "pc7", another protocol's, an empty one, one with a bad port; then a security binding.
    const Bytes good = reference(
        "26002200 0700 31003000 2E003100 2E003200 2E003300 5B003400 34003700 31003700 5D000000 0700 70006300 37000000"
        "0F00 61000000 0700 0000 0700 78005B00 30005D00 0000 0000 0A00FFFF 00000000");
    const auto parsed = parseRemoteReference(good);
    ASSERT_TRUE(parsed);
    const std::vector<StringBinding> expected{{"10.1.2.3", 44717}, {"pc7", 0}};
    EXPECT_EQ(parsed->resolver, expected);
    EXPECT_EQ(parsed->iid, iidUnknown);
    EXPECT_EQ(parsed->object.oxid, 0x0807060504030201U);
    EXPECT_EQ(parsed->object.publicReferences, 5U);
    for (std::size_t size = 0; size < good.size(); ++size) {
        EXPECT_FALSE(parseRemoteReference(std::span(good).first(size))) << size;
    }
    EXPECT_FALSE(parseRemoteReference(reference("02000300 0000 0000"))) << "services behind the end";
    Bytes custom = good;
    custom[4] = 4;
    EXPECT_FALSE(parseRemoteReference(custom));

    Parameters many;
    for (int i = 0; i < 1000; ++i) {
        many.u16(7).u16(static_cast<std::uint16_t>('a' + i % 26)).u16(static_cast<std::uint16_t>('a' + i / 26)).u16(0);
    }
    many.u16(0);
    const auto flood = parseRemoteReference(
        Parameters().add(reference("")).u16(static_cast<std::uint16_t>(many.bytes().size() / 2)).u16(4001).add(many));
    ASSERT_TRUE(flood);
    EXPECT_EQ(flood->resolver.size(), mostBindings);
}

}  // namespace quelm::dcom::orpc::test
