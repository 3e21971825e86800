#pragma once

// The last hour of those items that somebody looks at: few of them, and a bounded number of samples of each.

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "OPC/Monitor/ControlLink.h"

namespace quelm::monitor {

class Trends {
 public:
    static constexpr std::size_t mostItems = 50;
    static constexpr std::uint64_t span = 3'600'000;           // milliseconds that samples are kept
    static constexpr std::size_t mostSamples = 3600 / 15 + 1;  // of an item

    // Somebody looks at the item: it is sampled from now on. Where there are too many, it takes the place of the one
    // that nobody has looked at for longest.
    void look(const std::string& item);
    bool has(const std::string& item) const;
    // The item that was sampled longest ago, which is then the last; "" while there is none.
    std::string next();
    std::size_t size() const { return courses_.size(); }

    // reading: the item as the server's answer has it ("value", "quality", "time"). One of the time of the sample
    // before is the same reading; a value that is no number leaves a gap. Nothing happens for an item that is not
    // sampled.
    void add(const std::string& item, const Json& reading);
    // [[time, value or null, quality], ...], oldest first.
    Json samples(const std::string& item);

 private:
    struct Sample {
        std::uint64_t taken;  // milliseconds of the clock that only goes forward
        std::string time;
        Json value;
        int quality;
    };
    struct Course {
        std::string item;
        std::uint64_t looked;
        std::deque<Sample> samples;
    };

    Course* find(const std::string& item);
    static void trim(Course& course);

    std::vector<Course> courses_;
    std::size_t turn_ = 0;
};

}  // namespace quelm::monitor
