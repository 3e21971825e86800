#include "opcda/Publisher.h"

#include "opcda/Fixture.h"

namespace quelm::opcda {
namespace {

// However many there are, one turn takes so many only; the others follow, and none is passed over when some go.
TEST_F(OpcDaTest, ManySubscriptionsAreServedInSlices) {
    struct Member final : Publisher::Member {
        using Publisher::Member::Member;
        std::optional<std::uint64_t> due() const override {
            return seen == publisher().block() ? std::nullopt : std::optional<std::uint64_t>(at);
        }
        std::size_t deliver(std::uint64_t now) override {
            EXPECT_GE(now, at);
            seen = publisher().block();
            ++delivered;
            return 1000;
        }
        std::uint64_t at = 0;
        std::uint64_t seen = 0;
        std::size_t delivered = 0;
    };
    Publisher publisher(loop);
    std::vector<std::unique_ptr<Member>> members;
    for (int i = 0; i < 1000; ++i) {
        members.push_back(std::make_unique<Member>(publisher));
        members.back()->at = i % 2 == 0 ? 0 : 5;
    }
    const auto deliveredIn = [&](int milliseconds) {
        for (int i = 0; i < milliseconds; ++i) {
            loop.advance(0);
            clock.advanceMilliseconds(1);
            loop.advance(1);
        }
        std::size_t count = 0;
        for (const auto& each : members) {
            count += each->delivered;
        }
        return count;
    };
    publisher.valuesShown();
    EXPECT_LT(members[900]->delivered, 1U);
    members.erase(members.begin() + 100, members.begin() + 200);
    EXPECT_EQ(deliveredIn(4), 450U);
    publisher.valuesShown();
    EXPECT_EQ(deliveredIn(1), 1350U);
    for (const auto& each : members) {
        publisher.wake(*each);
    }
    EXPECT_EQ(deliveredIn(1), 1350U) << "nothing is new";
}

}  // namespace
}  // namespace quelm::opcda
