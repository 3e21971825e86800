#include "OPC/Monitor/Trends.h"

#include <algorithm>

#include "OPC/Monitor/Fields.h"
#include "base/TimeSource.h"

namespace quelm::monitor {

Trends::Course* Trends::find(const std::string& item) {
    const auto found =
        std::find_if(courses_.begin(), courses_.end(), [&](const Course& course) { return course.item == item; });
    return found == courses_.end() ? nullptr : &*found;
}

bool Trends::has(const std::string& item) const {
    return std::any_of(courses_.begin(), courses_.end(), [&](const Course& course) { return course.item == item; });
}

void Trends::look(const std::string& item) {
    const std::uint64_t now = timeSource().monotonicMilliseconds();
    if (Course* course = find(item)) {
        course->looked = now;
    } else if (courses_.size() < mostItems) {
        courses_.push_back({item, now, {}});
    } else {
        *std::min_element(courses_.begin(), courses_.end(), [](const Course& left, const Course& right) {
            return left.looked < right.looked;
        }) = {item, now, {}};
    }
}

std::string Trends::next() {
    if (courses_.empty()) {
        return {};
    }
    turn_ = turn_ < courses_.size() ? turn_ : 0;
    return courses_[turn_++].item;
}

void Trends::trim(Course& course) {
    const std::uint64_t now = timeSource().monotonicMilliseconds();
    while (!course.samples.empty() &&
           (course.samples.size() > mostSamples || now - course.samples.front().taken > span)) {
        course.samples.pop_front();
    }
}

void Trends::add(const std::string& item, const Json& reading) {
    Course* course = find(item);
    const std::string time = textIn(reading, "time");
    if (!course || !timeIn(reading, "time") || (!course->samples.empty() && course->samples.back().time == time)) {
        return;
    }
    const auto value = numberIn(reading, "value");
    const auto quality = numberIn(reading, "quality").value_or(0);
    course->samples.push_back({timeSource().monotonicMilliseconds(), time, value ? Json(*value) : Json(),
                               quality >= 0 && quality <= 0xFFFF ? static_cast<int>(quality) : 0});
    trim(*course);
}

Json Trends::samples(const std::string& item) {
    Json list = Json::array();
    if (Course* course = find(item)) {
        trim(*course);
        for (const Sample& sample : course->samples) {
            list.push_back(Json::array({sample.time, sample.value, sample.quality}));
        }
    }
    return list;
}

}  // namespace quelm::monitor
