// What one call may ask for: as many items as there are and some more, and a reply that its client has room for.

#include "OpcSupport.h"
#include "opcda/wire/OpcClassFactory.h"

namespace quelm::opcda::wire::test {
namespace {

TEST_F(OpcWire, TooManyItemsAreRefusedBeforeTheyAreRead) {
    addGroup("g");
    const std::uint32_t many = 10'006;  // five items, and ten thousand
    struct Case {
        Method method;
        Parameters request;
        std::string_view reply;
    };
    const std::string_view oneArray = "00000000 0E000780";
    const std::string_view twoArrays = "00000000 00000000 0E000780";
    const std::string_view fourArrays = "00000000 00000000 00000000 00000000 0E000780";
    for (const Case& each : {Case{SyncIo::Read, Parameters().u16(1).u32(many), twoArrays},
                             Case{SyncIo::Write, Parameters().u32(many), oneArray},
                             Case{SyncIo2::ReadMaxAge, Parameters().u32(many), fourArrays},
                             Case{AsyncIo3::ReadMaxAge, Parameters().u32(many), twoArrays},
                             Case{ItemDeadbandMgt::GetItemDeadband, Parameters().u32(many), twoArrays},
                             Case{ItemSamplingMgt::SetItemSamplingRate, Parameters().u32(many), twoArrays},
                             Case{AsyncIo2::Read, Parameters().u32(many), twoArrays},
                             Case{AsyncIo2::Write, Parameters().u32(many), twoArrays},
                             Case{ItemMgt::AddItems, Parameters().u32(many), twoArrays},
                             Case{ItemMgt::ValidateItems, Parameters().u32(many), twoArrays},
                             Case{ItemMgt::RemoveItems, Parameters().u32(many), oneArray},
                             Case{ItemMgt::SetActiveState, Parameters().u32(many), oneArray},
                             Case{ItemMgt::SetClientHandles, Parameters().u32(many), oneArray},
                             Case{ItemMgt::SetDatatypes, Parameters().u32(many), oneArray},
                             Case{ItemIo::Read, Parameters().u32(many), fourArrays},
                             Case{ItemIo::WriteVqt, Parameters().u32(many), oneArray},
                             Case{Browse3::GetProperties, Parameters().u32(many), oneArray},
                             Case{ItemProperties::GetItemProperties, Parameters().text("Flow").u32(many), twoArrays},
                             Case{ItemProperties::LookupItemIds, Parameters().text("Flow").u32(many), twoArrays}}) {
        EXPECT_HEX(call(each.method, each.request).bytes, std::string(each.reply)) << each.method;
    }
}

// A client with nothing left may ask for little at a time, and lets go of what it holds as ever.
TEST_F(OpcWire, AReplyIsBoundedByWhatTheClientHasLeft) {
    const auto budget = application_.budgets().of("PLANT\\reader", "192.0.2.7");
    server_ = std::make_shared<OpcServerObject>(application_, outgoing_, budget);
    addGroup("g");
    const std::string text(20'000, 'x');
    control_.SLIKTags().Item("Name").SetVQT(Variant(text), quality::good, localNow());
    const auto handles = addItems(std::vector<std::string>(2000, "Flow"));
    const std::uint32_t name = addItems({"Name"}).at(0);
    call(ItemMgt::CreateEnumerator, Parameters().uuid(iidEnumOpcItemAttributes));
    const Object items = context_.written.back();
    call(Browse::BrowseOpcItemIds, Parameters().u16(3).text("").u16(0).u32(0));
    Hold rest = memoryOf(budget);
    rest.set(budget->memory.room());

    EXPECT_HEX(call(SyncIo::Read, Parameters().u16(1).counted(handles)).bytes, "00000000 00000000 0E000780");
    EXPECT_HEX(call(SyncIo::Read, Parameters().u16(1).counted(Handles{name, name})).bytes, "00000000 00000000 0E000780")
        << "two texts of 40,000 bytes";
    EXPECT_EQ(call(SyncIo::Read, Parameters().u16(1).counted(Handles{name})).result(), S_OK);
    for (const std::uint32_t age : {0U, 1U}) {  // of the device and of the cache
        EXPECT_HEX(call(SyncIo2::ReadMaxAge, Parameters().counted(Handles{name, name}).array(Handles{age, age})).bytes,
                   "00000000 00000000 00000000 00000000 0E000780");
    }
    EXPECT_HEX(call(ItemProperties::GetItemProperties, Parameters().text("Name").counted(Handles{2, 2})).bytes,
               "00000000 00000000 0E000780");
    EXPECT_HEX(call(*items, {iidEnumOpcItemAttributes, Enumeration::Next}, Parameters().u32(2000)).bytes,
               "00000000 00000000 0E000780");
    EXPECT_EQ(call(*items, {iidEnumOpcItemAttributes, Enumeration::Next}, Parameters().u32(100)).result(), S_OK);
    EXPECT_HEX(call(*items, {iidEnumOpcItemAttributes, Enumeration::Clone}, {}).bytes, "00000000 0E000780")
        << "no room for a clone";
    EXPECT_EQ(call(*server_, OpcServer::AddGroup,
                   Parameters().text("h").u32(1).u32(1000).u32(5).u32(0).u32(0).u32(0x409).uuid(iidOpcItemMgt))
                  .result(),
              E_OUTOFMEMORY);

    OpcClassFactory factory(application_, outgoing_);
    HResult result = S_OK;
    EXPECT_EQ(factory.create({1, "192.0.2.7:49152", "", 0}, "PLANT\\reader", result), nullptr);
    EXPECT_EQ(result, E_OUTOFMEMORY);
    EXPECT_NE(factory.create({1, "192.0.2.8:49152", "", 0}, "PLANT\\reader", result), nullptr);
    EXPECT_EQ(result, S_OK);
}

}  // namespace
}  // namespace quelm::opcda::wire::test
