#include "base/Raised.h"
#include "opcda/Fixture.h"

namespace quelm {
namespace {

using test::raisedBy;

class ItemsTest : public testing::Test {
 protected:
    const Date noon = makeDate(2026, 7, 1, 12);
    ManualTimeSource clock{noon, 120};
    ScopedTimeSource inForce{clock};
    PlantItems items;
    const ItemStore& shown = items.shown();
};

TEST_F(ItemsTest, NamesAreUniqueWithoutRegardToCase) {
    const ISLIKTag& first = items.Add("Ölstand", 1, Variant(1.5F), 0x18, noon);
    EXPECT_EQ(raisedBy([&] { items.Add("ÖLSTAND", 1, Variant(), 0, noon); }), 457);
    EXPECT_EQ(raisedBy([&] { items.Add("", 1, Variant(), 0, noon); }), 5);
    EXPECT_EQ(raisedBy([&] { items.Item("Other"); }), 5);
    const Variant object(std::shared_ptr<VariantObject>{});
    EXPECT_EQ(raisedBy([&] { items.Add("Object", 1, object, 0, noon); }), 13);
    EXPECT_EQ(items.Count(), 1U);
    EXPECT_EQ(&items.Item("ölSTAND"), &first);
    EXPECT_EQ(first.Name(), "Ölstand");
}

TEST_F(ItemsTest, TheTypeIsTheInitialValuesForGood) {
    ISLIKTag& tag = items.Add("A", 1, Variant(1.5F), 0x18, noon);
    tag.SetVQT(Variant(std::int16_t{3}), static_cast<std::int16_t>(0x80C0), noon);
    EXPECT_EQ(tag.DataType(), 4);
    EXPECT_EQ(shown.at(0).varType(), 4);
    EXPECT_EQ(shown.at(0).qualityWord(), 0x80C0);
    const Variant object(std::shared_ptr<VariantObject>{});
    EXPECT_EQ(raisedBy([&] { tag.SetVQT(object, 0, noon); }), 13);
    EXPECT_EQ(tag.Value(), Variant(std::int16_t{3}));
    EXPECT_EQ(items.Add("B", 1, Variant(), 0, noon).DataType(), 0);
}

TEST_F(ItemsTest, WhatIsSaidOfAnItemIsKeptByItsProperty) {
    ISLIKTag& first = items.Add("A", 1, Variant(), 0, noon);
    ISLIKTag& second = items.Add("B", 1, Variant(), 0, noon);
    second.SetProperty(5003, "Site", Variant("North"));
    second.SetProperty(101, "Text", Variant("North"));
    first.SetProperty(5003, "", Variant(std::string("Süd\0", 5)));
    first.SetProperty(5000, "Number", Variant(std::int32_t{-7}));
    first.SetProperty(5000, "Number", Variant(std::int32_t{0}));
    second.SetProperty(5001, "Nothing", Variant(""));
    EXPECT_EQ(raisedBy([&] { first.SetProperty(5000, "Number", Variant("7")); }), 13);
    EXPECT_EQ(raisedBy([&] { first.SetProperty(102, "Range", Variant(1.5)); }), 13);
    items.close([] {});
    EXPECT_EQ(raisedBy([&] { first.SetProperty(5000, "Number", Variant(std::int32_t{1})); }), 5);
    const auto& kinds = shown.at(0).detailKinds();
    ASSERT_EQ(kinds.size(), 3U);
    struct Case {
        std::uint32_t property;
        const char* name;
        Variant first, second;
    };
    const Case cases[] = {{101, "Text", Variant(), Variant("North")},
                          {5000, "Number", Variant(std::int32_t{-7}), Variant()},
                          {5003, "Site", Variant("Süd"), Variant("North")}};
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(kinds[i].property, cases[i].property);
        EXPECT_EQ(kinds[i].text, cases[i].name);
        EXPECT_EQ(shown.at(0).detail(i), cases[i].first) << i;
        EXPECT_EQ(shown.at(1).detail(i), cases[i].second) << i;
    }
}

TEST_F(ItemsTest, StampsBecomeUtc) {
    ISLIKTag& tag = items.Add("A", 1, Variant(), 0, noon);
    EXPECT_EQ(shown.at(0).fileTime(), clock.fileTimeNow());
    for (const double none : {0.0, 1e300, -1e9, std::nan(""), -200000.0}) {
        tag.SetVQT(Variant(), 0, Date{none});
        EXPECT_EQ(shown.at(0).fileTime(), 0) << none;
    }
    tag.SetVQT(Variant(), 0, noon);
    EXPECT_EQ(shown.at(0).fileTime(), clock.fileTimeNow());
    EXPECT_EQ(tag.Timestamp(), noon);
}

TEST_F(ItemsTest, AHundredThousandItemsAreFoundAtTheirAddresses) {
    const auto name = [](const char* site, int i) {
        return site + std::to_string(i % 100) + ".Tag" + std::to_string(i);
    };
    std::vector<ISLIKTag*> tags;
    for (int i = 0; i < 100'000; ++i) {
        tags.push_back(&items.Add(name("Site.Unit", i), 1, Variant(1.0F), 0x18, noon));
    }
    for (int i = 0; i < 100'000; i += 997) {
        ASSERT_EQ(&items.Item(name("SITE.unit", i)), tags[static_cast<std::size_t>(i)]);
        ASSERT_EQ(shown.find(name("SITE.unit", i)), &shown.at(static_cast<std::size_t>(i)));
    }
    EXPECT_EQ(shown.find("Site.Unit1.Tag2"), nullptr);
}

TEST_F(ItemsTest, TheBrowseOrderPutsWhatIsBelowABranchBehindIt) {
    for (const char* name : {"b", "a.b", "A-b", "a b", "Ä.x", "ä", "a..b", "a", "\xFF\xFE.x", "\x01", "z\x7F", "Z."}) {
        items.Add(name, 1, Variant(), 0, noon);
        ASSERT_EQ(shown.browseOrder().size(), items.Count());
    }
    std::vector<std::string> names;
    for (const std::uint32_t index : shown.browseOrder()) {
        names.push_back(shown.at(index).Name());
    }
    EXPECT_THAT(names, testing::ElementsAre("\x01", "a", "a..b", "a.b", "a b", "A-b", "b", "Z.", "z\x7F", "ä", "Ä.x",
                                            "\xFF\xFE.x"));
}

}  // namespace
}  // namespace quelm
