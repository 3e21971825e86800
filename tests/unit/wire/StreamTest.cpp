// What clients of data access 1.0 send and get: the block of memory of each stream, byte by byte.

#include "OpcSupport.h"

namespace quelm::opcda::wire::test {
namespace {

class Streams : public OpcWire {
 protected:
    Streams() {
        addGroup("g");
        handles_ = addItems({"A.Count", "Name"});
    }

    // Clients exist that write what a pointer points to on a multiple of 8.
    static Parameters request(std::string_view format, std::size_t alignment = 4, std::uint32_t media = 1) {
        return Parameters()
            .hex("72657355 00000000 01000000 FFFFFFFF")
            .u32(media)
            .align(alignment)
            .hex("57647452 23C10000")
            .text(format)
            .u32(2);
    }
    static Parameters with(Parameters request, std::span<const std::uint8_t> sink) {
        return request.add(pointer(sink));
    }
    static Parameters head(std::string_view format, std::uint32_t size) {
        return Parameters()
            .hex("04000200 08000200 00000000 01000000 FFFFFFFF 01000000 57647452 01C00000")
            .text(format)
            .align(4)
            .hex("0C000200 10000200 01000000 14000200 00000000 57647452 04000300")
            .u32(size)
            .hex("04000300")
            .u32(size);
    }
    static Parameters timed(const char* transaction) {
        return head("OPCSTMFORMATDATATIME", 0x6A)
            .hex("6A000000 02000000 05000000" + std::string(transaction) +
                 "01000000 64000000 40000000 C0000000" STAMP "65000000 50000000 40000000" STAMP "00000000" + values);
    }
    FakeRemoteObjects::Call next(std::size_t object) {
        loop_.advance(0);
        auto& sink = *remotes_.objects.at(object);
        EXPECT_EQ(sink.calls.size(), 1U);
        return sink.calls.empty() ? FakeRemoteObjects::Call{} : FakeRemoteObjects::answer(sink);
    }

    static inline const std::string values =
        "0300 000000000000 07000000 00000000 0800 000000000000 0000000000000000 04000000 4100 6200 0000";
    Handles handles_;
};

TEST_F(Streams, AreAdvisedEachForItselfAndAsked) {
    EXPECT_HEX(call(DataObject::DAdvise, with(request("OPCSTMFORMATDATATIME"), reference('5'))).bytes,
               "01000000 00000000");
    EXPECT_EQ(remotes_.objects.at(0)->request.iid, iidAdviseSink);
    FakeRemoteObjects::Call told = next(0);
    EXPECT_EQ(told.opnum, 3);
    EXPECT_HEX(told.parameters, timed("00000000"));
    EXPECT_HEX(call(DataObject::DAdvise, with(request("opcstmformatdata", 8), reference('5'))).bytes,
               "02000000 00000000");
    const std::string states = "01000000 64000000 30000000 C0000000 65000000 40000000 40000000 00000000" + values;
    EXPECT_HEX(next(1).parameters, head("OPCSTMFORMATDATA", 0x5A).hex("5A000000 02000000 05000000 00000000" + states));
    EXPECT_HEX(call(DataObject::DAdvise, with(request("OPCSTMFORMATWRITECOMPLETE"), reference('5'))).bytes,
               "03000000 00000000");

    const std::string good = "04000200 02000000 00000000 00000000 00000000";
    EXPECT_HEX(call(AsyncIo::Read, Parameters().u32(2).u16(2).counted(handles_)).bytes, "01000000" + good);
    EXPECT_HEX(next(1).parameters, head("OPCSTMFORMATDATA", 0x5A).hex("5A000000 02000000 05000000 01000000" + states));
    EXPECT_HEX(call(AsyncIo::Write, Parameters().u32(3).counted(handles_).array(Handles{0, 0})).bytes,
               "02000000" + good);
    EXPECT_HEX(next(2).parameters, head("OPCSTMFORMATWRITECOMPLETE", 0x20)
                                       .hex("02000000 05000000 02000000 01000000 64000000 05400080 65000000 05400080"));
    EXPECT_HEX(call(AsyncIo::Refresh, Parameters().u32(1).u16(1)).bytes, "03000000 00000000");
    EXPECT_HEX(next(0).parameters, timed("03000000"));
    EXPECT_HEX(call(AsyncIo::Refresh, Parameters().u32(3).u16(1)).bytes, "00000000 00020480");
    EXPECT_HEX(call(AsyncIo::Read, Parameters().u32(1).u16(1).counted(handles_)).bytes, "04000000" + good);
    EXPECT_HEX(call(AsyncIo::Cancel, Parameters().u32(4)).bytes, "00000000");
    EXPECT_HEX(call(AsyncIo::Cancel, Parameters().u32(4)).bytes, "05400080");

    EXPECT_HEX(call(DataObject::DUnadvise, Parameters().u32(2)).bytes, "00000000");
    EXPECT_HEX(call(DataObject::DUnadvise, Parameters().u32(2)).bytes, "04000480");
    EXPECT_TRUE(remotes_.objects.at(1)->released);
    FakeRemoteObjects::giveUp(*remotes_.objects.at(0));
    EXPECT_TRUE(remotes_.objects.at(0)->released);
    loop_.advance(1000);
    EXPECT_TRUE(remotes_.objects.at(2)->calls.empty());
}

TEST_F(Streams, AreToldToWhoAsks) {
    for (const char* name : {"OPCSTMFORMATDATA", "opcstmformatdatatime", "OPCSTMFORMATWRITECOMPLETE"}) {
        EXPECT_HEX(call(DataObject::QueryGetData, request(name)).bytes, "00000000") << name;
    }
    call(DataObject::EnumFormatEtc, Parameters().u32(1));
    const auto next = [&](std::uint32_t wanted) {
        return call(*context_.written.back(), {iidEnumFormats, Enumeration::Next}, Parameters().u32(wanted)).bytes;
    };
    const std::string rest = " 00000000 01000000 FFFFFFFF 01000000";
    EXPECT_HEX(next(1), Parameters()
                            .hex("01000000 00000000 01000000 04000200" + rest + "57647452 01C00000")
                            .text("OPCSTMFORMATDATA")
                            .align(4)
                            .hex("01000000 00000000"));
    EXPECT_HEX(next(9), Parameters()
                            .hex("09000000 00000000 02000000 04000200" + rest + "08000200" + rest + "57647452 01C00000")
                            .text("OPCSTMFORMATDATATIME")
                            .align(4)
                            .hex("57647452 01C00000")
                            .text("OPCSTMFORMATWRITECOMPLETE")
                            .align(4)
                            .hex("02000000 01000000"));
}

TEST_F(Streams, RefuseWhatTheyDoNotHave) {
    const struct {
        Method method;
        Parameters request;
        const char* reply;
    } cases[] = {
        {DataObject::DAdvise, with(request("OPCSTMFORMAT"), reference('5')), "00000000 64000480"},
        {DataObject::DAdvise,
         with(Parameters().hex("72657355 00000000 01000000 FFFFFFFF 01000000 57647448 23C10000").u32(0),
              reference('5')),
         "00000000 64000480"},
        {DataObject::DAdvise, with(request("OPCSTMFORMATDATA", 4, 4), reference('5')), "00000000 69000480"},
        {DataObject::DAdvise, with(request("OPCSTMFORMATDATA"), Bytes(20)), "00000000 02020480"},
        {DataObject::DAdvise, request("OPCSTMFORMATDATA").u32(0), "00000000 57000780"},
        {DataObject::GetData, {}, "04000200 00000000 00000000 01400080"},
        {DataObject::GetDataHere, {}, "04000200 00000000 00000000 01400080"},
        {DataObject::QueryGetData, request("OPCSTMFORMAT"), "64000480"},
        {DataObject::QueryGetData, request("OPCSTMFORMATDATA", 4, 4), "69000480"},
        {DataObject::GetCanonicalFormatEtc,
         {},
         "04000200 00000000 00000000 00000000 00000000 57647448 00000000 01400080"},
        {DataObject::SetData, {}, "01400080"},
        {DataObject::EnumFormatEtc, Parameters().u32(2), "00000000 01400080"},
        {DataObject::EnumDAdvise, {}, "00000000 01400080"},
    };
    for (const auto& [method, request, reply] : cases) {
        EXPECT_HEX(call(method, request).bytes, reply) << method;
    }
    // Of the three formats; nothing was called.
    ASSERT_EQ(remotes_.objects.size(), 3U);
    for (const auto& object : remotes_.objects) {
        EXPECT_TRUE(object->released && object->calls.empty());
    }
}

}  // namespace
}  // namespace quelm::opcda::wire::test
