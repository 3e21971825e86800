// What programs find that know the server by its kind or its name only.

#include "opcda/wire/ServerListObject.h"

#include "OpcSupport.h"
#include "slikda/Identity.h"

namespace quelm::opcda::wire::test {
namespace {

const std::string ourClass = "3466FB43 72CC E94E A292 BEDF9FF018BD";
constexpr Uuid categoryDa2 = "63D5F432-CFE4-11D1-B2C8-0060083BA1FB"_uuid;
constexpr Uuid categoryDa3 = "CC603642-66D7-48F1-B69A-B625E73652D7"_uuid;
constexpr Uuid categoryDa1 = "63D5F430-CFE4-11D1-B2C8-0060083BA1FB"_uuid;

TEST_F(OpcWire, TheListNamesTheServerAndIsNoClientOfIt) {
    ServerListFactory factory(application_);
    HResult result = E_FAIL;
    const Object list = factory.create(context_.peer(), context_.account(), result);
    const auto lock = factory.holdServer();
    ASSERT_EQ(result, S_OK);
    EXPECT_NE(lock, nullptr);
    EXPECT_EQ(control_.network().clientCount(), 1) << "the fixture's own";

    const auto call = [&](const Uuid& iid, ServerList method, const Parameters& stub) {
        return OpcWire::call(*list, {iid, static_cast<std::uint16_t>(method)}, stub).bytes;
    };
    for (const auto& [iid, enumerator] :
         {std::pair{iidOpcServerList, iidEnumGuid}, {iidOpcServerList2, iidOpcEnumGuid}}) {
        const bool younger = iid == iidOpcServerList2;
        const std::pair<std::vector<Uuid>, bool> kinds[] = {
            {{categoryDa2}, true}, {{categoryDa3}, true},  {{categoryDa1, categoryDa3}, true}, {{}, true},
            {{categoryDa1}, true}, {{iidOpcServer}, false}};
        for (const auto& [kind, found] : kinds) {
            // What is required of clients: nothing, said in either way.
            const Parameters asked = Parameters().u32(kind.size()).array(kind).u32(0);
            EXPECT_HEX(call(iid, ServerList::EnumClassesOfCategories, asked), interfacePointer + "00000000");
            EXPECT_HEX(call(iid, ServerList::EnumClassesOfCategories, Parameters(asked).u32(0)),
                       interfacePointer + "00000000");
            // A client exists that says twice how many it wants.
            EXPECT_HEX(
                OpcWire::call(*context_.written.back(), {enumerator, Enumeration::Next}, Parameters().u32(10).u32(10))
                    .bytes,
                "0A000000 00000000 " + (found ? "01000000 " + ourClass + " 01000000" : "00000000 00000000") +
                    " 01000000");
        }
        Parameters details;
        for (const std::string_view text :
             {"Ombrel.QuelmOPCServer.5", "Quelm 5 OPC DA Server", "Ombrel.QuelmOPCServer"}) {
            if (younger || text != "Ombrel.QuelmOPCServer") {
                details.align(4).u32(details.bytes().empty() ? 0x20004 : text.starts_with("Q") ? 0x20008 : 0x2000C);
                details.text(text);
            }
        }
        const Uuid itsClass = Uuid::parse(identity::classId);
        EXPECT_HEX(call(iid, ServerList::GetClassDetails, Parameters().uuid(itsClass)), details.align(4).u32(0));
        EXPECT_HEX(call(iid, ServerList::GetClassDetails, Parameters().uuid(categoryDa2)),
                   Parameters().add(Bytes(younger ? 12 : 8)).hresult(REGDB_E_CLASSNOTREG));
        for (const char* name : {"Ombrel.QuelmOPCServer.5", "OMBREL.QUELMOPCSERVER.5", "Ombrel.QuelmOPCServer"}) {
            EXPECT_HEX(call(iid, ServerList::ClsidFromProgId, Parameters().text(name)), ourClass + "00000000");
        }
        EXPECT_HEX(call(iid, ServerList::ClsidFromProgId, Parameters().text("Ombrel.QuelmOPCServer.4")),
                   Parameters().add(Bytes(16)).hresult(CO_E_CLASSSTRING));
    }
}

}  // namespace
}  // namespace quelm::opcda::wire::test
