#include "loop/AsioLoop.h"

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>
#include <asio/signal_set.hpp>
#include <asio/steady_timer.hpp>
#include <cstdint>
#include <utility>

namespace quelm {

namespace {

// Kept alive by the waits under way, so that a handler may destroy the timer that calls it.
struct TimerState {
    TimerState(asio::io_context& context, std::function<void()> handler)
        : timer(context), onExpiry(std::move(handler)) {}

    asio::steady_timer timer;
    std::function<void()> onExpiry;
    std::uint64_t start = 0;  // an expiry already queued when the timer was stopped or restarted carries an old number
    bool pending = false;
};

class AsioTimer final : public ITimer {
 public:
    AsioTimer(asio::io_context& context, std::function<void()> onExpiry)
        : state_(std::make_shared<TimerState>(context, std::move(onExpiry))) {}
    AsioTimer(const AsioTimer&) = delete;
    AsioTimer& operator=(const AsioTimer&) = delete;
    ~AsioTimer() override { AsioTimer::stop(); }

    void start(std::chrono::milliseconds after) override {
        state_->pending = true;
        auto expired = [state = state_, start = ++state_->start](const asio::error_code& error = {}) {
            if (!error && state->pending && state->start == start) {
                state->pending = false;
                state->onExpiry();
            }
        };
        if (after <= std::chrono::milliseconds(0)) {
            asio::post(state_->timer.get_executor(), std::move(expired));  // needs no timer of the kernel's
            return;
        }
        state_->timer.expires_after(after);
        state_->timer.async_wait(std::move(expired));
    }

    void stop() override {
        state_->pending = false;
        state_->timer.cancel();
    }

    bool pending() const override { return state_->pending; }

 private:
    std::shared_ptr<TimerState> state_;
};

// Kept alive by the wait under way, so that a handler may destroy the watch that calls it.
struct WatchState {
    WatchState(asio::io_context& context, int watched, std::function<void()> handler)
        : descriptor(context, watched), onReadable(std::move(handler)) {}

    asio::posix::stream_descriptor descriptor;
    std::function<void()> onReadable;
    bool watching = true;
};

void waitUntilReadable(const std::shared_ptr<WatchState>& state);

// Also after a handler that let a failure out.
struct WaitAgain {
    explicit WaitAgain(std::shared_ptr<WatchState> state) : watch(std::move(state)) {}
    WaitAgain(const WaitAgain&) = delete;
    WaitAgain& operator=(const WaitAgain&) = delete;
    ~WaitAgain() {
        if (watch->watching) {
            waitUntilReadable(watch);
        }
    }

    std::shared_ptr<WatchState> watch;
};

void waitUntilReadable(const std::shared_ptr<WatchState>& state) {
    state->descriptor.async_wait(asio::posix::stream_descriptor::wait_read, [state](const asio::error_code& error) {
        if (error || !state->watching) {
            return;
        }
        const WaitAgain next{state};
        state->onReadable();
    });
}

class DescriptorWatch final : public IDescriptorWatch {
 public:
    DescriptorWatch(asio::io_context& context, int descriptor, std::function<void()> onReadable)
        : state_(std::make_shared<WatchState>(context, descriptor, std::move(onReadable))) {
        waitUntilReadable(state_);
    }
    DescriptorWatch(const DescriptorWatch&) = delete;
    DescriptorWatch& operator=(const DescriptorWatch&) = delete;
    ~DescriptorWatch() override {
        state_->watching = false;
        state_->descriptor.release();
    }

 private:
    std::shared_ptr<WatchState> state_;
};

}  // namespace

struct AsioLoop::Impl {
    void waitForSignal() {
        signals.async_wait([this](const asio::error_code& error, int signal) {
            if (!error) {
                waitForSignal();
                onSignal(signal);
            }
        });
    }

    asio::io_context context{1};
    asio::executor_work_guard<asio::io_context::executor_type> guard{context.get_executor()};
    asio::signal_set signals{context};
    std::function<void(int)> onSignal;
};

AsioLoop::AsioLoop() : impl_(std::make_unique<Impl>()) {}

AsioLoop::~AsioLoop() = default;

std::unique_ptr<ITimer> AsioLoop::makeTimer(std::function<void()> onExpiry) {
    return std::make_unique<AsioTimer>(impl_->context, std::move(onExpiry));
}

void AsioLoop::post(std::function<void()> task) {
    asio::post(impl_->context, std::move(task));
}

void AsioLoop::run() {
    runAfter();
    while (impl_->context.run_one() != 0) {
        runAfter();
    }
    impl_->context.restart();
}

bool AsioLoop::runOne() {
    runAfter();
    const bool ran = impl_->context.run_one() != 0;
    runAfter();
    if (!ran) {
        impl_->context.restart();
    }
    return ran;
}

void AsioLoop::runAfter() {
    while (!after_.empty()) {
        const auto task = std::move(after_.front());
        after_.erase(after_.begin());
        task();
    }
}

void AsioLoop::stop() {
    impl_->context.stop();
}

void AsioLoop::onSignal(std::initializer_list<int> signals, std::function<void(int)> handler) {
    impl_->signals.clear();
    impl_->signals.cancel();
    for (const int signal : signals) {
        impl_->signals.add(signal);
    }
    impl_->onSignal = std::move(handler);
    impl_->waitForSignal();
}

std::unique_ptr<IDescriptorWatch> AsioLoop::watch(int descriptor, std::function<void()> onReadable) {
    return std::make_unique<DescriptorWatch>(impl_->context, descriptor, std::move(onReadable));
}

asio::io_context& AsioLoop::context() {
    return impl_->context;
}

}  // namespace quelm
