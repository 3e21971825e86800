// What programs want of a server, against our own: found, browsed, read and watched, by whatever version of OPC DA the
// server is allowed to speak; and servers that lead in circles.

#include "Loopback.h"
#include "opcda/client/Browsing.h"
#include "opcda/client/Discovery.h"
#include "opcda/client/ItemGroup.h"
#include "opcda/wire/ServerListObject.h"
#include "slikda/Identity.h"

namespace quelm::opcda::client::test {
namespace {

class OpcSessionTest : public ClientTest {
 protected:
    // A server that has no more than this version.
    std::unique_ptr<OpcSession> session(int version) {
        if (version < 3) {
            world_.hidden = {IOPCBrowse::iid, IOPCItemIO::iid, IOPCSyncIO2::iid};
        }
        if (version < 2) {
            world_.hidden.insert(IConnectionPointContainer::iid);
        }
        auto callbacks = this->callbacks();
        callbacks_ = callbacks.get();
        notes_.clear();
        const auto note = [this](const std::string& line) { notes_ += line + '\n'; };
        return std::make_unique<OpcSession>(serverObject(wire::iidOpcCommon), std::move(callbacks),
                                            OpcSession::Options{note, "test"});
    }
    static std::string linesOf(std::span<const ItemValue> values) {
        std::string lines;
        for (const ItemValue& each : values) {
            lines += each.itemId + '=' + (failed(each.result) ? resultName(each.result) : textOf(each.value)) + ' ';
        }
        return lines;
    }

    LoopCallbacks* callbacks_ = nullptr;
    std::string notes_;
};

TEST_F(OpcSessionTest, ListsAndFindsServers) {
    const auto list = std::make_shared<wire::ServerListObject>(Hold());
    for (const Uuid& iid : {IOPCServerList2::iid, IOPCServerList::iid}) {
        const Interface target(std::make_shared<LoopRemote>(world_, list, iid));
        const auto servers = discover(target);
        ASSERT_EQ(servers.size(), 1U);
        const FoundServer& ours = servers.front();
        EXPECT_EQ(ours.progId, identity::progId);
        EXPECT_EQ(ours.userType, identity::description);
        EXPECT_EQ(ours.versionIndependentProgId.empty(), iid == IOPCServerList::iid);
        EXPECT_TRUE(ours.da1 && ours.da2 && ours.da3);
        EXPECT_EQ(classOf(target, identity::progId), ours.classId);
        try {
            classOf(target, "No.Such.Server");
            ADD_FAILURE();
        } catch (const OpcError& error) {
            EXPECT_EQ(error.what(),
                      "The machine knows no OPC server 'No.Such.Server'. It has: " + std::string(identity::progId));
        }
    }
}

TEST_F(OpcSessionTest, BrowsesAndReadsByWhatTheServerHas) {
    control_.SLIKTags().Add("A.B.Deep", 1, std::int32_t{9}, quality::good, localNow());
    const struct {
        int version;
        std::string_view notes;
    } cases[] = {
        {3, "The server speaks OPC DA 3.0\nBrowsing by IOPCBrowse (OPC DA 3.0)\nReading by IOPCItemIO (OPC DA 3.0)\n"},
        {2, "The server speaks OPC DA 2.0\nBrowsing by IOPCBrowseServerAddressSpace (OPC DA 2.0)\n"},
        {1, "The server speaks OPC DA 1.0\nBrowsing by IOPCBrowseServerAddressSpace (OPC DA 2.0)\n"},
    };
    for (const auto& [version, notes] : cases) {
        SCOPED_TRACE(version);
        const auto opc = session(version);
        const auto browsed = [&](const BrowseOptions& options) {
            std::string lines;
            opc->browse(options, [&](const BrowsedElement& element) {
                lines += std::string(element.level, '>') + element.itemId + (element.isItem ? "" : "+") + ' ';
                return element.itemId != "Name";
            });
            return lines;
        };
        EXPECT_EQ(browsed({}), "A+ >A.B+ >>A.B.Deep >A.Count >A.Temp Flow Name ");
        notes_.resize(std::min(notes_.size(), notes.size()));
        opc->read(std::vector<std::string>{"A.Temp"});
        EXPECT_EQ(notes_, notes);
        EXPECT_EQ(browsed({.start = "A", .depth = 1}), "A.B+ A.Count A.Temp ");
        EXPECT_EQ(browsed({.filter = "*e*p", .itemsOnly = true}), ">>A.B.Deep >A.Temp ");
        EXPECT_THROW(browsed({.start = "No.Such"}), OpcError);
        EXPECT_THROW(browsed({.filter = "["}), OpcError);

        for (const std::uint32_t age : {fromDevice, fromCache, 1000U}) {
            EXPECT_EQ(linesOf(opc->read(std::vector<std::string>{"Flow", "No.Such", "A.Temp"}, age)),
                      "Flow=0.25 No.Such=OPC_E_UNKNOWNITEMID A.Temp=12.5 ");
        }
        const auto properties = opc->properties(std::vector<std::string>{"A.Count", "No.Such"});
        EXPECT_EQ(properties[0].properties.at(0).description, "Item Canonical DataType");
        EXPECT_EQ(textOf(properties[0].properties.at(1).value), "7");
        EXPECT_EQ(properties[1].result, OPC_E_UNKNOWNITEMID);
        EXPECT_EQ(opc->status().groupCount, 0U) << "what reading took is given back";
        EXPECT_EQ(opc->errorText(HResult{0xC0048123}), "C0048123");
    }
}

TEST_F(OpcSessionTest, WatchesByCallbacksAndElseByReading) {
    const struct {
        int version;
        bool isDeaf;
        std::string_view why;
    } cases[] = {{3, false, ""},
                 {1, false, "the server does not call clients back (it has no connection point for IOPCDataCallback)"},
                 {2, true,
                  "no callback came within 7 s. The server was told to call 10.0.0.2:40123: a firewall may be in "
                  "the way, or the server may not be allowed to log on here"}};
    for (const auto& [version, isDeaf, why] : cases) {
        SCOPED_TRACE(why);
        const auto opc = session(version);
        callbacks_->isDeaf = isDeaf;
        std::string seen;
        {
            Watch watch(*opc, {"A.Count", "No.Such", "Name"}, {},
                        [&](std::span<const ItemValue> values) { seen += linesOf(values) + "/ "; });
            watch.run(std::chrono::seconds(8));
            EXPECT_EQ(watch.isSubscribed(), why.empty());
            EXPECT_EQ(watch.whyPolling(), why);
            EXPECT_EQ(seen, why.empty() ? "No.Such=OPC_E_UNKNOWNITEMID / A.Count=7 Name=Ab / "
                            : isDeaf ? "No.Such=OPC_E_UNKNOWNITEMID / A.Count=7 No.Such=OPC_E_UNKNOWNITEMID Name=Ab / "
                                     : "A.Count=7 No.Such=OPC_E_UNKNOWNITEMID Name=Ab / ");
            seen.clear();
            control_.SLIKTags().Item("Name").SetVQT(Variant("new"), quality::good, localNow());
            control_.network().valuesShown();
            watch.run(std::chrono::seconds(30));
            EXPECT_EQ(seen, "Name=new / ");
            control_.SLIKTags().Item("Name").SetVQT(Variant("Ab"), quality::good, localNow());
        }
        EXPECT_EQ(opc->status().groupCount, 0U);
        for (const auto& object : remotes_.objects) {
            EXPECT_TRUE(object->released);
        }
        std::string reason = "none";
        EXPECT_EQ(opc->onShutdown([&](const std::string& text) { reason = text; }), version != 1);
        server_->server().requestShutdown("good-bye");
        callbacks_->isDeaf = false;
        callbacks_->runUntil([] { return false; }, std::chrono::milliseconds(0));
        EXPECT_EQ(reason, version != 1 ? "good-bye" : "none");
    }
}

TEST_F(OpcSessionTest, GivesUpServersThatLeadInCircles) {
    // One element, and that there is more of them; without end.
    const auto portion = [](std::string_view name, std::string_view point, std::uint32_t flags) {
        const std::uint32_t hasMore = point.empty() ? 0 : 1;
        return Parameters()
            .u32(1)
            .text(point)
            .u32(hasMore)
            .u32(1)
            .u32(1)
            .u32(1)
            .u32(1)
            .u32(1)
            .u32(flags)
            .u32(0)
            .u32(0)
            .u32(0)
            .u32(0)
            .u32(0)
            .text(name)
            .text(name)
            .align(4)
            .u32(0)
            .bytes();
    };
    const Bytes nothing = Parameters().u32(1).text("p").u32(1).u32(0).u32(0).u32(0).bytes();
    const auto browse = [](std::vector<Bytes> answers) {
        std::size_t elements = 0;
        browseBy(IOPCBrowse(scripted(IOPCBrowse::iid, std::move(answers))), {},
                 [&](const BrowsedElement& /*element*/) { return ++elements < 100'000; });
        return elements;
    };
    EXPECT_THROW(browse({portion("a", "p", 2)}), OpcError) << "the same portion again and again";
    EXPECT_THROW(browse({nothing}), OpcError) << "nothing again and again";
    EXPECT_THROW(browse({portion("a", "", 1)}), OpcError) << "a branch that is inside itself";
    EXPECT_EQ(browse({portion("a", "p", 2), portion("b", "", 2)}), 2U);

    const Bytes endless = Parameters().u32(1000).u32(0).u32(1).u32(1).text("x").align(4).u32(1).u32(0).bytes();
    EXPECT_THROW(allOf(IEnumString(scripted(IEnumString::iid, {endless})), "names", 5000), OpcError);
    const Bytes empty = Parameters().u32(1000).u32(0).u32(0).u32(0).u32(0).bytes();
    EXPECT_EQ(allOf(IEnumString(scripted(IEnumString::iid, {endless, empty})), "names").size(), 1U);
}

}  // namespace
}  // namespace quelm::opcda::client::test
