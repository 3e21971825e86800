#pragma once

// One callback's items while they are gathered, column by column. All groups share it, one after the other, so that a
// steady load allocates nothing.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "base/Quality.h"
#include "opcda/Callbacks.h"

namespace quelm::opcda {

class CallbackColumns {
 public:
    // Bytes of one item on its way to the client, with a number as its value.
    static constexpr std::size_t itemSize = 50;

    // values outlives the buffers.
    explicit CallbackColumns(IValueWriter& values) : values_(&values) {}

    // Forgets what was gathered. room: bytes that this callback may take.
    void begin(std::uint32_t transaction, std::uint32_t clientGroup, std::size_t room,
               ValueForm form = ValueForm::marshalled) {
        values_->begin(form);
        items_.transaction = transaction;
        items_.clientGroup = clientGroup;
        items_.masterQuality = items_.masterError = S_OK;
        giveBack(items_.clientHandles);
        giveBack(items_.qualities);
        giveBack(items_.fileTimes);
        giveBack(items_.errors);
        room_ = room < largest ? room : largest;
    }
    std::size_t size() const { return items_.clientHandles.size(); }
    bool hasRoomFor(const OpcValue& value) const {
        return values_->size() + size() * columnsSize + itemSize + sizeOfText(value) <= room_;
    }
    void add(std::uint32_t clientHandle, std::int64_t fileTime, std::uint16_t quality, HResult error,
             const OpcValue& value) {
        items_.clientHandles.push_back(clientHandle);
        items_.qualities.push_back(quality);
        items_.fileTimes.push_back(fileTime);
        items_.errors.push_back(error);
        items_.masterQuality = quality::isGood(quality) ? items_.masterQuality : S_FALSE;
        items_.masterError = error == S_OK ? items_.masterError : S_FALSE;
        values_->add(value);
    }
    // For callbacks that are never cut. False: a value that there was no room for, and that is now that error.
    bool addOrRefuse(std::uint32_t clientHandle, std::int64_t fileTime, std::uint16_t quality, HResult error,
                     OpcValue& value) {
        const bool fits = hasRoomFor(value);
        if (!fits) {
            value.type = VT_EMPTY;
        }
        add(clientHandle, fileTime, fits ? quality : quality::bad, fits ? error : E_OUTOFMEMORY, value);
        return fits;
    }
    const CallbackItems& items() const { return items_; }

 private:
    static constexpr std::size_t columnsSize = 18;
    // Bytes of one callback, whatever the client's budget.
    static constexpr std::size_t largest = std::size_t{64} << 20U;
    // Bytes of a column that are kept.
    static constexpr std::size_t kept = std::size_t{1} << 20U;

    template <class T>
    static void giveBack(std::vector<T>& column) {
        column.clear();
        if (column.capacity() * sizeof(T) > kept) {
            column.shrink_to_fit();
        }
    }

    // UTF-16 at most, with what stands around it.
    static std::size_t sizeOfText(const OpcValue& value) {
        std::size_t size = value.type == VT_BSTR ? 2 * value.text.size() : 0;
        if (value.type == VT_BSTR_ARRAY) {
            for (const std::string& text : value.texts) {
                size += 2 * text.size() + 24;
            }
        }
        return size;
    }

    IValueWriter* values_;
    CallbackItems items_;
    std::size_t room_ = 0;
};

}  // namespace quelm::opcda
