#include "SLIK-DA/ItemStore.h"

#include "OpcDa/Fixture.h"
#include "SharedTypes/Raised.h"

namespace quelm {
namespace {

using test::raisedBy;

class ItemStoreTest : public testing::Test {
 protected:
    const Date noon = makeDate(2026, 7, 1, 12);
    ManualTimeSource clock{noon, 120};
    ScopedTimeSource inForce{clock};
    ItemStore store;
};

TEST_F(ItemStoreTest, NamesAreUniqueWithoutRegardToCase) {
    SLIKTag& first = store.Add("Ölstand", 1, Variant(1.5F), 0x18, noon);
    EXPECT_EQ(raisedBy([&] { store.Add("ÖLSTAND", 1, Variant(), 0, noon); }), 457);
    EXPECT_EQ(raisedBy([&] { store.Add("", 1, Variant(), 0, noon); }), 5);
    EXPECT_EQ(raisedBy([&] { store.Item("Other"); }), 5);
    const Variant object(std::shared_ptr<VariantObject>{});
    EXPECT_EQ(raisedBy([&] { store.Add("Object", 1, object, 0, noon); }), 13);
    EXPECT_EQ(store.Count(), 1U);
    EXPECT_EQ(&store.Item("ölSTAND"), &first);
    EXPECT_EQ(first.Name(), "Ölstand");
}

TEST_F(ItemStoreTest, TheTypeIsTheInitialValuesForGood) {
    SLIKTag& tag = store.Add("A", 1, Variant(1.5F), 0x18, noon);
    EXPECT_EQ(tag.DataType(), 4);
    tag.SetVQT(Variant(std::int16_t{3}), static_cast<std::int16_t>(0x80C0), noon);
    EXPECT_EQ(tag.DataType(), 4);
    EXPECT_EQ(tag.qualityWord(), 0x80C0);
    EXPECT_EQ(tag.changes(), 1U);
    const Variant object(std::shared_ptr<VariantObject>{});
    EXPECT_EQ(raisedBy([&] { tag.SetVQT(object, 0, noon); }), 13);
    EXPECT_EQ(tag.Value(), Variant(std::int16_t{3}));
    EXPECT_EQ(store.Add("B", 1, Variant(), 0, noon).DataType(), 0);
}

TEST_F(ItemStoreTest, StampsBecomeUtc) {
    SLIKTag& tag = store.Add("A", 1, Variant(), 0, noon);
    EXPECT_EQ(tag.fileTime(), clock.fileTimeNow());
    for (const double none : {0.0, 1e300, -1e9, std::nan(""), -200000.0}) {
        tag.SetVQT(Variant(), 0, Date{none});
        EXPECT_EQ(tag.fileTime(), 0) << none;
    }
    tag.SetVQT(Variant(), 0, noon);
    EXPECT_EQ(tag.fileTime(), clock.fileTimeNow());
}

TEST_F(ItemStoreTest, AHundredThousandItemsAreFoundAtTheirAddresses) {
    const auto name = [](const char* site, int i) {
        return site + std::to_string(i % 100) + ".Tag" + std::to_string(i);
    };
    std::vector<SLIKTag*> tags;
    for (int i = 0; i < 100'000; ++i) {
        tags.push_back(&store.Add(name("Site.Unit", i), 1, Variant(1.0F), 0x18, noon));
    }
    for (int i = 0; i < 100'000; i += 997) {
        ASSERT_EQ(store.find(name("SITE.unit", i)), tags[static_cast<std::size_t>(i)]);
    }
    EXPECT_EQ(store.find("Site.Unit1.Tag2"), nullptr);
}

TEST_F(ItemStoreTest, TheBrowseOrderPutsWhatIsBelowABranchBehindIt) {
    for (const char* name : {"b", "a.b", "A-b", "a b", "Ä.x", "ä", "a..b", "a", "\xFF\xFE.x", "\x01", "z\x7F", "Z."}) {
        store.Add(name, 1, Variant(), 0, noon);
        ASSERT_EQ(store.browseOrder().size(), store.Count());
    }
    std::vector<std::string> names;
    for (const std::uint32_t index : store.browseOrder()) {
        names.push_back(store.at(index).Name());
    }
    EXPECT_THAT(names, testing::ElementsAre("\x01", "a", "a..b", "a.b", "a b", "A-b", "b", "Z.", "z\x7F", "ä", "Ä.x",
                                            "\xFF\xFE.x"));
}

}  // namespace
}  // namespace quelm
