#pragma once

// Lines for the operator on their way from one thread's loop to another's. So many are under way at most: while nobody
// takes them, further ones are counted, and their number takes their place.

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

#include "loop/MessageLoop.h"

namespace quelm {

class LineCrossing {
 public:
    static constexpr std::size_t most = 1000;

    // print is called on the loop `to`. The loops must outlive the crossing and run nothing of it when it is gone.
    LineCrossing(IMessageLoop& from, IMessageLoop& to, std::function<void(std::string_view)> print)
        : from_(&from), to_(&to), print_(std::move(print)) {}
    LineCrossing(const LineCrossing&) = delete;
    LineCrossing& operator=(const LineCrossing&) = delete;

    // On the thread of the loop `from`.
    void send(std::string_view line) {
        if (underWay_ == most) {
            ++leftOut_;
            return;
        }
        ++underWay_;
        to_->post([this, text = std::string(line)] {
            print_(text);
            from_->post([this] { arrived(); });
        });
    }

 private:
    void arrived() {
        --underWay_;
        if (leftOut_ != 0) {
            send(std::to_string(std::exchange(leftOut_, 0)) + " further lines were left out: they came too fast");
        }
    }

    IMessageLoop* from_;
    IMessageLoop* to_;
    std::function<void(std::string_view)> print_;
    std::size_t underWay_ = 0;
    std::size_t leftOut_ = 0;
};

}  // namespace quelm
