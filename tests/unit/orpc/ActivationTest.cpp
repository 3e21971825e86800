// Clients ask for objects by class, in the older and in the younger form.

#include <cstring>

#include "orpc/OrpcWorld.h"

namespace quelm::dcom::orpc::test {

using testing::ElementsAre;

struct Property {
    Uuid id;
    Bytes body;
};

Bytes serialised(std::span<const std::uint8_t> body) {
    Parameters all;
    all.hex("01100800 CCCCCCCC").u32(body.size()).hex("CCCCCCCC").add(body);
    return all.align(8, 0xFA).bytes();
}

std::vector<Property> usualProperties(const std::vector<Uuid>& iids, const Uuid& classId = classTest) {
    Parameters instantiation;
    instantiation.uuid(classId).u32(20).u32(0).u32(0).u32(iids.size()).u32(0).u32(0x4321).u32(0).u32(0x00070005);
    return {{Uuid::parse("000001AB-0000-0000-C000-000000000046"), instantiation.array(iids).bytes()},
            {Uuid::parse("000001A5-0000-0000-C000-000000000046"), Bytes(24)},   // activation context
            {Uuid::parse("000001A4-0000-0000-C000-000000000046"), Bytes(16)},   // server's location
            {Uuid::parse("000001AA-0000-0000-C000-000000000046"), Bytes(32)}};  // what the reply shall hold
}

// The request of the younger form, laid out as its clients do.
Bytes propertiesRequest(const std::vector<Property>& properties, bool createInstance = true) {
    Parameters ids;
    Parameters sizes;
    Parameters bodies;
    for (const Property& property : properties) {
        const Bytes body = serialised(property.body);
        ids.uuid(property.id);
        sizes.u32(body.size());
        bodies.add(body);
    }
    const std::size_t count = properties.size();
    const std::size_t headerSize = (16 + 48 + 4 + 16 * count + 4 + 4 * count + 7) & ~std::size_t{7};
    Parameters list;
    list.u32(headerSize + bodies.bytes().size()).u32(headerSize).u32(0).u32(2).u32(count).uuid({});
    list.u32(0x1111).u32(0x2222).u32(0).u32(count).add(ids).u32(count).add(sizes);
    const Bytes header = serialised(list);
    const std::size_t blobSize = header.size() + bodies.bytes().size();

    Parameters all = request();
    if (createInstance) {
        all.u32(0);
    }
    all.u32(0x3333).u32(56 + blobSize).u32(56 + blobSize).hex("4D454F57 04000000");
    all.uuid(Uuid::parse("000001A2-0000-0000-C000-000000000046"));
    all.uuid(Uuid::parse("00000338-0000-0000-C000-000000000046"));
    return all.u32(0).u32(blobSize + 16).u32(blobSize).u32(0).add(header).add(bodies).bytes();
}

class ActivationCalls : public World {
 protected:
    HResult activateYoungerForm(const Bytes& stub, std::uint16_t opnum = 4) {
        send(activation, peer(1), iidRemoteScmActivator, nullptr, opnum, stub);
        EXPECT_EQ(status, Fault::None);
        HResult result = S_OK;
        std::memcpy(&result, reply.data() + reply.size() - 4, 4);
        return result;
    }
};

TEST_F(ActivationCalls, TheOlderFormAnswersInFullWhateverComesOfIt) {
    Parameters head;  // ORPCTHAT, OXID, bindings, IRemUnknown, level, version
    head.hex("0000000000000000 A100000000000000 04000200").add(conformantBindings("[49200]"));
    head.align(4).hex("A200000000000000A300000000000000 02000000 05000700");
    activateOlderForm(classTest, {iidServer, iidNobody});
    Parameters expected = head;
    expected.hex("00000000 02000000 08000200 00000000 90000000 90000000 4D454F57 01000000").uuid(iidServer);
    expected.hex("00000000 05000000 A100000000000000 A400000000000000 A500000000000000A600000000000000");
    EXPECT_HEX(reply, expected.add(bindings()).align(4).hex("02000000 00000000 02400080 00000000"));

    const struct {
        Uuid classId;
        std::vector<Uuid> iids;
        HResult refusal;
        bool breaksDown;
        HResult result;
    } cases[] = {
        {classUnknown, {iidServer, iidBrowse}, S_OK, false, REGDB_E_CLASSNOTREG},
        {classTest, {iidNobody}, S_OK, false, E_NOINTERFACE},
        {classTest, {iidServer}, E_ACCESSDENIED, false, E_ACCESSDENIED},
        {classTest, {iidServer}, S_FALSE, false, E_FAIL},
        {classTest, {iidServer}, S_OK, true, E_FAIL},
        {classTest, {}, S_OK, false, E_INVALIDARG},
    };
    for (const auto& entry : cases) {
        factory->refusal = entry.refusal;
        factory->breaksDown = entry.breaksDown;
        activateOlderForm(entry.classId, entry.iids);
        const std::vector<std::uint32_t> pointers(entry.iids.size(), 0);
        const std::vector<std::uint32_t> results(entry.iids.size(), fmt::underlying(entry.result));
        EXPECT_HEX(reply, Parameters(head).hresult(entry.result).array(pointers).array(results).u32(0));
    }
    EXPECT_EQ(exporter.objectCount(), 1U);
    EXPECT_THAT(events, ElementsAre("server2"));  // was made, but nobody could use it
}

TEST_F(ActivationCalls, CreateInstanceAsTheWireHasIt) {
    level = rpc::AuthLevel::Privacy;
    const Bytes stub = propertiesRequest(usualProperties({iidServer, iidNobody}));
    activateYoungerForm(stub);
    Parameters expected;
    expected.hex("0000000000000000 04000200 60020000 60020000");  // ORPCTHAT, pointer, size
    expected.hex("4D454F57 04000000").uuid(Uuid::parse("000001A3-0000-0000-C000-000000000046"));
    expected.uuid(Uuid::parse("00000339-0000-0000-C000-000000000046")).hex("00000000 38020000 28020000 00000000");
    // The list of the two properties: sizes, another machine, two; IDs and sizes.
    expected.hex("01100800 CCCCCCCC 60000000 00000000 28020000 70000000 00000000 02000000 02000000").uuid({});
    expected.hex("04000200 08000200 00000000 02000000").uuid(Uuid::parse("00000339-0000-0000-C000-000000000046"));
    expected.uuid(Uuid::parse("000001B6-0000-0000-C000-000000000046")).hex("02000000 F8000000 C0000000");
    // Interfaces, results, pointers.
    expected.hex("01100800 CCCCCCCC E8000000 00000000 02000000 04000200 08000200 0C000200 02000000");
    expected.uuid(iidServer).uuid(iidNobody).hex("02000000 00000000 02400080 02000000 10000200 00000000");
    expected.hex("90000000 90000000 4D454F57 01000000").uuid(iidServer).hex("00000000 05000000 A100000000000000");
    expected.hex("A400000000000000 A500000000000000A600000000000000").add(bindings()).u32(0);
    // Where to call: OXID, IRemUnknown, level, version, bindings.
    expected.hex("01100800 CCCCCCCC B0000000 00000000 00000000 04000200 A100000000000000 08000200");
    expected.hex("A200000000000000A300000000000000 06000000 05000700").add(conformantBindings("[49200]")).u32(0);
    EXPECT_HEX(reply, expected.hresult(S_OK));
    EXPECT_TRUE(alive(peer(2), references().at(0).ipid));
}

TEST_F(ActivationCalls, CreateInstanceWithOtherPropertiesInOtherOrder) {
    auto properties = usualProperties({iidUnknown, iidNobody, iidBrowse, iidServer});
    properties.push_back({iidNobody, Bytes(75)});
    std::reverse(properties.begin(), properties.end());
    EXPECT_EQ(activateYoungerForm(propertiesRequest(properties)), S_OK);
    EXPECT_EQ(references().size(), 3U);
    EXPECT_EQ(exporter.objectCount(), 1U);
}

TEST_F(ActivationCalls, FailuresOfTheYoungerFormGiveANullPointerAndTheReason) {
    auto withoutClass = usualProperties({iidServer});
    withoutClass.erase(withoutClass.begin());
    Bytes aggregated = propertiesRequest(usualProperties({iidServer}));
    aggregated[32] = 1;
    const Bytes outer = fromHex("04000000 04000000 00000000");
    aggregated.insert(aggregated.begin() + 36, outer.begin(), outer.end());
    const auto altered = [](std::size_t at, std::uint8_t value) {
        Bytes stub = propertiesRequest(usualProperties({iidServer}));
        stub.at(at) = value;
        return stub;
    };
    const std::pair<Bytes, HResult> cases[] = {
        {propertiesRequest(usualProperties({iidServer}, classUnknown)), REGDB_E_CLASSNOTREG},
        {propertiesRequest(usualProperties({iidNobody})), E_NOINTERFACE},
        {propertiesRequest(usualProperties({})), E_INVALIDARG},
        {propertiesRequest(withoutClass), E_INVALIDARG},
        {propertiesRequest({}), E_INVALIDARG},
        {aggregated, CLASS_E_NOAGGREGATION},
        {altered(48, 'N'), E_INVALIDARG},  // no object reference
        {altered(52, 1), E_INVALIDARG},    // one of another kind
        {altered(105, 0), E_INVALIDARG},   // big endian
    };
    for (const auto& [stub, result] : cases) {
        activateYoungerForm(stub);
        EXPECT_HEX(reply, Parameters().hex("0000000000000000 00000000").hresult(result));
    }
    EXPECT_EQ(exporter.objectCount(), 0U);
}

TEST_F(ActivationCalls, AClassObjectMakesInstances) {
    activateOlderForm(classTest, {iidClassFactory}, 0xFFFFFFFF);
    EXPECT_EQ(factory->latest, nullptr);
    EXPECT_EQ(exporter.objectCount(), 1U);

    activateYoungerForm(propertiesRequest(usualProperties({iidClassFactory}), false), 3);
    const Uuid classObject = references().at(0).ipid;
    callObject(peer(2), classObject, 3, request().uuid(iidServer), iidClassFactory);
    const Uuid instance = references().at(0).ipid;
    EXPECT_TRUE(alive(peer(2), instance));

    callObject(peer(2), classObject, 3, request().uuid(iidNobody), iidClassFactory);
    EXPECT_HEX(reply, "0000000000000000 00000000 02400080");
    EXPECT_THAT(events, ElementsAre("server2"));
    factory->breaksDown = true;
    callObject(peer(2), classObject, 3, request().uuid(iidServer), iidClassFactory);
    EXPECT_HEX(reply, "0000000000000000 00000000 05400080");
    callObject(peer(2), classObject, 5, request().u32(1), iidClassFactory);
    EXPECT_EQ(status, Fault::OpnumRange);
}

// The server lives while anybody's lock does; a lock ends with its client.
TEST_F(ActivationCalls, LocksOfTheServerAreCountedByClient) {
    std::vector<Uuid> classObjects;
    for (int client = 0; client < 2; ++client) {
        activateOlderForm(classTest, {iidClassFactory}, 0xFFFFFFFF);
        classObjects.push_back(references().at(0).ipid);
    }
    const auto lock = [&](std::size_t client, std::uint32_t on) {
        callObject(peer(client + 2), classObjects[client], 4, request().u32(on), iidClassFactory);
        HResult result = S_OK;
        std::memcpy(&result, reply.data() + 8, 4);
        return result;
    };
    EXPECT_EQ(lock(0, 0), E_FAIL);  // that was never locked
    for (const std::uint32_t on : {1, 1, 0}) {
        EXPECT_EQ(lock(0, on), S_OK);
    }
    EXPECT_EQ(lock(1, 1), S_OK);
    EXPECT_THAT(events, ElementsAre("locked", "locked"));
    EXPECT_EQ(lock(0, 0), S_OK);
    EXPECT_THAT(events, ElementsAre("locked", "locked", "unlocked"));
    objects.connectionClosed(peer(3), true);
    EXPECT_EQ(events.size(), 4U);
}

// --- requests cut short and with every byte wrong ---

class Damaged : public ActivationCalls {
 public:
    // All of the request is needed but for what clients leave behind it.
    void tryAll(rpc::CallHandler& port, const Uuid& iid, const Uuid* ipid, std::uint16_t opnum, const Bytes& good,
                std::size_t unneeded = 0) {
        SCOPED_TRACE(iid.toText() + " opnum " + std::to_string(opnum));
        for (std::size_t size = 0; size + unneeded < good.size(); ++size) {
            const Bytes cut(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(size));
            send(port, peer(2), iid, ipid, opnum, cut);
            EXPECT_EQ(status, Fault::BadStubData) << "cut at " << size;
        }
        for (std::size_t i = 0; i < good.size(); ++i) {
            for (const std::uint8_t value : {0x00, 0x01, 0x7F, 0x80, 0xFF}) {
                Bytes wrong = good;
                wrong[i] = value;
                send(port, peer(2), iid, ipid, opnum, wrong);
                EXPECT_NE(status, Fault::Server) << "byte " << i << " is " << int{value};
            }
        }
        EXPECT_THAT(log, testing::IsEmpty());
        send(port, peer(2), iid, ipid, opnum, good);
        EXPECT_EQ(status, Fault::None);
    }
};

TEST_F(Damaged, ActivationRequests) {
    tryAll(activation, iidActivation, nullptr, 0, activationRequest(classTest, {iidServer, iidBrowse}).bytes(), 10);
    tryAll(activation, iidRemoteScmActivator, nullptr, 4, propertiesRequest(usualProperties({iidServer})));
    tryAll(activation, iidRemoteScmActivator, nullptr, 3, propertiesRequest(usualProperties({iidClassFactory}), false));
}

TEST_F(Damaged, ResolverRequests) {
    const Bytes oxid = fromHex("0100000000000000 0100 0000 01000000 0700");
    tryAll(activation, iidObjectExporter, nullptr, 0, oxid);
    tryAll(activation, iidObjectExporter, nullptr, 4, oxid);
    tryAll(activation, iidObjectExporter, nullptr, 1, Bytes(8));
    tryAll(activation, iidObjectExporter, nullptr, 2, complexPing(0, 0, {1, 2, 3}, {4, 5}).bytes());
}

TEST_F(Damaged, ReferenceRequests) {
    const Uuid ipid = activate();
    const Uuid remUnknownIpid = exporter.remUnknownIpid();
    tryAll(objects, iidRemUnknown, &remUnknownIpid, 3, query(ipid, 5, {iidServer, iidBrowse}).bytes());
    for (const std::uint16_t opnum : {4, 5}) {
        tryAll(objects, iidRemUnknown, &remUnknownIpid, opnum, changes({{ipid, 1}, {iidNobody, 1}}).bytes());
    }
}

// Inside the property blob: a damaged one costs its own request, with a reason and without a fault.
TEST_F(Damaged, PropertyBlobsCutAtEveryLength) {
    const Bytes good = propertiesRequest(usualProperties({iidServer}));
    constexpr std::size_t blobBegin = 32 + 4 + 12;
    for (std::uint32_t size = 0; size + blobBegin < good.size(); ++size) {
        Bytes cut(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(blobBegin + size));
        std::memcpy(cut.data() + 40, &size, sizeof size);
        std::memcpy(cut.data() + 44, &size, sizeof size);
        EXPECT_EQ(activateYoungerForm(cut), E_INVALIDARG) << size;
    }
    EXPECT_EQ(exporter.objectCount(), 0U);
}

}  // namespace quelm::dcom::orpc::test
