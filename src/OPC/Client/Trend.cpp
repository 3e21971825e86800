#include "OPC/Client/Trend.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <string_view>

namespace quelm::opcclient {

namespace {

constexpr std::array<std::string_view, 8> blocks{"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};

}  // namespace

void Trend::add(std::optional<double> value) {
    values_.push_back(value && std::isfinite(*value) ? value : std::nullopt);
    if (values_.size() > width_) {
        values_.pop_front();
    }
}

std::string Trend::text() const {
    std::optional<double> low;
    std::optional<double> high;
    for (const std::optional<double>& value : values_) {
        if (value) {
            low = low ? std::min(*low, *value) : *value;
            high = high ? std::max(*high, *value) : *value;
        }
    }
    std::string line;
    for (const std::optional<double>& value : values_) {
        if (!value) {
            line += ' ';
            continue;
        }
        // Halved first: the range of two large numbers may be beyond what a number can be.
        const double range = *high / 2 - *low / 2;
        const double part = range > 0 ? (*value / 2 - *low / 2) / range : 0;
        line += blocks[std::min<std::size_t>(static_cast<std::size_t>(part * blocks.size()), blocks.size() - 1)];
    }
    return line;
}

}  // namespace quelm::opcclient
