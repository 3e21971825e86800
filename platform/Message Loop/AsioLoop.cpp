#include "Message Loop/AsioLoop.h"

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
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
        const std::uint64_t start = ++state_->start;
        state_->timer.expires_after(after);
        state_->timer.async_wait([state = state_, start](const asio::error_code& error) {
            if (!error && state->pending && state->start == start) {
                state->pending = false;
                state->onExpiry();
            }
        });
    }

    void stop() override {
        state_->pending = false;
        state_->timer.cancel();
    }

    bool pending() const override { return state_->pending; }

 private:
    std::shared_ptr<TimerState> state_;
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
    impl_->context.run();
    impl_->context.restart();
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

asio::io_context& AsioLoop::context() {
    return impl_->context;
}

}  // namespace quelm
