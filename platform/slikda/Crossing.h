#pragma once

// The one way between plant and network: each side posts to the other's loop. Until the control lets clients in there
// is one side only, and everything is done at once; likewise where both sides run on one loop, as in most tests.

#include <functional>
#include <utility>

#include "loop/MessageLoop.h"

namespace quelm {

class Crossing {
 public:
    // The loops must outlive the crossing; they may be one and the same.
    Crossing(IMessageLoop& plant, IMessageLoop& network) : plant_(&plant), network_(&network) {}

    // Before the network's thread begins.
    void open() { isOpen_ = true; }
    // When it could not begin.
    void close() { isOpen_ = false; }

    void toPlant(std::function<void()> task) { cross(*plant_, std::move(task)); }
    void toNetwork(std::function<void()> task) { cross(*network_, std::move(task)); }
    // Plant: after the handler that is running now and before any other.
    void afterPlantsHandler(std::function<void()> task) { plant_->afterHandler(std::move(task)); }

 private:
    void cross(IMessageLoop& loop, std::function<void()> task) {
        if (isOpen_ && plant_ != network_) {
            loop.post(std::move(task));
        } else {
            task();
        }
    }

    IMessageLoop* plant_;
    IMessageLoop* network_;
    bool isOpen_ = false;
};

}  // namespace quelm
