#pragma once

// Reads of one kind that all sites ask for at the same tick, one site after the other: at the first one's call they are
// begun for all of them, so that databases that are slow or dead are waited for side by side, and once.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "DB Interface Library/SqlWorker.h"
#include "Shared Types/TimeSource.h"

namespace quelm {

// Tells ticks apart: all handlers of a tick run one behind the other, with nothing between them but what they do and
// how long databases have them wait.
class TickTime {
 public:
    // Milliseconds of the time source's monotonic clock, those spent waiting left out.
    std::uint64_t now() const { return timeSource().monotonicMilliseconds() - waited_; }

    // Does something that waits for a database.
    template <class Call>
    auto waitFor(Call call) {
        const Waiting waiting(*this);
        return call();
    }

 private:
    class Waiting {
     public:
        explicit Waiting(TickTime& time) : time_(time), since_(timeSource().monotonicMilliseconds()) {}
        Waiting(const Waiting&) = delete;
        Waiting& operator=(const Waiting&) = delete;
        ~Waiting() { time_.waited_ += timeSource().monotonicMilliseconds() - since_; }

     private:
        TickTime& time_;
        std::uint64_t since_;
    };

    std::uint64_t waited_ = 0;
};

// Result: what a read gives. Argument: what it asks for besides the site; a read begun ahead asks for the same again.
template <class Result, class Argument>
class TickReads {
 public:
    using Call = SqlCall<Result>;
    using FindWorker = std::function<std::shared_ptr<SqlWorker>(const std::string& strSiteID)>;
    using Begin = std::function<Call(SqlWorker& worker, const std::string& strSiteID, const Argument& argument)>;

    // time must outlive this object. findWorker raises for a site that is not set up.
    TickReads(TickTime& time, FindWorker findWorker, Begin begin)
        : time_(time), findWorker_(std::move(findWorker)), begin_(std::move(begin)) {}

    // The site's result, which was never begun before this tick. The same sites as at the tick before are reckoned
    // with. Raises what finish raises.
    Result read(std::string_view strSiteID, Argument argument) {
        const std::string siteID(strSiteID);
        const std::shared_ptr<SqlWorker> worker = findWorker_(siteID);
        Site& own = sites_[siteID];
        if (own.hasAsked || time_.now() - tickBegan_ >= sameTick) {
            startTick();
        }
        own.hasAsked = true;
        return time_.waitFor([&] {
            if (!own.begun || own.argument != argument) {
                own.begun.reset();
                own.argument = std::move(argument);
                if (worker->isFree()) {
                    own.begun = Begun{worker, begin_(*worker, siteID, own.argument)};
                }
            }
            beginOthers();
            // One whose connection is taken by another site's read waits for it.
            Begun begun = own.begun ? std::move(*own.begun) : Begun{worker, begin_(*worker, siteID, own.argument)};
            own.begun.reset();
            return begun.worker->finish(std::move(begun.call));
        });
    }

    // Throws away what was begun, and expects nobody any more.
    void clear() { sites_.clear(); }

 private:
    // Ticks are whole seconds apart.
    static constexpr std::uint64_t sameTick = 500;

    struct Begun {
        std::shared_ptr<SqlWorker> worker;
        Call call;
    };
    struct Site {
        bool isExpected = false;
        bool hasAsked = false;
        Argument argument{};
        std::optional<Begun> begun;
    };

    void startTick() {
        tickBegan_ = time_.now();
        for (auto& [siteID, site] : sites_) {
            site.isExpected = site.hasAsked;
            site.hasAsked = false;
            site.begun.reset();
        }
    }

    void beginOthers() {
        for (auto& [siteID, site] : sites_) {
            if (site.isExpected && !site.hasAsked && !site.begun) {
                const std::shared_ptr<SqlWorker> worker = findWorker_(siteID);
                if (worker->isFree()) {
                    site.begun = Begun{worker, begin_(*worker, siteID, site.argument)};
                }
            }
        }
    }

    TickTime& time_;
    FindWorker findWorker_;
    Begin begin_;
    std::map<std::string, Site> sites_;
    std::uint64_t tickBegan_ = 0;
};

}  // namespace quelm
