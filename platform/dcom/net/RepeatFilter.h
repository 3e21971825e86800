#pragma once

// Keeps a client that is turned away again and again from flooding the log: the first lines of a kind are written at
// once, further repeats within the minute are counted and summed up in one.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "loop/MessageLoop.h"

namespace quelm::dcom::net {

class RepeatFilter {
 public:
    // Lines of one kind that are written, and kinds that are told apart within a minute, of one source and of all; what
    // is beyond is only counted.
    static constexpr std::uint64_t linesOfOneKind = 5;
    static constexpr std::size_t mostOfOneSource = 10;
    static constexpr std::size_t most = 200;
    static constexpr std::chrono::milliseconds period{60'000};

    // The loop must outlive the filter. write: takes one line for the log.
    RepeatFilter(IMessageLoop& timers, std::function<void(std::string_view)> write);

    // source: the host that it is about. kind: what makes two lines repeats of each other.
    void say(const std::string& source, const std::string& kind, const std::string& line);

 private:
    struct Count {
        std::string last;           // line
        std::uint64_t lines = 0;    // written
        std::uint64_t repeats = 0;  // counted only
    };
    void sumUp();

    std::function<void(std::string_view)> write_;
    std::unique_ptr<ITimer> timer_;
    std::map<std::string, std::map<std::string, Count>> sources_;
    std::size_t kinds_ = 0;
    Count others_;
};

}  // namespace quelm::dcom::net
