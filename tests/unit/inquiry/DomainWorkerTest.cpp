// What crosses between the network's thread and the one that asks the domain: turns, time limits, clients that go, and
// an end while the library hangs. The threads are real, the time limits' clock is not.

#include <gmock/gmock.h>

#include <atomic>
#include <semaphore>

#include "dcom/inquiry/DomainWorker.h"
#include "loop/VirtualLoop.h"

namespace quelm::dcom::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Both threads': how many calls may return, and how many have begun.
struct Gate {
    std::counting_semaphore<1000> open{0};
    std::atomic<int> begun{0};
    std::promise<void> left;
};

// Answers with what it was asked, once the gate lets it.
class GatedLink final : public DomainLink {
 public:
    explicit GatedLink(std::shared_ptr<Gate> gate) : gate_(std::move(gate)) {}
    ~GatedLink() override { gate_->left.set_value(); }
    NtlmAnswer logOn(const NtlmQuestion& question) noexcept override {
        wait();
        NtlmAnswer answer;
        answer.person.user = question.user;
        return answer;
    }
    DomainLook look(const std::vector<std::string>& groups) noexcept override {
        wait();
        return {.domainName = "PLANT", .groups = {{groups.at(0), "S-1-5-21-1"}}};
    }

 private:
    void wait() {
        ++gate_->begun;
        gate_->begun.notify_all();
        gate_->open.acquire();
    }
    std::shared_ptr<Gate> gate_;
};

class DomainWorkers : public testing::Test {
 protected:
    void ask(const std::string& host, const std::string& user) {
        holds.push_back(worker->ask({.host = host, .user = user}, [this, user](const NtlmAnswer& answer) {
            heard.push_back(user + (answer.reason == RefusalReason::None ? " is " + answer.person.user : ": late"));
        }));
    }
    void look(const std::string& group) {
        worker->look({group}, [this](const DomainLook& seen) { heard.push_back(seen.groups.at(0).name); });
    }
    void waitFor(std::size_t answers) {
        gate->open.release(static_cast<std::ptrdiff_t>(answers));
        for (const std::size_t enough = heard.size() + answers; heard.size() < enough;) {
            loop.runOne();
        }
    }
    void waitForCall(int count) {
        for (int now = gate->begun; now < count; now = gate->begun) {
            gate->begun.wait(now);
        }
    }

    AsioLoop loop;
    VirtualLoop timers;
    std::shared_ptr<Gate> gate = std::make_shared<Gate>();
    std::optional<DomainWorker> worker{std::in_place, loop, timers, std::make_unique<GatedLink>(gate)};
    std::vector<std::shared_ptr<void>> holds;
    std::vector<std::string> heard;
};

TEST_F(DomainWorkers, HostsTakeTurnsAndALookGoesFirst) {
    for (const char* user : {"a1", "a2", "a3"}) {
        ask("192.0.2.1", user);
    }
    ask("192.0.2.2", "b1");
    look("given up");
    look("PLANT\\Readers");
    EXPECT_THAT(heard, IsEmpty()) << "never from within";
    waitFor(5);
    EXPECT_THAT(heard, ElementsAre("a1 is a1", "PLANT\\Readers", "b1 is b1", "a2 is a2", "a3 is a3"));
    EXPECT_EQ(timers.pendingTimers(), 0U);
    look("again");
    gate->open.release();
    worker->await(std::chrono::seconds(60));
    EXPECT_EQ(heard.back(), "again");
}

TEST_F(DomainWorkers, WhoHasWaitedTooLongHearsSoOnceAndWhoHasGoneCostsNothing) {
    ask("a", "hangs");
    waitForCall(1);
    ask("a", "behind it");
    ask("a", "gone");
    holds.pop_back();
    timers.advance(DomainWorker::timeLimit - std::chrono::milliseconds(1));
    EXPECT_THAT(heard, IsEmpty());
    ask("a", "later");
    timers.advance(1);
    EXPECT_THAT(heard, ElementsAre("hangs: late", "behind it: late"));
    heard.clear();
    gate->open.release();  // the answer that comes too late
    waitFor(1);
    EXPECT_THAT(heard, ElementsAre("later is later"));
    EXPECT_EQ(gate->begun, 2) << "nobody was asked about the two between";
}

TEST_F(DomainWorkers, SoManyWaitAtMostAndThoseThatHaveGoneMakeRoom) {
    ask("a", "under way");
    for (std::size_t i = 0; i < DomainWorker::most; ++i) {
        ask(std::to_string(i % 3), "waits");
        ASSERT_NE(holds.back(), nullptr);
    }
    ask("another", "too many");
    EXPECT_EQ(holds.back(), nullptr);
    holds.resize(1);
    ask("another", "in time");
    EXPECT_NE(holds.back(), nullptr);
    waitFor(2);
    EXPECT_THAT(heard, ElementsAre("under way is under way", "in time is in time"));
}

TEST_F(DomainWorkers, EndsBesideALibraryThatHangs) {
    ask("a", "hangs");
    waitForCall(1);
    auto left = gate->left.get_future();
    worker.reset();
    EXPECT_EQ(left.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    gate->open.release();
    EXPECT_EQ(left.wait_for(std::chrono::seconds(60)), std::future_status::ready);
    EXPECT_THAT(heard, IsEmpty());
}

}  // namespace
}  // namespace quelm::dcom::test
