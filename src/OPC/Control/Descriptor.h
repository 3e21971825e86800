#pragma once

// A file descriptor that is closed with its object.

#include <unistd.h>

namespace quelm::control {

class Descriptor {
 public:
    // A negative number is none.
    explicit Descriptor(int number) : number_(number) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() {
        if (number_ >= 0) {
            ::close(number_);
        }
    }
    int number() const { return number_; }

 private:
    int number_;
};

}  // namespace quelm::control
