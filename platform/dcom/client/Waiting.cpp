#include "dcom/client/Waiting.h"

#include <stdexcept>
#include <utility>

#include "dcom/client/Trouble.h"

namespace quelm::dcom::client {

namespace {

class Mark {
 public:
    explicit Mark(bool& mark) : mark_(mark) { mark_ = true; }
    Mark(const Mark&) = delete;
    Mark& operator=(const Mark&) = delete;
    ~Mark() { mark_ = false; }

 private:
    bool& mark_;
};

}  // namespace

bool Waiting::until(const std::function<bool()>& condition, std::optional<std::chrono::milliseconds> limit) {
    if (isWaiting_) {
        throw std::logic_error("a call to a server from within a callback or another handler of the loop");
    }
    const Mark mark(isWaiting_);
    isLate_ = false;
    if (limit) {
        timer_->start(*limit);
    }
    for (;;) {
        if (std::exchange(isInterrupted_, false)) {
            timer_->stop();
            throw Trouble(Trouble::Kind::Interrupted, {}, "interrupted");
        }
        if (condition() || isLate_) {
            timer_->stop();
            return condition();
        }
        if (!loop_.runOne()) {
            isInterrupted_ = true;
        }
    }
}

// The loop looks at its sockets before it waits.
void Waiting::settle() {
    constexpr std::chrono::milliseconds least{1};
    until([] { return false; }, least);
}

}  // namespace quelm::dcom::client
