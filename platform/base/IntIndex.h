#pragma once

// A flat look-up from a whole number (channel ID, PID) to a position, for the look-ups that every item makes on
// every update pass: no allocation, usually one cache line.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace quelm {

class IntIndex {
 public:
    static constexpr std::uint32_t none = 0xFFFFFFFF;

    // The position of that key, or none.
    std::uint32_t find(std::int32_t key) const noexcept {
        if (slots_.empty()) {
            return none;
        }
        return slots_[slotFor(key)].position;
    }

    // False, with nothing changed, when the key is there already. position: anything but none.
    bool add(std::int32_t key, std::uint32_t position) {
        if (count_ + 1 > slots_.size() / 3 * 2) {
            resize(count_ + count_ / 2 + 1);
        }
        Slot& slot = slots_[slotFor(key)];
        if (slot.position != none) {
            return false;
        }
        slot = Slot{key, position};
        ++count_;
        return true;
    }

    void reserve(std::size_t count) {
        if (count > slots_.size() / 3 * 2) {
            resize(count);
        }
    }

    // Keeps the memory.
    void clear() noexcept {
        slots_.assign(slots_.size(), Slot{});
        count_ = 0;
    }

 private:
    struct Slot {
        std::int32_t key = 0;
        std::uint32_t position = none;
    };

    // IDs mostly come in runs, and items are asked for in the order of their IDs, so the eight keys of a cache line
    // stay together. The lines themselves are scattered: long runs laid over each other would fill up the table around
    // them, and every look-up would wade through all of that.
    static constexpr unsigned lineBits = 3;
    static constexpr std::uint32_t lineSize = 1U << lineBits;

    // The slot that holds the key, else the free one where it belongs.
    std::size_t slotFor(std::int32_t key) const noexcept {
        const auto bits = static_cast<std::uint32_t>(key);
        const std::uint64_t scattered = (bits >> lineBits) * 0x9E3779B1U;
        std::size_t at = (scattered * lines_ >> 32U) * lineSize + bits % lineSize;
        while (slots_[at].position != none && slots_[at].key != key) {
            at = at + 1 == slots_.size() ? 0 : at + 1;
        }
        return at;
    }

    // Room for count keys and half as many free slots.
    void resize(std::size_t count) {
        const std::size_t lines = (count + count / 2) / lineSize + 2;
        std::vector<Slot> old(lines * lineSize);
        lines_ = lines;
        old.swap(slots_);
        for (const Slot& slot : old) {
            if (slot.position != none) {
                slots_[slotFor(slot.key)] = slot;
            }
        }
    }

    std::vector<Slot> slots_;
    std::size_t lines_ = 0;
    std::size_t count_ = 0;
};

}  // namespace quelm
