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

#include "DB Interface Library/sql/SqlWorker.h"
#include "base/TimeSource.h"

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

    // The site is set up and will ask as the others do: whoever asks first has its read begun as well, so that
    // databases which are dead from the beginning are waited for once, too.
    void expect(std::string_view strSiteID) { sites_[std::string(strSiteID)].askedAt = time_.now(); }

    // The site's result, which was never begun before this tick. Raises what finish raises.
    Result read(std::string_view strSiteID, Argument argument) {
        const std::string siteID(strSiteID);
        const std::shared_ptr<SqlWorker> worker = findWorker_(siteID);
        Site& own = sites_[siteID];
        if (own.lastTick == tick_ || time_.now() - tickBegan_ >= sameTick) {
            startTick();
        }
        own.lastTick = tick_;
        const std::uint64_t now = time_.now();
        own.askedAt = now;
        ++own.reads;
        return time_.waitFor([&] {
            if (own.argument != argument) {
                own.begun.reset();
                own.argument = std::move(argument);
            }
            if (!own.begun && worker->isFree()) {
                own.begun = begin(worker, siteID, own, now);
            }
            beginOthers(own, now);
            // One whose connection is taken by another site's read waits for it.
            Begun begun = own.begun ? std::move(*own.begun) : begin(worker, siteID, own, now);
            own.begun.reset();
            return begun.worker->finish(std::move(begun.call));
        });
    }

    // Throws away what was begun, and expects nobody any more.
    void clear() { sites_.clear(); }

 private:
    // All in milliseconds. Ticks are whole seconds apart.
    static constexpr std::uint64_t sameTick = 500;
    // A site is due when it has asked not so shortly ago (their periods are longer), and not so long ago that it may
    // have stopped. The first time it asks may be when it is loaded, shortly before the first tick.
    static constexpr std::uint64_t shortestPeriod = 5'000;
    static constexpr std::uint64_t longestPeriod = 60'000;

    struct Begun {
        std::shared_ptr<SqlWorker> worker;
        Call call;
    };
    struct Site {
        std::uint64_t lastTick = 0;  // number of the tick in which it has asked last
        std::uint64_t askedAt = 0;
        std::optional<std::uint64_t> begunAt;
        std::uint64_t reads = 0;
        Argument argument{};
        std::optional<Begun> begun;

        bool isDue(std::uint64_t tick, const Site& asker, std::uint64_t now) const {
            if (lastTick == tick || begun || now - askedAt > longestPeriod) {
                return false;
            }
            if (reads == 0) {
                return !begunAt;
            }
            const bool isPeriodOver = (!begunAt || now - *begunAt >= shortestPeriod) && now - askedAt >= shortestPeriod;
            return isPeriodOver || (reads == 1 && asker.reads > 1);
        }
    };

    void startTick() {
        tickBegan_ = time_.now();
        ++tick_;
        for (auto& [siteID, site] : sites_) {
            site.begun.reset();
        }
    }

    // Those that never asked are taken to ask as the asker does.
    void beginOthers(const Site& asker, std::uint64_t now) {
        for (auto& [siteID, site] : sites_) {
            if (site.isDue(tick_, asker, now)) {
                if (site.reads == 0) {
                    site.argument = asker.argument;
                }
                if (const std::shared_ptr<SqlWorker> worker = findWorker_(siteID); worker->isFree()) {
                    site.begun = begin(worker, siteID, site, now);
                }
            }
        }
    }

    Begun begin(const std::shared_ptr<SqlWorker>& worker, const std::string& siteID, Site& site, std::uint64_t now) {
        site.begunAt = now;
        return Begun{worker, begin_(*worker, siteID, site.argument)};
    }

    TickTime& time_;
    FindWorker findWorker_;
    Begin begin_;
    std::map<std::string, Site> sites_;
    std::uint64_t tickBegan_ = 0;
    std::uint64_t tick_ = 1;
};

}  // namespace quelm
