#include "dcom/net/RepeatFilter.h"

#include <fmt/format.h>

#include <utility>

namespace quelm::dcom::net {

RepeatFilter::RepeatFilter(IMessageLoop& timers, std::function<void(std::string_view)> write)
    : write_(std::move(write)), timer_(timers.makeTimer([this] { sumUp(); })) {}

void RepeatFilter::say(const std::string& source, const std::string& kind, const std::string& line) {
    if (!timer_->pending()) {
        timer_->start(period);
    }
    const auto known = sources_.find(source);
    const std::size_t ofSource = known == sources_.end() ? 0 : known->second.size();
    const bool repeated = ofSource != 0 && known->second.contains(kind);
    if (!repeated && (ofSource >= mostOfOneSource || kinds_ >= most)) {
        // The first kind of a source stands for all that it has too many of.
        Count& count = ofSource != 0 ? known->second.begin()->second : others_;
        count.last = line;
        ++count.repeats;
        return;
    }
    Count& count = sources_[source][kind];
    kinds_ += repeated ? 0 : 1;
    if (count.lines == linesOfOneKind) {
        count.last = line;
        ++count.repeats;
    } else {
        ++count.lines;
        write_(line);
    }
}

void RepeatFilter::sumUp() {
    const auto sources = std::exchange(sources_, {});
    const Count others = std::exchange(others_, {});
    kinds_ = 0;
    const auto write = [this](const Count& count) {
        if (count.repeats != 0) {
            write_(fmt::format("{} ({} times more within a minute)", count.last, count.repeats));
        }
    };
    for (const auto& [source, kinds] : sources) {
        for (const auto& [kind, count] : kinds) {
            write(count);
        }
    }
    write(others);
}

}  // namespace quelm::dcom::net
