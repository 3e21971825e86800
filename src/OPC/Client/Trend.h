#pragma once

// The last readings of an item as a line of Unicode blocks, as high as the values are between the lowest and the
// highest of them.

#include <cstddef>
#include <deque>
#include <optional>
#include <string>

namespace quelm::opcclient {

class Trend {
 public:
    explicit Trend(std::size_t width) : width_(width) {}

    // No number: a gap.
    void add(std::optional<double> value);
    // Characters: the width at most.
    std::string text() const;

 private:
    std::size_t width_;
    std::deque<std::optional<double>> values_;
};

}  // namespace quelm::opcclient
