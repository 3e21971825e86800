// Each typed call against our own server, and what becomes of answers that are cut short or lie about their sizes.

#include "Calls.h"
#include "Loopback.h"
#include "opcda/wire/ServerListObject.h"

namespace quelm::opcda::client::test {
namespace {

struct NoCallback final : dcom::client::ICallback {
    HResult called(std::uint16_t /*opnum*/, dcom::ndr::Reader& /*parameters*/) override { return S_OK; }
};

class StubsTest : public ClientTest {
 protected:
    StubsTest() {
        addGroup("g");
        const auto handles = addItems({"A.Temp", "Name"});
        known_ = {server_, std::make_shared<wire::ServerListObject>(Hold()), group_};
        const auto point = IConnectionPointContainer(targetOf(group_, IConnectionPointContainer::iid))
                               .FindConnectionPoint(wire::iidOpcDataCallback);
        EXPECT_EQ(IConnectionPoint(*point.out).Advise(callbacks_->exportObject({}, sink_)).result, S_OK);
        for (const auto& each : {groupCalls(handles), serverCalls(), objectCalls()}) {
            calls_.insert(calls_.end(), each.begin(), each.end());
        }
    }

    Interface targetOf(const Object& object, const Uuid& iid) {
        return Interface(std::make_shared<LoopRemote>(world_, object, iid));
    }
    // The object that was given last of those that have the interface.
    Interface targetOf(const Uuid& iid) {
        std::vector<Object> objects = known_;
        const auto& given = world_.context.written;
        objects.insert(objects.begin(), given.rbegin(), given.rend());
        const bool isGroups = group_->queryInterface(iid) != nullptr && server_->queryInterface(iid) == nullptr;
        const auto has = [&](const Object& object) { return object->queryInterface(iid) != nullptr; };
        return targetOf(isGroups ? group_ : *std::ranges::find_if(objects, has), iid);
    }

    NoCallback sink_;
    std::unique_ptr<LoopCallbacks> callbacks_ = callbacks();
    std::vector<Object> known_;
    std::vector<Call> calls_;
};

TEST_F(StubsTest, GiveWhatTheServerSays) {
    std::string session = "\n";
    for (const Call& call : calls_) {
        session += std::string(call.name) + ": " + call.make(targetOf(call.iid)) + '\n';
    }
    EXPECT_EQ(session, R"(
IOPCGroupStateMgt2::GetState: S_OK (1000, true, 'g', 0, 0, 5)
IOPCGroupStateMgt2::SetState: S_OK 137
IOPCGroupStateMgt2::SetName: S_OK
IOPCGroupStateMgt2::CloneGroup: S_OK object
IOPCGroupStateMgt2::SetKeepAlive: OPC_S_UNSUPPORTEDRATE 100
IOPCGroupStateMgt2::GetKeepAlive: S_OK 100
IOPCItemMgt::ValidateItems: S_FALSE ([('VT_I4', 1), ('VT_EMPTY', 0)], [S_OK, OPC_E_INVALIDITEMID])
IOPCItemMgt::SetActiveState: S_OK [S_OK, S_OK]
IOPCItemMgt::SetClientHandles: S_OK [S_OK, S_OK]
IOPCItemMgt::SetDatatypes: S_FALSE [S_OK, OPC_E_BADTYPE]
IOPCSyncIO2::Read: S_OK ([(100, '2026-01-02T03:04:05.000Z', 'good, vendor 128', 12.5), (101, '2026-01-02T03:04:05.000Z', 'uncertain', Ab)], [S_OK, S_OK])
IOPCSyncIO2::Write: S_FALSE [E_FAIL, E_FAIL]
IOPCSyncIO2::ReadMaxAge: S_OK ([12.5, Ab], [32960, 64], [134117966450000000, 134117966450000000], [S_OK, S_OK])
IOPCSyncIO2::WriteVQT: S_FALSE [E_FAIL, E_FAIL]
IOPCAsyncIO3::Read: S_OK (true, [S_OK, S_OK])
IOPCAsyncIO3::Write: S_OK (true, [S_OK, S_OK])
IOPCAsyncIO3::Refresh2: S_OK 3
IOPCAsyncIO3::Cancel2: E_FAIL
IOPCAsyncIO3::SetEnable: S_OK
IOPCAsyncIO3::GetEnable: S_OK true
IOPCAsyncIO3::ReadMaxAge: S_OK (true, [S_OK, S_OK])
IOPCAsyncIO3::WriteVQT: S_OK (true, [S_OK, S_OK])
IOPCAsyncIO3::RefreshMaxAge: S_OK 6
IOPCItemDeadbandMgt::SetItemDeadband: S_FALSE [OPC_E_DEADBANDNOTSUPPORTED, OPC_E_DEADBANDNOTSUPPORTED]
IOPCItemDeadbandMgt::GetItemDeadband: S_FALSE ([0, 0], [OPC_E_DEADBANDNOTSUPPORTED, OPC_E_DEADBANDNOTSUPPORTED])
IOPCItemDeadbandMgt::ClearItemDeadband: S_FALSE [OPC_E_DEADBANDNOTSUPPORTED, OPC_E_DEADBANDNOTSUPPORTED]
IOPCItemSamplingMgt::SetItemSamplingRate: S_FALSE ([20000, 20000], [OPC_S_UNSUPPORTEDRATE, OPC_S_UNSUPPORTEDRATE])
IOPCItemSamplingMgt::GetItemSamplingRate: S_OK ([20000, 20000], [S_OK, S_OK])
IOPCItemSamplingMgt::ClearItemSamplingRate: S_OK [S_OK, S_OK]
IOPCItemSamplingMgt::SetItemBufferEnable: OPC_E_NOBUFFERING null
IOPCItemSamplingMgt::GetItemBufferEnable: OPC_E_NOBUFFERING (null, null)
IOPCItemMgt::AddItems: S_FALSE ([('VT_I4', 1), ('VT_EMPTY', 0)], [S_OK, OPC_E_INVALIDITEMID])
IOPCItemMgt::CreateEnumerator: S_OK object
IOPCItemMgt::RemoveItems: S_OK [S_OK, S_OK]
IOPCServer::AddGroup: S_OK (1000, object)
IOPCServer::GetErrorString: S_OK 'Unspecified error'
IOPCServer::GetGroupByName: E_INVALIDARG null
IOPCServer::GetStatus: S_OK ('2026-01-02T03:04:05.000Z', 'running', 3, 'Ombrel')
IOPCServer::CreateGroupEnumerator: S_OK object
IOPCServer::CreateGroupEnumerator: S_OK object
IOPCServer::RemoveGroup: E_INVALIDARG
IOPCCommon::SetLocaleID: S_OK
IOPCCommon::GetLocaleID: S_OK 1033
IOPCCommon::QueryAvailableLocaleIDs: S_OK [1033, 2048, 1024]
IOPCCommon::GetErrorString: E_INVALIDARG null
IOPCCommon::SetClientName: S_OK
IOPCBrowseServerAddressSpace::QueryOrganization: S_OK 1
IOPCBrowseServerAddressSpace::ChangeBrowsePosition: S_OK
IOPCBrowseServerAddressSpace::GetItemID: S_OK 'A.Temp'
IOPCBrowseServerAddressSpace::BrowseAccessPaths: S_FALSE object
IOPCBrowseServerAddressSpace::BrowseOPCItemIDs: S_OK object
IOPCItemProperties::QueryAvailableProperties: S_OK (7, [1, 2, 3, 4, 5, 6, 7], ['Item Canonical DataType', 'Item Value', 'Item Quality', 'Item Timestamp', 'Item Access Rights', 'Server Scan Rate', 'Item EU Type'], [2, 4, 2, 7, 3, 4, 3])
IOPCItemProperties::GetItemProperties: S_FALSE ([4, 1, (empty)], [S_OK, S_OK, OPC_E_INVALID_PID])
IOPCItemProperties::LookupItemIDs: S_FALSE ([null, null, null], [OPC_E_INVALID_PID, OPC_E_INVALID_PID, OPC_E_INVALID_PID])
IOPCBrowse::GetProperties: S_FALSE [(S_FALSE, [(1, 4, S_OK), (5, 1, S_OK), (99999, (empty), OPC_E_INVALID_PID)]), (OPC_E_UNKNOWNITEMID, null)]
IOPCBrowse::Browse: S_OK (true, false, [('Count', 'A.Count', 2, (S_OK, [(1, 3, S_OK), (2, 7, S_OK)])), ('Temp', 'A.Temp', 2, (S_OK, [(1, 4, S_OK), (2, 12.5, S_OK)]))])
IOPCItemIO::Read: S_FALSE ([12.5, (empty)], [32960, 0], [134117966450000000, 0], [S_OK, OPC_E_UNKNOWNITEMID])
IOPCItemIO::WriteVQT: S_FALSE [E_FAIL, OPC_E_UNKNOWNITEMID]
IConnectionPointContainer::EnumConnectionPoints: S_OK object
IConnectionPointContainer::FindConnectionPoint: CONNECT_E_NOCONNECTION null
IOPCServerList::EnumClassesOfCategories: S_OK object
IOPCServerList2::GetClassDetails: REGDB_E_CLASSNOTREG (null, null)
IOPCServerList2::CLSIDFromProgID: CO_E_CLASSSTRING 00000000
IEnumGUID::Next: S_FALSE [43fb6634]
IEnumString::Next: S_FALSE ['Count', 'Temp']
IEnumString::Skip: S_FALSE
IEnumString::Reset: S_OK
IEnumString::Clone: S_OK object
IEnumUnknown::Next: S_OK [object, object]
IEnumOPCItemAttributes::Next: S_FALSE [('', 'A.Temp', true, 100, 'VT_R4'), ('', 'Name', true, 101, 'VT_BSTR'), ('', 'A.Count', true, 7, 'VT_I4')]
IConnectionPoint::GetConnectionInterface: S_OK 39c13a70
IConnectionPoint::GetConnectionPointContainer: S_OK object
IConnectionPoint::Advise: E_INVALIDARG 0
IConnectionPoint::Unadvise: CONNECT_E_NOCONNECTION
IConnectionPoint::EnumConnections: S_OK object
)");
}

// Whatever an answer holds, it is read to its end or refused as unreadable.
TEST_F(StubsTest, RefuseAnswersThatAreCutShortOrHaveHugeCounts) {
    for (const Call& call : calls_) {
        SCOPED_TRACE(call.name);
        call.make(targetOf(call.iid));
        const Bytes whole = world_.answers.back();
        for (std::size_t size = 0; size < whole.size(); ++size) {
            const Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
            try {
                call.make(scripted(call.iid, {cut}));
                ADD_FAILURE() << "taken with " << size << " of " << whole.size() << " bytes";
            } catch (const Trouble& trouble) {
                EXPECT_EQ(trouble.kind, Trouble::Kind::Garbage);
            }
        }
        for (std::size_t at = 0; at + 4 <= whole.size(); at += 2) {
            Bytes huge = whole;
            std::fill_n(huge.begin() + static_cast<std::ptrdiff_t>(at), 4, std::uint8_t{0x7F});
            try {
                call.make(scripted(call.iid, {huge}));
            } catch (const Trouble& trouble) {
                EXPECT_EQ(trouble.kind, Trouble::Kind::Garbage);
            }
        }
    }
}

TEST(ValueTest, PassesThroughTheWire) {
    const Decimal decimal{12345, 1, 3, true};
    const struct {
        Value value;
        std::string_view type;
        std::string_view text;
    } cases[] = {
        {{}, "VT_EMPTY", "(empty)"},
        {{VT_NULL, {}}, "VT_NULL", "(null)"},
        {Value::integer(VT_I1, -5), "VT_I1", "-5"},
        {Value::integer(VT_UI1, 200), "VT_UI1", "200"},
        {Value::integer(VT_I2, -300), "VT_I2", "-300"},
        {Value::integer(VT_UI2, 60'000), "VT_UI2", "60000"},
        {Value::integer(VT_I4, -70'000), "VT_I4", "-70000"},
        {Value::integer(VT_UI4, 4'000'000'000), "VT_UI4", "4000000000"},
        {Value::integer(VT_INT, -1), "VT_INT", "-1"},
        {Value::integer(VT_UINT, 1), "VT_UINT", "1"},
        {Value::integer(VT_I8, -5'000'000'000), "VT_I8", "-5000000000"},
        {Value::integer(VT_UI8, -1), "VT_UI8", "18446744073709551615"},
        {Value::integer(VT_BOOL, -1), "VT_BOOL", "true"},
        {Value::integer(VT_CY, -125'000), "VT_CY", "-12.5"},
        {Value::integer(VT_ERROR, static_cast<std::int32_t>(0x80004005)), "VT_ERROR", "80004005"},
        {Value::real(VT_R4, 0.1F), "VT_R4", "0.1"},
        {Value::real(VT_R8, 1e300), "VT_R8", "1e+300"},
        {Value::real(VT_DATE, 46024.5), "VT_DATE", "2026-01-02 12:00:00"},
        {Value::real(VT_DATE, 1e12), "VT_DATE", "1000000000000"},
        {{VT_DECIMAL, decimal}, "VT_DECIMAL", "-18446744073709563.961"},
        {Value::text("Ab \xC3\xBC"), "VT_BSTR", "Ab \xC3\xBC"},
        {{VT_ARRAY | VT_UI1, std::vector<std::int64_t>{1, 2, 255}}, "VT_ARRAY|VT_UI1", "[1, 2, 255]"},
        {{VT_ARRAY | VT_BOOL, std::vector<std::int64_t>{-1, 0}}, "VT_ARRAY|VT_BOOL", "[true, false]"},
        {{VT_ARRAY | VT_R4, std::vector<double>{0.5, -1}}, "VT_ARRAY|VT_R4", "[0.5, -1]"},
        {{VT_ARRAY | VT_R8, std::vector<double>{}}, "VT_ARRAY|VT_R8", "[]"},
        {{VT_ARRAY | VT_DATE, std::vector<double>{0, 2}},
         "VT_ARRAY|VT_DATE",
         "[1899-12-30 00:00:00, 1900-01-01 00:00:00]"},
        {{VT_ARRAY | VT_BSTR, std::vector<std::string>{"a", ""}}, "VT_ARRAY|VT_BSTR", "[a, ]"},
        {{VT_ARRAY | VT_VARIANT, std::vector<Value>{Value::text("x"), Value::real(VT_R8, 2)}},
         "VT_ARRAY|VT_VARIANT",
         "[x, 2]"},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.type);
        EXPECT_EQ(typeName(each.value.type), each.type);
        EXPECT_EQ(typeOfName(each.type), each.value.type);
        EXPECT_EQ(textOf(each.value), each.text);
        Bytes bytes;
        dcom::ndr::Writer out(bytes);
        writeValue(out, each.value);
        dcom::ndr::Reader in(bytes);
        EXPECT_TRUE(readValue(in) == each.value);
        EXPECT_TRUE(in.good());
        EXPECT_LT(in.remaining(), 4U);
        for (std::size_t size = 0; size < in.position(); ++size) {
            const Bytes cut(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size));
            dcom::ndr::Reader less(cut);
            readValue(less);
            EXPECT_FALSE(less.good()) << size << " bytes";
        }
        const bool isTyped = !each.value.isArray() && each.value.type != VT_DECIMAL && each.value.type != VT_ERROR &&
                             each.value.number().value_or(0) < 1e11;
        if (isTyped && each.text.front() != '(') {
            EXPECT_TRUE(Value::parse(each.value.type, each.text) == each.value);
        }
    }
    for (const auto& [type, text] : {std::pair(VT_I1, "128"),
                                     {VT_UI2, "-1"},
                                     {VT_I4, "1.5"},
                                     {VT_R4, "1e39"},
                                     {VT_BOOL, "yes"},
                                     {VT_I4, ""},
                                     {VT_UI8, "18446744073709551616"}}) {
        EXPECT_EQ(Value::parse(type, text), std::nullopt) << text;
    }
}

TEST(WordsTest, SayWhatNumbersMean) {
    EXPECT_EQ(qualityText(0xC0), "good");
    EXPECT_EQ(qualityText(0x03D9), "good, local override, low limited, vendor 3");
    EXPECT_EQ(qualityText(0x2E), "bad, substatus 11, high limited");
    EXPECT_EQ(resultText(OPC_E_BADRIGHTS), std::string(errorText(OPC_E_BADRIGHTS)) + " (OPC_E_BADRIGHTS)");
    EXPECT_EQ(resultText(HResult{0xC0048123}), "C0048123");
    EXPECT_EQ(fileTimeText(0x01DC7B9474400080), "2026-01-02T03:04:05.000Z");
    EXPECT_EQ(fileTimeText(0) + fileTimeText(-1) + fileTimeText(INT64_MAX), "");
}

}  // namespace
}  // namespace quelm::opcda::client::test
