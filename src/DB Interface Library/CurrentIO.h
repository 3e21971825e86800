#pragma once

// The snapshot of a site's CurrentIO table: every I/O channel's latest value and the I/O servers' health records,
// keyed by IOID. Replaced whole on every read and looked up for every channel item on every update pass.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/Date.h"
#include "base/Variant.h"

namespace quelm {

// A text that is empty for nearly every channel, and then costs no more than a pointer: there may be a hundred
// thousand of them.
class SparseText {
 public:
    SparseText() = default;
    SparseText(std::string_view text) { assign(text); }
    SparseText(const std::string& text) { assign(text); }
    SparseText(const char* text) { assign(text); }
    SparseText(const SparseText& other) { assign(other.view()); }
    SparseText(SparseText&&) noexcept = default;
    SparseText& operator=(const SparseText& other) {
        assign(other.view());
        return *this;
    }
    SparseText& operator=(SparseText&&) noexcept = default;
    ~SparseText() = default;

    // Keeps the memory of the text before. text may not be part of it.
    void assign(std::string_view text) {
        if (text_ != nullptr) {
            text_->assign(text);
        } else if (!text.empty()) {
            text_ = std::make_unique<std::string>(text);
        }
    }
    bool empty() const noexcept { return text_ == nullptr || text_->empty(); }
    std::string_view view() const noexcept { return text_ == nullptr ? std::string_view() : *text_; }
    std::string text() const { return std::string(view()); }
    operator std::string_view() const noexcept { return view(); }
    friend bool operator==(const SparseText& left, std::string_view right) noexcept { return left.view() == right; }

 private:
    std::unique_ptr<std::string> text_;
};

struct CurrentIORecord {
    std::string IOID;
    Date TStamp;        // local time of the I/O server's last write; zero date for NULL or no date
    Variant NValue;     // typed as the database delivers it; Null for NULL
    SparseText XValue;  // the value as XML text where it is not a plain number; otherwise empty
};

class CurrentIOIndex;
class ISqlRowSink;

class CurrentIOCollection {
 public:
    // Of two records with the same IOID the first is kept. previous: the snapshot before this one; when it holds the
    // same IOIDs in the same order (the usual case) its key index is shared instead of built again.
    static std::shared_ptr<const CurrentIOCollection> Make(std::vector<CurrentIORecord> records,
                                                           const CurrentIOCollection* previous = nullptr);

    std::size_t Count() const { return records_.size(); }
    // The record with that IOID (without regard to case), or nullptr.
    const CurrentIORecord* Item(std::string_view strIOID) const;
    // The record "C" + channel ID in decimal: the same as Item of that key, without making the text.
    const CurrentIORecord* Channel(std::int32_t lngChannelID) const;
    const std::vector<CurrentIORecord>& Records() const { return records_; }

 private:
    friend class CurrentIORead;
    // Gives the records their index: the previous snapshot's where it fits.
    void buildIndex(const CurrentIOCollection* previous);

    std::vector<CurrentIORecord> records_;
    std::shared_ptr<const CurrentIOIndex> index_;
};

// One read of a site's snapshot: all that it works on, so that it can be done by another thread.
class CurrentIORead {
 public:
    // The whole snapshot with its index. scan hands every row to the sink, with the columns IOID, TStamp, NValue,
    // XValue. A row without a text in IOID is left out. Raises what scan raises. To be called once.
    std::shared_ptr<CurrentIOCollection> fill(const std::function<void(ISqlRowSink&)>& scan);

 private:
    friend class CurrentIOSnapshots;
    std::shared_ptr<CurrentIOCollection> filled_;
    std::shared_ptr<const CurrentIOCollection> last_;
};

// The snapshots of one site, read after read. A read fills the memory of the snapshot before the last one as soon as
// nobody holds that any more, so that a steady site allocates nothing. The snapshots given out stay as they are.
class CurrentIOSnapshots {
 public:
    CurrentIORead begin();
    // Takes what the read has filled for the last one from now on.
    std::shared_ptr<const CurrentIOCollection> take(std::shared_ptr<CurrentIOCollection> snapshot);

 private:
    std::shared_ptr<CurrentIOCollection> last_;
    std::shared_ptr<CurrentIOCollection> spare_;
};

}  // namespace quelm
