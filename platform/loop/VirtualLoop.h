#pragma once

// A message loop for tests: time is a number that the test moves on, so that a day of ticks takes
// milliseconds and nothing ever sleeps.

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <utility>

#include "loop/MessageLoop.h"

namespace quelm {

class VirtualLoop final : public IMessageLoop {
 public:
    std::unique_ptr<ITimer> makeTimer(std::function<void()> onExpiry) override {
        return std::make_unique<Timer>(*this, std::move(onExpiry));
    }

    void post(std::function<void()> task) override { posted_.push_back(std::move(task)); }
    // What was called from outside any handler ends with the next drain() or advance().
    void afterHandler(std::function<void()> task) override { after_.push_back(std::move(task)); }

    // Time since the loop was made.
    std::chrono::milliseconds now() const { return now_; }
    std::size_t pendingTimers() const { return due_.size(); }
    std::size_t pendingPosts() const { return posted_.size(); }

    // Runs what was posted, and what that posts.
    void drain() {
        runAfter();
        while (!posted_.empty()) {
            const auto task = std::move(posted_.front());
            posted_.pop_front();
            task();
            runAfter();
        }
    }

    // Moves time on and runs every timer on its due time, earliest first, timers due together in the order of their
    // starts; what the handlers post runs before the next timer.
    void advance(std::chrono::milliseconds by) {
        const auto target = now_ + by;
        drain();
        while (!due_.empty() && due_.begin()->first.first <= target) {
            now_ = std::max(now_, due_.begin()->first.first);
            const auto state = due_.begin()->second;
            due_.erase(due_.begin());
            state->pending = false;
            state->onExpiry();
            drain();
        }
        now_ = target;
    }
    void advance(std::int64_t milliseconds) { advance(std::chrono::milliseconds(milliseconds)); }

 private:
    void runAfter() {
        while (!after_.empty()) {
            const auto task = std::move(after_.front());
            after_.pop_front();
            task();
        }
    }

    using Due = std::pair<std::chrono::milliseconds, std::uint64_t>;

    struct State {
        std::function<void()> onExpiry;
        Due due;
        bool pending = false;
    };

    class Timer final : public ITimer {
     public:
        Timer(VirtualLoop& loop, std::function<void()> onExpiry)
            : loop_(loop), state_(std::make_shared<State>(State{std::move(onExpiry), {}, false})) {}
        Timer(const Timer&) = delete;
        Timer& operator=(const Timer&) = delete;
        ~Timer() override { Timer::stop(); }

        void start(std::chrono::milliseconds after) override {
            stop();
            state_->due = {loop_.now_ + std::max(after, std::chrono::milliseconds(0)), ++loop_.starts_};
            state_->pending = true;
            loop_.due_.emplace(state_->due, state_);
        }

        void stop() override {
            if (state_->pending) {
                state_->pending = false;
                loop_.due_.erase(state_->due);
            }
        }

        bool pending() const override { return state_->pending; }

     private:
        VirtualLoop& loop_;
        std::shared_ptr<State> state_;
    };

    std::chrono::milliseconds now_{0};
    std::uint64_t starts_ = 0;
    std::map<Due, std::shared_ptr<State>> due_;
    std::deque<std::function<void()>> posted_;
    std::deque<std::function<void()>> after_;
};

}  // namespace quelm
