#pragma once

// When which subscription is looked at: all of them after each new block of values, those that their update rate keeps
// waiting when their time comes. One queue and one timer serve all, and no turn of the loop takes long, however many
// there are.

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "loop/MessageLoop.h"

namespace quelm::opcda {

class Publisher {
 public:
    class Member {
     public:
        // Takes its place among all; it keeps it until its end.
        explicit Member(Publisher& publisher);
        Member(const Member&) = delete;
        Member& operator=(const Member&) = delete;
        virtual ~Member();

        // When something may go out to it (monotonic milliseconds, maybe past); none: there is nothing to look at, or
        // it can't take anything.
        virtual std::optional<std::uint64_t> due() const = 0;
        // Looks at what there is and sends it. Gives the work that this was, in items looked at.
        virtual std::size_t deliver(std::uint64_t now) = 0;

     protected:
        Publisher& publisher() const { return *publisher_; }

     private:
        friend class Publisher;
        using Queue = std::multimap<std::uint64_t, Member*>;

        Publisher* publisher_;
        std::size_t place_ = 0;
        // Its entry of the queue: here or there, so that nothing is allocated when it goes there.
        Queue::node_type entry_;
        Queue::iterator queued_;
    };

    // The loop outlives the publisher.
    explicit Publisher(IMessageLoop& loop);
    Publisher(const Publisher&) = delete;
    Publisher& operator=(const Publisher&) = delete;

    // Clients see new values: every member whose time has come is looked at, as many as one turn takes at once.
    void valuesShown();
    // How many times there were new values.
    std::uint64_t block() const { return block_; }
    // Something about the member changed: it is looked at when its time comes, never from within this call.
    void wake(Member& member);

 private:
    struct NextTurn;
    void turn();
    void attend(Member& member, std::uint64_t now, std::size_t& work);
    bool isAnyDue(std::uint64_t now) const { return !queue_.empty() && queue_.begin()->first <= now; }
    void enqueue(Member& member, std::uint64_t due);
    void dequeue(Member& member);
    void startTimer(std::uint64_t now);

    std::vector<Member*> all_;
    Member::Queue queue_;  // by due time
    std::unique_ptr<ITimer> timer_;
    std::uint64_t timerDue_ = 0;
    std::uint64_t block_ = 0;
    std::size_t next_ = 0;  // of all, to be looked at next
    const Member* attended_ = nullptr;
    std::size_t left_ = 0;  // of all, that have not been looked at since the last block
};

}  // namespace quelm::opcda
