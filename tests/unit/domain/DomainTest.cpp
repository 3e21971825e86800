// What is known of a domain's accounts: who may come in, what a ticket says of its holder, what a keytab holds, and
// which message of a log-on was sent before.

#include <gmock/gmock.h>

#include "Bytes.h"
#include "base/TimeSource.h"
#include "dcom/domain/AccessList.h"
#include "dcom/domain/ApRequest.h"
#include "dcom/domain/Keytab.h"
#include "dcom/domain/Pac.h"

namespace quelm::dcom::test {
namespace {

using quelm::test::Builder;
using quelm::test::Bytes;
using quelm::test::fromHex;
using testing::ElementsAre;

const Person alice{
    "PLANT", "Alice", "PLANT.EXAMPLE", {"S-1-5-21-1-2-3-1103", "S-1-5-21-1-2-3-513", "S-1-5-21-1-2-3-1107"}};

TEST(AccessListTest, AdmitsByAnySpellingOfNameOrGroup) {
    for (const char* user : {"PLANT\\alice", "plant.example\\ALICE", "alice@plant.example", "S-1-5-21-1-2-3-1103"}) {
        AccessList list;
        ASSERT_TRUE(list.addUser(user));
        EXPECT_TRUE(list.admits(alice)) << user;
    }
    for (const char* user : {"OTHER\\alice", "PLANT\\bob", "alice@plant", "S-1-5-21-1-2-3-110"}) {
        AccessList list;
        list.addUser(user);
        EXPECT_EQ(list.admits(alice), std::string_view(user) == "alice@plant") << user;
    }
    for (const char* wrong : {"alice", "", "\\alice", "PLANT\\", "PLANT\\a\\b", "a@b@c", "S-1-x", "PLANT\\a*"}) {
        AccessList list;
        EXPECT_FALSE(list.addUser(wrong)) << wrong;
        EXPECT_FALSE(list.admits({"", "", "", {""}})) << wrong;
    }
}

TEST(AccessListTest, GroupsByNameAreOfUseOnceTheirSidIsKnown) {
    AccessList list;
    ASSERT_TRUE(list.addGroup("PLANT\\OPC Readers"));
    EXPECT_FALSE(list.admits(alice));
    EXPECT_THAT(list.unknownGroups(), ElementsAre("PLANT\\OPC Readers"));
    list.setGroupSid("PLANT\\OPC Readers", "S-1-5-21-1-2-3-1107");
    EXPECT_TRUE(list.admits(alice));
    EXPECT_THAT(list.unknownGroups(), ElementsAre());
    EXPECT_EQ(list.shown(), "PLANT\\OPC Readers");
}

Builder& text(Builder& out, std::string_view characters) {
    out.u32(characters.size()).u32(0).u32(characters.size());
    for (const char c : characters) {
        out.u16(static_cast<unsigned char>(c));
    }
    return characters.size() % 2 == 0 ? out : out.u16(0);
}

Builder& sid(Builder& out, const std::vector<std::uint32_t>& parts) {
    out.u32(parts.size()).u8(1).u8(parts.size()).hex("000000000005");
    for (const std::uint32_t part : parts) {
        out.u32(part);
    }
    return out;
}

Bytes logonInfo() {
    Builder out;
    out.hex("01100800CCCCCCCC 0000000000000000").u32(0x20000).add(Bytes(48));
    for (const bool given : {true, true, false, false, false, false}) {
        out.u16(10).u16(10).u32(given ? 0x20004 : 0);
    }
    out.u32(0).u32(1103).u32(513).u32(3).u32(0x20008).u32(0x20).add(Bytes(16));
    out.u16(6).u16(8).u32(0x2000C).u16(10).u16(10).u32(0x20010).u32(0x20014).add(Bytes(40));
    out.u32(2).u32(0x20018).u32(0x2001C).u32(1).u32(0x20020);
    text(text(out, "alice"), "Alice");
    out.u32(3).u32(513).u32(7).u32(1107).u32(7).u32(1109).u32(0x17);  // the last for denial only
    text(text(out, "DC1"), "PLANT");
    sid(out, {21, 1, 2, 3});
    out.u32(2).u32(0x20024).u32(7).u32(0x20028).u32(0);  // the last switched off
    sid(sid(out, {99, 1}), {99, 2});
    sid(out, {21, 7});
    return out.u32(1).u32(1200).u32(0x20000007).data();
}

TEST(PacTest, NamesAndGroupsThatCount) {
    const auto person = readLogonInfo(logonInfo());
    ASSERT_TRUE(person);
    EXPECT_EQ(person->account(), "PLANT\\alice");
    EXPECT_THAT(person->sids, ElementsAre("S-1-5-21-1-2-3-1103", "S-1-5-21-1-2-3-513", "S-1-5-21-1-2-3-1107",
                                          "S-1-5-99-1", "S-1-5-21-7-1200"));
}

TEST(PacTest, CutAnywhereItIsNone) {
    const Bytes whole = logonInfo();
    for (std::size_t size = 0; size < whole.size(); ++size) {
        EXPECT_FALSE(readLogonInfo(std::span(whole).first(size))) << size;
    }
}

TEST(KeytabTest, NamesAndEncryption) {
    const Bytes key(16, 0x55);
    const auto entry = [&](std::string_view service, std::string_view host, unsigned encryption) {
        Builder out;
        const auto counted = [&](std::string_view part) {
            out.u8(0).u8(part.size()).add(Bytes(part.begin(), part.end()));
        };
        out.hex("0002");
        counted("PLANT.EXAMPLE");
        counted(service);
        counted(host);
        out.hex("00000001 00000000 02").u8(0).u8(encryption).hex("0010").add(key);
        return Builder().hex("000000").u8(out.data().size()).add(out.data()).data();
    };
    const auto file = [](const std::vector<Bytes>& parts) {
        Builder out;
        for (const Bytes& part : parts) {
            out.add(part);
        }
        const Bytes data = out.data();
        return std::string(data.begin(), data.end());
    };
    const Bytes start = fromHex("0502");
    const Bytes hole = fromHex("FFFFFFFE 0000");
    std::string whole = file({start, entry("host", "OPC", 23), hole, entry("host", "opc.plant.example", 18)});
    std::string cut = whole.substr(0, whole.size() - 1);
    const Keytab keytab = parseKeytab(whole);
    EXPECT_EQ(keytab.fault, "");
    EXPECT_EQ(keytab.hostPrincipal(), "host/opc.plant.example");
    EXPECT_EQ(whole.find('\x55'), std::string::npos) << "keys are wiped";
    ASSERT_EQ(keytab.entries.size(), 2U);
    EXPECT_TRUE(isOldEncryption(keytab.entries[0].encryption));
    EXPECT_FALSE(isOldEncryption(keytab.entries[1].encryption));
    EXPECT_EQ(parseKeytab(cut).fault, "it is damaged");
    std::string empty = file({start});
    EXPECT_EQ(parseKeytab(empty).fault, "it holds no entry");
    std::string other = "[libdefaults]";
    EXPECT_EQ(parseKeytab(other).fault, "it is no keytab");
    EXPECT_EQ(readKeytab("/nowhere/keytab").fault, "No such file or directory");
}

TEST(ApRequestTest, TakesTheFrameOffAndKnowsWhatWasSentBefore) {
    const Bytes bare = fromHex("6E1A 3018 A003020105 A10302010E A40C 300A A003020112 A203 0401AA");
    const Bytes other = fromHex("6E1A 3018 A003020105 A10302010E A40C 300A A003020112 A203 0401AB");
    const Bytes framed = Builder().hex("6029 06092A864886F712010202 0100").add(bare).data();
    EXPECT_HEX(bareApRequest(bare), quelm::test::toHex(bare));
    EXPECT_HEX(bareApRequest(framed), quelm::test::toHex(bare));
    for (const char* none : {"", "60", "600D06092A864886F7120102020100", "6F00", "6005060100", "4E544C4D53535000"}) {
        EXPECT_TRUE(bareApRequest(fromHex(none)).empty()) << none;
    }
    for (std::size_t size = 0; size < bare.size(); ++size) {
        EXPECT_FALSE(digestOf(std::span(bare).first(size)));
    }
    ManualTimeSource time(Date{46348.5});
    const ScopedTimeSource scope(time);
    ReplayMemory taken;
    EXPECT_FALSE(taken.knows(*digestOf(bare)));
    taken.add(*digestOf(bare));
    EXPECT_TRUE(taken.knows(*digestOf(bareApRequest(framed))));
    EXPECT_FALSE(taken.knows(*digestOf(other)));
    time.advanceMilliseconds(static_cast<std::uint64_t>(ReplayMemory::memory.count()));
    EXPECT_FALSE(taken.knows(*digestOf(bare)));
}

}  // namespace
}  // namespace quelm::dcom::test
