#include "dcom/outgoing/Pace.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace quelm::dcom::outgoing {

Pace::Caller::Caller(Pace& pace, std::function<void()> goOn)
    : pace_(pace), goOn_(std::move(goOn)), place_{this}, self_(place_.begin()) {}

Pace::Caller::~Caller() {
    if (place_.empty()) {
        pace_.row_.erase(self_);
    }
}

bool Pace::Caller::mayCall(std::size_t size) {
    if (place_.empty()) {
        return false;
    }
    if (pace_.left_ > 0) {
        pace_.left_ -= std::min(pace_.left_, costOfCall + size);
        return true;
    }
    pace_.row_.splice(pace_.row_.end(), place_);
    if (!pace_.timer_->pending()) {
        pace_.timer_->start(std::chrono::milliseconds(0));
    }
    return false;
}

Pace::Pace(IMessageLoop& loop) : timer_(loop.makeTimer([this] { turn(); })) {}

// One that lets a failure out costs the others nothing but this turn.
void Pace::turn() {
    left_ = handful;
    timer_->start(std::chrono::milliseconds(0));
    while (left_ > 0 && !row_.empty()) {
        Caller& first = *row_.front();
        first.place_.splice(first.place_.end(), row_, first.self_);
        first.goOn_();
    }
    if (row_.empty()) {
        timer_->stop();
    }
}

}  // namespace quelm::dcom::outgoing
