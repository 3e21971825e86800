#pragma once

// Lets calls to clients out a handful at a time: however many clients are ready for their next one at the same moment,
// between two handfuls everybody else is served.

#include <cstddef>
#include <functional>
#include <list>
#include <memory>

#include "loop/MessageLoop.h"

namespace quelm::dcom::outgoing {

class Pace {
 public:
    // Of a turn of the loop, in bytes: sixteen small calls, or one large one. Signing and sending that takes a fraction
    // of a millisecond.
    static constexpr std::size_t handful = 128 * 1024;
    static constexpr std::size_t costOfCall = 8 * 1024;

    // Who calls, one call after the other.
    class Caller {
     public:
        // goOn: a call that had to wait may be tried again. May end this and others.
        Caller(Pace& pace, std::function<void()> goOn);
        ~Caller();
        Caller(const Caller&) = delete;
        Caller& operator=(const Caller&) = delete;

        // Whether a call of so many bytes may go out now, whatever its size; if not, goOn is called when it may.
        bool mayCall(std::size_t size);

     private:
        friend class Pace;
        using Place = std::list<Caller*>;

        Pace& pace_;
        std::function<void()> goOn_;
        Place place_;  // while it does not wait; it is put into the row as a whole, so that nothing is allocated
        Place::iterator self_;
    };

    // The loop outlives it, it outlives its callers.
    explicit Pace(IMessageLoop& loop);
    Pace(const Pace&) = delete;
    Pace& operator=(const Pace&) = delete;

 private:
    void turn();

    std::unique_ptr<ITimer> timer_;
    std::size_t left_ = handful;
    std::list<Caller*> row_;
};

}  // namespace quelm::dcom::outgoing
