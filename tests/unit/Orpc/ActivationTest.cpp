// Clients ask for objects by class, in the older and in the younger form.

#include "Orpc/OrpcWorld.h"

namespace quelm::dcom::orpc::test {

using ActivationCalls = World;

constexpr Uuid instantiationInfo = Uuid::parse("000001AB-0000-0000-C000-000000000046");
constexpr Uuid activationContextInfo = Uuid::parse("000001A5-0000-0000-C000-000000000046");
constexpr Uuid serverLocationInfo = Uuid::parse("000001A4-0000-0000-C000-000000000046");
constexpr Uuid scmRequestInfo = Uuid::parse("000001AA-0000-0000-C000-000000000046");
constexpr Uuid specialSystemProperties = Uuid::parse("000001B9-0000-0000-C000-000000000046");

struct Property {
    Uuid id;
    Bytes body;
};

void serialise(ndr::Writer& out, const Bytes& body) {
    for (const std::uint32_t word : {0x00081001U, 0xCCCCCCCCU, static_cast<std::uint32_t>(body.size()), 0xCCCCCCCCU}) {
        out.u32(word);
    }
    out.bytes(body);
    while (out.position() % 8 != 0) {
        out.u8(0xFA);
    }
}

Property instantiation(const Uuid& classId, const std::vector<Uuid>& iids) {
    Property property{instantiationInfo, {}};
    ndr::Writer out(property.body);
    out.uuid(classId);
    out.u32(20);
    out.u32(0);
    out.u32(0);
    out.u32(static_cast<std::uint32_t>(iids.size()));
    out.u32(0);
    out.u32(0x4321);
    out.u32(0);
    out.u32(0x00070005);
    out.u32(static_cast<std::uint32_t>(iids.size()));
    for (const Uuid& iid : iids) {
        out.uuid(iid);
    }
    return property;
}

std::vector<Property> usualProperties(const std::vector<Uuid>& iids, const Uuid& classId = classTest) {
    return {instantiation(classId, iids),
            {activationContextInfo, Bytes(24)},
            {serverLocationInfo, Bytes(16)},
            {scmRequestInfo, Bytes(32)}};
}

// The request of the younger form, laid out as its clients do.
Bytes propertiesRequest(const std::vector<Property>& properties, bool createInstance = true) {
    Bytes body;
    ndr::Writer bodies(body);
    std::vector<std::uint32_t> sizes;
    for (const Property& property : properties) {
        const std::size_t before = body.size();
        serialise(bodies, property.body);
        sizes.push_back(static_cast<std::uint32_t>(body.size() - before));
    }
    const auto count = static_cast<std::uint32_t>(properties.size());
    const std::uint32_t headerSize = (16 + 48 + 4 + 16 * count + 4 + 4 * count + 7) & ~7U;
    Bytes list;
    ndr::Writer header(list);
    header.u32(headerSize + static_cast<std::uint32_t>(body.size()));
    header.u32(headerSize);
    header.u32(0);
    header.u32(2);
    header.u32(count);
    header.uuid({});
    header.u32(0x1111);
    header.u32(0x2222);
    header.u32(0);
    header.u32(count);
    for (const Property& property : properties) {
        header.uuid(property.id);
    }
    header.u32(count);
    for (const std::uint32_t size : sizes) {
        header.u32(size);
    }
    Bytes blob;
    ndr::Writer blobOut(blob);
    serialise(blobOut, list);
    blobOut.bytes(body);

    Request request;
    if (createInstance) {
        request.out.u32(0);
    }
    const auto total = static_cast<std::uint32_t>(48 + 8 + blob.size());
    request.out.u32(0x3333);
    request.out.u32(total);
    request.out.u32(total);
    request.out.u32(0x574F454D);
    request.out.u32(4);
    request.out.uuid(Uuid::parse("000001A2-0000-0000-C000-000000000046"));
    request.out.uuid(Uuid::parse("00000338-0000-0000-C000-000000000046"));
    request.out.u32(0);
    request.out.u32(static_cast<std::uint32_t>(blob.size() + 16));
    request.out.u32(static_cast<std::uint32_t>(blob.size()));
    request.out.u32(0);
    request.out.bytes(blob);
    return request.bytes;
}

struct Answer {
    HResult result = S_OK;
    std::vector<HResult> results;
    std::vector<WireReference> references;
};

// Takes the younger form's reply apart, every size and place checked.
Answer readAnswer(ndr::Reader in, const std::vector<Uuid>& iids, std::uint32_t hint) {
    Answer answer;
    in.u64();
    if (in.u32() == 0) {
        answer.result = in.u32();
        EXPECT_EQ(in.remaining(), 0U);
        return answer;
    }
    const std::uint32_t total = in.u32();
    EXPECT_EQ(in.u32(), total);
    ndr::Reader object(in.bytes(total));
    EXPECT_EQ(object.u32(), 0x574F454DU);
    EXPECT_EQ(object.u32(), 4U);
    EXPECT_EQ(object.uuid(), Uuid::parse("000001A3-0000-0000-C000-000000000046"));
    EXPECT_EQ(object.uuid(), Uuid::parse("00000339-0000-0000-C000-000000000046"));
    object.u32();
    const std::uint32_t blobSize = object.u32() - 8;
    EXPECT_EQ(object.u32(), blobSize);
    object.u32();
    ndr::Reader blob(object.bytes(blobSize));
    EXPECT_EQ(object.remaining(), 0U);

    EXPECT_EQ(blob.u32(), 0x00081001U);
    blob.u32();
    EXPECT_EQ(blob.u32(), 96U);
    blob.u32();
    EXPECT_EQ(blob.u32(), blobSize);
    EXPECT_EQ(blob.u32(), 112U);
    blob.u32();
    EXPECT_EQ(blob.u32(), 2U);
    EXPECT_EQ(blob.u32(), 2U);
    blob.uuid();
    EXPECT_NE(blob.u32(), 0U);
    EXPECT_NE(blob.u32(), 0U);
    EXPECT_EQ(blob.u32(), 0U);
    EXPECT_EQ(blob.u32(), 2U);
    EXPECT_EQ(blob.uuid(), Uuid::parse("00000339-0000-0000-C000-000000000046"));
    EXPECT_EQ(blob.uuid(), Uuid::parse("000001B6-0000-0000-C000-000000000046"));
    EXPECT_EQ(blob.u32(), 2U);
    const std::uint32_t outSize = blob.u32();
    const std::uint32_t replySize = blob.u32();
    EXPECT_EQ(blob.position(), 112U);
    EXPECT_EQ(outSize % 8 + replySize % 8, 0U);

    ndr::Reader out(blob.bytes(outSize));
    EXPECT_EQ(out.u32(), 0x00081001U);
    out.u32();
    EXPECT_EQ(out.u32(), outSize - 16);
    out.u32();
    EXPECT_EQ(out.u32(), iids.size());
    for (int i = 0; i < 3; ++i) {
        EXPECT_NE(out.u32(), 0U);
    }
    EXPECT_EQ(out.u32(), iids.size());
    for (const Uuid& iid : iids) {
        EXPECT_EQ(out.uuid(), iid);
    }
    EXPECT_EQ(out.u32(), iids.size());
    for (std::size_t i = 0; i < iids.size(); ++i) {
        answer.results.push_back(out.u32());
    }
    EXPECT_EQ(out.u32(), iids.size());
    for (const HResult result : answer.results) {
        EXPECT_EQ(out.u32() == 0, result != S_OK);
    }
    for (std::size_t i = 0; i < iids.size(); ++i) {
        if (answer.results[i] == S_OK) {
            answer.references.push_back(readObjectPointer(out, iids[i]));
        }
        out.align(4);
    }
    EXPECT_TRUE(out.good());
    EXPECT_LT(out.remaining(), 8U);

    ndr::Reader scm(blob.bytes(replySize));
    EXPECT_EQ(scm.u32(), 0x00081001U);
    scm.u32();
    EXPECT_EQ(scm.u32(), replySize - 16);
    scm.u32();
    EXPECT_EQ(scm.u32(), 0U);
    EXPECT_NE(scm.u32(), 0U);
    EXPECT_EQ(scm.u64(), 0xA1U);
    EXPECT_NE(scm.u32(), 0U);
    EXPECT_EQ(toHex(scm.uuid().bytes), "a200000000000000a300000000000000");
    EXPECT_EQ(scm.u32(), hint);
    EXPECT_EQ(scm.u32(), 0x00070005U);
    scm.u32();
    EXPECT_EQ(readBindings(scm),
              (std::vector<std::string>{"192.0.2.1[49200]", "localhost[49200]", "192.0.2.1[49200]"}));
    EXPECT_TRUE(scm.good());
    EXPECT_EQ(blob.remaining(), 0U);
    answer.result = in.u32();
    EXPECT_TRUE(in.good());
    EXPECT_EQ(in.remaining(), 0U);
    return answer;
}

// Request and reply of the older form, byte by byte; the exporter is told of no further host names, to keep it short.
TEST(ActivationBytes, RemoteActivation) {
    std::vector<std::string> events;
    ExporterSettings settings;
    settings.objectPort = 1025;
    settings.hostNames.clear();
    std::uint64_t identifiers = 0xA0;
    ObjectExporter exporter(
        settings, [] { return 0U; }, [&] { return ++identifiers; });
    ClassRegistry classes;
    classes.add(std::make_shared<TestFactory>(events));
    ActivationHandler handler(exporter, classes);
    const Bytes request = fromHex(
        "05000400 00000000 00000000 0d0c0b0a020104030506070809 0a0b0c 00000000"  // ORPCTHIS
        "11111111222233334444555555555555"                                       // CLSID
        "00000000 00000000 03000000 00000000"  // no name, no storage, impersonation level, mode
        "01000000 55736572 01000000 4d3ac139 1e01 d011 9675 0020afd8adb3"  // one interface
        "01000000 01000000 0700 7f00 0000 0000 0100 0000");                // TCP, and what is left behind it
    ASSERT_EQ(request.size(), 112U);
    const rpc::Peer peer{1, "10.0.0.2:5000", "10.0.0.1", 135};
    const std::string account = "D\\u";
    Bytes reply;
    ndr::Writer out(reply);
    const rpc::Call call{peer, iidActivation, 0, false, {}, request, rpc::AuthLevel::Connect, account};
    EXPECT_EQ(handler.call(call, out), 0U);
    EXPECT_EQ(toHex(reply),
              "0000000000000000"  // ORPCTHAT
              "a100000000000000"  // OXID
              "04000200"
              "15000000"
              "1500"
              "1100"  // pointer, 21 units, security at 17
              "0700"
              "310030002e0030002e0030002e003100"  // tower, "10.0.0.1"
              "5b0031003000320035005d00"
              "0000"
              "0000"  // "[1025]", ends of entry and list
              "0a00"
              "ffff"
              "0000"
              "0000"                              // NTLM
              "0000"                              // gap
              "a200000000000000a300000000000000"  // IPID of IRemUnknown
              "05000000"
              "05000700"
              "00000000"  // level, version, S_OK
              "01000000"
              "08000200"
              "62000000"
              "62000000"  // one pointer, 98 bytes
              "4d454f5701000000"
              "4d3ac1391e01d01196750020afd8adb3"  // MEOW, standard, IID
              "00000000"
              "05000000"
              "a100000000000000"
              "a400000000000000"                  // flags, references, OXID, OID
              "a500000000000000a600000000000000"  // IPID
              "0f00"
              "0b00"
              "0700"
              "310030002e0030002e0030002e003100"
              "0000"
              "0000"
              "0a00"
              "ffff"
              "0000"
              "0000"
              "0000"  // gap
              "01000000"
              "00000000"
              "00000000");  // S_OK of the interface, status
}

TEST_F(ActivationCalls, FailuresOfTheOlderFormAreCompleteReplies) {
    const struct {
        Uuid classId;
        std::vector<Uuid> iids;
        HResult refusal;
        bool breaksDown;
        HResult result;
        HResult each;
    } cases[] = {
        {classUnknown, {iidServer}, S_OK, false, REGDB_E_CLASSNOTREG, REGDB_E_CLASSNOTREG},
        {classUnknown, {iidServer, iidBrowse}, S_OK, false, REGDB_E_CLASSNOTREG, REGDB_E_CLASSNOTREG},
        {classTest, {iidNobody}, S_OK, false, E_NOINTERFACE, E_NOINTERFACE},
        {classTest, {iidServer}, E_ACCESSDENIED, false, E_ACCESSDENIED, E_ACCESSDENIED},
        {classTest, {iidServer}, S_FALSE, false, E_FAIL, E_FAIL},
        {classTest, {iidServer}, S_OK, true, E_FAIL, E_FAIL},
        {classTest, {}, S_OK, false, E_INVALIDARG, E_INVALIDARG},
    };
    for (const auto& entry : cases) {
        factory->refusal = entry.refusal;
        factory->breaksDown = entry.breaksDown;
        ndr::Reader in =
            send(activation, peer(1), iidActivation, nullptr, 0, activationRequest(entry.classId, entry.iids));
        EXPECT_EQ(status, 0U);
        in.u64();
        in.u64();
        in.u64();
        readBindings(in);
        in.uuid();
        in.u32();
        in.u32();
        EXPECT_EQ(in.u32(), entry.result);
        EXPECT_EQ(in.u32(), entry.iids.size());
        for (std::size_t i = 0; i < entry.iids.size(); ++i) {
            EXPECT_EQ(in.u32(), 0U);
        }
        EXPECT_EQ(in.u32(), entry.iids.size());
        for (std::size_t i = 0; i < entry.iids.size(); ++i) {
            EXPECT_EQ(in.u32(), entry.each);
        }
        EXPECT_EQ(in.u32(), 0U);
        EXPECT_EQ(in.remaining(), 0U);
        EXPECT_TRUE(in.good());
    }
    EXPECT_EQ(exporter.objectCount(), 0U);
    EXPECT_EQ(exporter.clientCount(), 0U);
    EXPECT_THAT(events, testing::ElementsAre("server1"));  // was made, but nobody could use it
}

TEST_F(ActivationCalls, CreateInstanceAsOneClientLaysItOut) {
    const Bytes request = propertiesRequest(usualProperties({iidServer}));
    EXPECT_EQ(request.size(), 464U);
    level = rpc::AuthLevel::Privacy;
    const Answer answer =
        readAnswer(send(activation, peer(1), iidRemoteScmActivator, nullptr, 4, request), {iidServer}, 6);
    EXPECT_EQ(answer.result, S_OK);
    ASSERT_EQ(answer.references.size(), 1U);
    EXPECT_EQ(answer.references[0].flags, 0U);
    EXPECT_EQ(answer.references[0].count, 5U);
    EXPECT_TRUE(alive(peer(2), answer.references[0].ipid));
}

TEST_F(ActivationCalls, CreateInstanceWithOtherPropertiesInOtherOrder) {
    const std::vector<Uuid> iids{iidUnknown, iidNobody, iidBrowse, iidServer};
    auto properties = usualProperties(iids);
    properties.push_back({specialSystemProperties, Bytes(75)});
    std::reverse(properties.begin(), properties.end());
    const Answer answer = readAnswer(
        send(activation, peer(1), iidRemoteScmActivator, nullptr, 4, propertiesRequest(properties)), iids, 2);
    EXPECT_EQ(answer.result, S_OK);
    EXPECT_THAT(answer.results, testing::ElementsAre(S_OK, E_NOINTERFACE, S_OK, S_OK));
    EXPECT_EQ(exporter.objectCount(), 1U);
}

TEST_F(ActivationCalls, FailuresOfTheYoungerFormGiveANullPointerAndTheReason) {
    auto withoutClass = usualProperties({iidServer});
    withoutClass.erase(withoutClass.begin());
    Bytes aggregated = propertiesRequest(usualProperties({iidServer}));
    aggregated[32] = 1;
    const Bytes outer = fromHex("04000000 04000000 00000000");
    aggregated.insert(aggregated.begin() + 36, outer.begin(), outer.end());
    const struct {
        Bytes request;
        HResult result;
    } cases[] = {
        {propertiesRequest(usualProperties({iidServer}, classUnknown)), REGDB_E_CLASSNOTREG},
        {propertiesRequest(usualProperties({iidNobody})), E_NOINTERFACE},
        {propertiesRequest(usualProperties({})), E_INVALIDARG},
        {propertiesRequest(withoutClass), E_INVALIDARG},
        {propertiesRequest({}), E_INVALIDARG},
        {aggregated, CLASS_E_NOAGGREGATION},
    };
    for (const auto& entry : cases) {
        const Answer answer =
            readAnswer(send(activation, peer(1), iidRemoteScmActivator, nullptr, 4, entry.request), {}, 2);
        EXPECT_EQ(status, 0U);
        EXPECT_EQ(answer.result, entry.result);
    }
    EXPECT_EQ(exporter.objectCount(), 0U);
}

TEST_F(ActivationCalls, AClassObjectMakesInstances) {
    const Answer answer = readAnswer(send(activation, peer(1), iidRemoteScmActivator, nullptr, 3,
                                          propertiesRequest(usualProperties({iidClassFactory}), false)),
                                     {iidClassFactory}, 2);
    ASSERT_EQ(answer.references.size(), 1U);
    const Uuid classObject = answer.references[0].ipid;
    Request create;
    create.out.uuid(iidServer);
    ndr::Reader in = callObject(peer(2), classObject, 3, create.bytes, iidClassFactory);
    EXPECT_NE(in.u32(), 0U);
    const Uuid instance = readObjectPointer(in, iidServer).ipid;
    EXPECT_EQ(in.u32(), S_OK);
    EXPECT_TRUE(alive(peer(2), instance));

    Request unusable;
    unusable.out.uuid(iidNobody);
    callObject(peer(2), classObject, 3, unusable.bytes, iidClassFactory);
    EXPECT_EQ(toHex(reply),
              "0000000000000000"
              "00000000"
              "02400080");
    EXPECT_THAT(events, testing::ElementsAre("server2"));
    factory->breaksDown = true;
    callObject(peer(2), classObject, 3, create.bytes, iidClassFactory);
    EXPECT_EQ(toHex(reply),
              "0000000000000000"
              "00000000"
              "05400080");

    Request lock;
    lock.out.u32(1);
    callObject(peer(2), classObject, 4, lock.bytes, iidClassFactory);
    EXPECT_EQ(toHex(reply),
              "0000000000000000"
              "00000000");
    callObject(peer(2), classObject, 5, lock.bytes, iidClassFactory);
    EXPECT_EQ(status, faultOpnumRange);
}

TEST_F(ActivationCalls, TheOlderFormGivesClassObjectsToo) {
    send(activation, peer(1), iidActivation, nullptr, 0, activationRequest(classTest, {iidClassFactory}, 0xFFFFFFFF));
    EXPECT_EQ(factory->latest, nullptr);
    EXPECT_EQ(exporter.objectCount(), 1U);
}

TEST_F(ActivationCalls, ARemovedClassIsUnknown) {
    classes.remove(classTest);
    const Answer answer = readAnswer(
        send(activation, peer(1), iidRemoteScmActivator, nullptr, 4, propertiesRequest(usualProperties({iidServer}))),
        {}, 2);
    EXPECT_EQ(answer.result, REGDB_E_CLASSNOTREG);
}

// --- requests cut short and with every byte wrong ---

class Damaged : public World {
 public:
    void tryAll(rpc::CallHandler& port, const Uuid& iid, const Uuid* ipid, std::uint16_t opnum, const Bytes& good,
                std::size_t needed) {
        SCOPED_TRACE(iid.toText() + " opnum " + std::to_string(opnum));
        for (std::size_t size = 0; size < needed; ++size) {
            const Bytes cut(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(size));
            send(port, peer(2), iid, ipid, opnum, cut);
            EXPECT_TRUE(status == faultBadStubData) << "cut at " << size << ": " << status;
        }
        for (std::size_t i = 0; i < good.size(); ++i) {
            for (const std::uint8_t value : {0x00, 0x01, 0x7F, 0x80, 0xFF}) {
                Bytes wrong = good;
                wrong[i] = value;
                send(port, peer(2), iid, ipid, opnum, wrong);
                EXPECT_NE(status, faultServer) << "byte " << i << " is " << int{value};
            }
        }
        EXPECT_THAT(log, testing::IsEmpty());
        send(port, peer(2), iid, ipid, opnum, good);
        EXPECT_EQ(status, 0U);
    }
};

TEST_F(Damaged, ActivationRequests) {
    tryAll(activation, iidActivation, nullptr, 0, activationRequest(classTest, {iidServer, iidBrowse}), 118);
    const Bytes create = propertiesRequest(usualProperties({iidServer}));
    tryAll(activation, iidRemoteScmActivator, nullptr, 4, create, create.size());
    const Bytes classObject = propertiesRequest(usualProperties({iidClassFactory}), false);
    tryAll(activation, iidRemoteScmActivator, nullptr, 3, classObject, classObject.size());
}

TEST_F(Damaged, ResolverRequests) {
    Bytes oxid = {1, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 7, 0};
    tryAll(activation, iidObjectExporter, nullptr, 0, oxid, oxid.size());
    tryAll(activation, iidObjectExporter, nullptr, 4, oxid, oxid.size());
    tryAll(activation, iidObjectExporter, nullptr, 1, Bytes(8), 8);
    const Bytes ping = complexPing(0, 0, {1, 2, 3}, {4, 5});
    tryAll(activation, iidObjectExporter, nullptr, 2, ping, ping.size());
}

TEST_F(Damaged, ReferenceRequests) {
    const Uuid ipid = activate(peer(1));
    const Uuid remUnknownIpid = exporter.remUnknownIpid();
    const Bytes query3 = query(ipid, 5, {iidServer, iidBrowse});
    tryAll(objects, iidRemUnknown, &remUnknownIpid, 3, query3, query3.size());
    const Bytes change = changes({{ipid, 1}, {iidNobody, 1}});
    tryAll(objects, iidRemUnknown, &remUnknownIpid, 4, change, change.size());
    tryAll(objects, iidRemUnknown, &remUnknownIpid, 5, change, change.size());
}

// Inside the property blob: a damaged one costs its own request, with a reason and without a fault.
TEST_F(Damaged, PropertyBlobsCutAtEveryLength) {
    const Bytes good = propertiesRequest(usualProperties({iidServer}));
    constexpr std::size_t blobBegin = 32 + 4 + 12;
    for (std::size_t size = 0; size + blobBegin < good.size(); ++size) {
        Bytes cut(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(blobBegin + size));
        for (const std::size_t at : {std::size_t{40}, std::size_t{44}}) {
            const auto length = static_cast<std::uint32_t>(size);
            std::memcpy(cut.data() + at, &length, sizeof length);
        }
        const Answer answer = readAnswer(send(activation, peer(2), iidRemoteScmActivator, nullptr, 4, cut), {}, 2);
        EXPECT_EQ(status, 0U);
        EXPECT_EQ(answer.result, E_INVALIDARG) << size;
    }
    EXPECT_EQ(exporter.objectCount(), 0U);
}

}  // namespace quelm::dcom::orpc::test
