#pragma once

// Room for the parameters of the one call that is being carried out, so that a steady load allocates nothing. All
// clients' calls share it: kept by every object, the room of each one's largest call would add up.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "opcda/Group.h"
#include "opcda/ItemIO.h"

namespace quelm::opcda {

// What stands behind a value in the reply of a read that is written column by column.
struct BehindValue {
    std::int64_t fileTime = 0;  // UTC, FILETIME
    HResult error = S_OK;
    std::uint16_t quality = 0;
};

struct CallBuffers {
    // For as long as one call takes.
    class Loan {
     public:
        explicit Loan(CallBuffers& buffers) : buffers_(buffers) {}
        Loan(const Loan&) = delete;
        Loan& operator=(const Loan&) = delete;
        ~Loan() { buffers_.giveBack(); }
        CallBuffers* operator->() const { return &buffers_; }
        CallBuffers& operator*() const { return buffers_; }

     private:
        CallBuffers& buffers_;
    };

    std::vector<std::uint32_t> handles;
    std::vector<std::uint32_t> numbers;  // what goes with each handle or name
    std::vector<std::uint32_t> wanted;   // and what the client would have instead
    std::vector<std::string> itemIds;
    std::vector<std::string_view> views;
    std::vector<ItemDefinition> definitions;
    std::vector<ItemResult> results;
    std::vector<ItemIOReading> readings;
    std::vector<BehindValue> behindValues;
    std::vector<HResult> errors;
    std::vector<const SLIKTag*> asked;
    std::vector<std::uint8_t> heads;   // of what is gathered apart from the reply
    std::vector<std::uint8_t> bodies;  // and what they point to

 private:
    // What a large call took.
    void giveBack() {
        giveBack(handles);
        giveBack(numbers);
        giveBack(wanted);
        giveBack(itemIds);
        giveBack(views);
        giveBack(definitions);
        giveBack(results);
        giveBack(readings);
        giveBack(behindValues);
        giveBack(errors);
        giveBack(asked);
        giveBack(heads);
        giveBack(bodies);
    }

    // Bytes: a read of 10,000 items, the largest that clients make all day, leaves its room.
    static constexpr std::size_t kept = std::size_t{1} << 20U;

    template <class T>
    static void giveBack(std::vector<T>& room) {
        // Some rooms hold pointers.  NOLINTNEXTLINE(bugprone-sizeof-expression)
        if (room.capacity() * sizeof(T) > kept) {
            room = {};
        }
    }
};

}  // namespace quelm::opcda
