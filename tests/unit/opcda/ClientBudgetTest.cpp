#include "budget/ClientBudget.h"

#include "opcda/Fixture.h"

namespace quelm::opcda {
namespace {

class ClientBudgetTest : public OpcDaTest {
 protected:
    HResult addGroup(Server& server, std::string_view name = "") {
        return server.addGroup({name, true, 1000, 1, {}, {}, 0}, group);
    }
    // How many of so many more items the group takes.
    std::size_t taken(std::size_t count) {
        const std::vector<std::string_view> names(count, "Status");
        const auto handles = addItems(*group, names);
        return count - static_cast<std::size_t>(std::count(handles.begin(), handles.end(), 0U));
    }

    std::shared_ptr<ClientBudget> budget = application.budgets().of("PLANT\\reader", "192.0.2.7");
    std::shared_ptr<Group> group;
};

TEST_F(ClientBudgetTest, AllServerObjectsOfAClientShareItsGroupsAndNobodyElses) {
    {
        Server one(application, budget);
        Server two(application, application.budgets().of("PLANT\\reader", "192.0.2.7"));
        Server elsewhere(application, application.budgets().of("PLANT\\reader", "192.0.2.8"));
        std::size_t made = 0;
        while (addGroup(made % 2 == 0 ? one : two) == S_OK) {
            ++made;
        }
        EXPECT_EQ(made, ClientLimits::of(5).groups);
        EXPECT_EQ(addGroup(one), E_OUTOFMEMORY);
        EXPECT_EQ(addGroup(elsewhere), S_OK);
        EXPECT_EQ(one.groupByName("Group1", group), S_OK);
        EXPECT_EQ(one.removeGroup(group->serverHandle(), true, false), S_OK);
        EXPECT_EQ(addGroup(one), E_OUTOFMEMORY) << "a removed group counts for as long as somebody holds it";
        group.reset();
        EXPECT_EQ(addGroup(two), S_OK);
        group.reset();
    }
    EXPECT_EQ(budget->groups.used(), 0U);
    EXPECT_EQ(budget->memory.used(), 0U);
}

TEST_F(ClientBudgetTest, ItemsAndListsThatDoNotFitAreRefusedOneByOne) {
    constexpr std::size_t items = 1000;
    budget->memory.limitTo(Server::footprint + 2 * Group::footprint + items * 40);
    Server server(application, budget);
    ASSERT_EQ(addGroup(server), S_OK);
    const std::size_t many = taken(5 * items);
    EXPECT_GT(many, items);
    EXPECT_LT(many, 2 * items);
    EXPECT_EQ(group->itemCount(), many);
    Recorder read;
    std::shared_ptr<Group> clone;
    EXPECT_EQ(server.cloneGroup(*group, "copy", clone), E_OUTOFMEMORY);
    EXPECT_EQ(server.groupByName("copy", clone), E_INVALIDARG);
    Enumerator<ItemAttributes> list;
    EXPECT_EQ(group->enumerateItems(list), E_OUTOFMEMORY);
    server.removeGroup(group->serverHandle(), true, false);
    group.reset();
    EXPECT_EQ(addGroup(server), S_OK);
    EXPECT_EQ(taken(items / 2), items / 2);
}

TEST_F(ClientBudgetTest, AGroupIsListedOnceForAllWhoAskUntilItChanges) {
    Server server(application, budget);
    addGroup(server);
    EXPECT_EQ(taken(1000), 1000U);
    const std::size_t before = budget->memory.used();
    std::vector<Enumerator<ItemAttributes>> all(50);
    for (auto& each : all) {
        EXPECT_EQ(group->enumerateItems(each), S_OK);
        EXPECT_EQ(each.size(), 1000U);
    }
    EXPECT_EQ(budget->memory.used() - before, 1000 * sizeof(ItemAttributes));
    addItems(*group, {"Status"});
    Enumerator<ItemAttributes> later;
    EXPECT_EQ(group->enumerateItems(later), S_OK);
    EXPECT_EQ(later.size(), 1001U);
    EXPECT_EQ(all.back().size(), 1000U) << "who leafs through goes on with what there was";
    all.clear();
    later = {};
    EXPECT_EQ(budget->memory.used(), before);
}

TEST_F(ClientBudgetTest, BrowsingHoldsWhatItFound) {
    Browser browser(application.items(), budget);
    NameEnumerator names;
    EXPECT_EQ(browser.browse(3, "", VT_EMPTY, 0, names), S_OK);
    EXPECT_EQ(budget->memory.used(), 5 * sizeof(std::string_view));
    budget->memory.limitTo(budget->memory.used());
    NameEnumerator more;
    EXPECT_EQ(browser.browse(3, "", VT_EMPTY, 0, more), E_OUTOFMEMORY);
    EXPECT_EQ(browser.browse(3, "nothing", VT_EMPTY, 0, more), S_FALSE);
}

TEST_F(ClientBudgetTest, NamesAreBounded) {
    Server server(application, budget);
    const std::string longest(longestGroupName, 'x');
    EXPECT_EQ(addGroup(server, longest), S_OK);
    EXPECT_EQ(addGroup(server, longest + "x"), E_INVALIDARG);
    std::shared_ptr<Group> clone;
    EXPECT_EQ(server.cloneGroup(*group, longest + "x", clone), E_INVALIDARG);
    EXPECT_EQ(group->setName(longest + "x"), E_INVALIDARG);
    EXPECT_EQ(group->setName("short"), S_OK);
    EXPECT_EQ(addGroup(server, longest), S_OK) << "the name that was given up is free";
    EXPECT_EQ(addGroup(server, "short"), OPC_E_DUPLICATENAME);
    server.setClientName(std::string(7'500'000, 'n'));
    EXPECT_EQ(server.clientName(), std::string(256, 'n'));
    const std::vector<ItemDefinition> wrong{{std::string_view(longest), true, 1, VT_EMPTY}};
    std::vector<ItemResult> results;
    EXPECT_EQ(group->validateItems(wrong, results), S_FALSE);
    EXPECT_EQ(results[0].error, OPC_E_UNKNOWNITEMID);
}

}  // namespace
}  // namespace quelm::opcda
