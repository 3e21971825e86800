#pragma once

// What the fuzz targets share: the way in, with the time standing still, an input taken apart into the numbers and byte
// strings that a target wants, and checks that end the run with their reason. A target defines runInput().

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/RuntimeError.h"
#include "base/TimeSource.h"

namespace quelm::fuzz {

using Bytes = std::span<const std::uint8_t>;

// What must not be seen in any log.
constexpr std::string_view secret = "Zq7vXk3Rw9";

// Stops the run: the input that it runs is then written out as a finding.
inline void require(bool holds, const char* what) {
    if (!holds) {
        std::fprintf(stderr, "broken promise: %s\n", what);
        std::abort();
    }
}

// Runs action; it may raise only the given numbers.
template <class Action>
void mayRaise(std::initializer_list<long> numbers, const char* what, Action action) {
    try {
        action();
    } catch (const RuntimeError& error) {
        require(std::find(numbers.begin(), numbers.end(), error.number()) != numbers.end(), what);
    }
}

inline void requireOneLine(std::string_view text) {
    require(std::none_of(text.begin(), text.end(), [](unsigned char c) { return c < ' '; }), "one line");
    require(text.size() < 2000, "a line is of a sane length");
}

// Takes an input apart from its front. Behind the end every number is 0 and every part empty.
class Input {
 public:
    Input(const std::uint8_t* data, std::size_t size) : rest_(data, size) {}

    bool empty() const { return rest_.empty(); }
    std::uint8_t u8() {
        const Bytes byte = bytes(1);
        return byte.empty() ? std::uint8_t{0} : byte[0];
    }
    std::uint16_t u16() {
        const unsigned low = u8();
        return static_cast<std::uint16_t>(low | static_cast<unsigned>(u8()) << 8);
    }
    Bytes bytes(std::size_t count) {
        const Bytes taken = rest_.first(std::min(count, rest_.size()));
        rest_ = rest_.subspan(taken.size());
        return taken;
    }
    // A part with its size in front.
    Bytes part() { return bytes(u16()); }
    Bytes rest() { return bytes(rest_.size()); }
    // The text up to the next NUL, which is passed over.
    std::string text() {
        const auto end = std::find(rest_.begin(), rest_.end(), std::uint8_t{0});
        std::string taken(rest_.begin(), end);
        bytes(taken.size() + 1);
        return taken;
    }

 private:
    Bytes rest_;
};

// A copy in memory of its own of exactly its size, so that the smallest step beyond its end is noticed.
class ExactCopy {
 public:
    explicit ExactCopy(Bytes data) : data_(new std::uint8_t[data.size()]), size_(data.size()) {
        std::copy(data.begin(), data.end(), data_);
    }
    ~ExactCopy() { delete[] data_; }
    ExactCopy(const ExactCopy&) = delete;
    ExactCopy& operator=(const ExactCopy&) = delete;

    std::span<std::uint8_t> bytes() { return {data_, size_}; }
    std::string_view text() const { return {reinterpret_cast<const char*>(data_), size_}; }

 private:
    std::uint8_t* data_;
    std::size_t size_;
};

void runInput(Input input);

}  // namespace quelm::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    quelm::ManualTimeSource time(quelm::Date{46348.5});
    const quelm::ScopedTimeSource scope(time);
    quelm::fuzz::runInput({data, size});
    return 0;
}
