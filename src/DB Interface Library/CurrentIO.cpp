#include "DB Interface Library/CurrentIO.h"

#include <algorithm>
#include <charconv>
#include <functional>
#include <optional>
#include <span>
#include <unordered_map>

#include "DB Interface Library/sql/Sql.h"
#include "DB Interface Library/sql/SqlDate.h"
#include "base/IntIndex.h"
#include "base/Text.h"

namespace quelm {

namespace {

// The channel ID of a key of the form "C1234" exactly as the number is written: "C007" is another key than "C7".
std::optional<std::int32_t> channelOf(std::string_view key) {
    if (key.size() < 2 || (key[0] != 'C' && key[0] != 'c')) {
        return std::nullopt;
    }
    const std::string_view number = key.substr(1);
    const std::string_view figures = number.substr(number[0] == '-' ? 1 : 0);
    if (figures.empty() || (figures[0] == '0' && number.size() > 1)) {
        return std::nullopt;
    }
    std::int32_t channel = 0;
    const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), channel);
    if (error != std::errc() || end != number.data() + number.size()) {
        return std::nullopt;
    }
    return channel;
}

}  // namespace

// The channels' records, nearly all of them, by number; only the others by their text.
class CurrentIOIndex {
 public:
    bool add(std::string_view key, std::uint32_t position) {
        if (const auto channel = channelOf(key)) {
            return channels_.add(*channel, position);
        }
        return others_.emplace(foldCase(key), position).second;
    }
    void reserve(std::size_t count) { channels_.reserve(count); }

    std::uint32_t channel(std::int32_t id) const noexcept { return channels_.find(id); }
    std::uint32_t item(std::string_view key) const {
        if (const auto id = channelOf(key)) {
            return channels_.find(*id);
        }
        const FoldedKey folded(key);
        const auto found = others_.find(folded.view());
        return found == others_.end() ? IntIndex::none : found->second;
    }

 private:
    struct Hash {
        using is_transparent = void;
        std::size_t operator()(std::string_view text) const { return std::hash<std::string_view>{}(text); }
    };
    IntIndex channels_;
    std::unordered_map<std::string, std::uint32_t, Hash, std::equal_to<>> others_;
};

std::shared_ptr<const CurrentIOCollection> CurrentIOCollection::Make(std::vector<CurrentIORecord> records,
                                                                     const CurrentIOCollection* previous) {
    auto made = std::make_shared<CurrentIOCollection>();
    made->records_ = std::move(records);
    made->buildIndex(previous);
    return made;
}

void CurrentIOCollection::buildIndex(const CurrentIOCollection* previous) {
    const auto sameKey = [](const CurrentIORecord& left, const CurrentIORecord& right) {
        return left.IOID == right.IOID;
    };
    if (previous != nullptr &&
        std::equal(records_.begin(), records_.end(), previous->records_.begin(), previous->records_.end(), sameKey)) {
        index_ = previous->index_;
        return;
    }
    const auto index = std::make_shared<CurrentIOIndex>();
    index->reserve(records_.size());
    std::size_t kept = 0;
    for (std::size_t i = 0; i < records_.size(); ++i) {
        if (index->add(records_[i].IOID, static_cast<std::uint32_t>(kept))) {
            if (kept != i) {
                records_[kept] = std::move(records_[i]);
            }
            ++kept;
        }
    }
    records_.resize(kept);
    index_ = index;
}

const CurrentIORecord* CurrentIOCollection::Item(std::string_view strIOID) const {
    const std::uint32_t position = index_ ? index_->item(strIOID) : IntIndex::none;
    return position == IntIndex::none ? nullptr : &records_[position];
}

const CurrentIORecord* CurrentIOCollection::Channel(std::int32_t lngChannelID) const {
    const std::uint32_t position = index_ ? index_->channel(lngChannelID) : IntIndex::none;
    return position == IntIndex::none ? nullptr : &records_[position];
}

namespace {

// Writes rows over the records of an older snapshot, which mostly holds the same keys in the same order.
class RecordWriter final : public ISqlRowSink {
 public:
    explicit RecordWriter(std::vector<CurrentIORecord>& records) : records_(records) {}

    void take(std::span<const SqlValue> columns) override {
        const SqlValue& key = columns[0];
        if (key.type != SqlType::Text || key.text.size() > maxSqlText) {
            return;
        }
        if (count_ == records_.size()) {
            records_.emplace_back();
        }
        CurrentIORecord& record = records_[count_++];
        if (record.IOID != key.text) {
            record.IOID = key.text;
            keyChanged_ = true;
        }
        record.TStamp = dates_.read(columns[1]);
        record.NValue = sqlVariant(columns[2]);
        record.XValue.assign(sqlText(columns[3]));
    }

    std::size_t count() const { return count_; }
    bool keyChanged() const { return keyChanged_; }

 private:
    std::vector<CurrentIORecord>& records_;
    std::size_t count_ = 0;
    bool keyChanged_ = false;
    SqlDateReader dates_;
};

}  // namespace

std::shared_ptr<CurrentIOCollection> CurrentIORead::fill(const std::function<void(ISqlRowSink&)>& scan) {
    std::vector<CurrentIORecord>& records = filled_->records_;
    if (last_) {
        records.reserve(last_->records_.size());
    }
    const std::size_t countBefore = records.size();
    RecordWriter writer(records);
    scan(writer);
    records.resize(writer.count());
    if (!filled_->index_ || writer.keyChanged() || writer.count() != countBefore) {
        records.shrink_to_fit();
        filled_->buildIndex(last_.get());
    }
    return std::move(filled_);
}

CurrentIORead CurrentIOSnapshots::begin() {
    CurrentIORead read;
    read.filled_ = std::move(spare_);
    if (!read.filled_ || read.filled_.use_count() != 1) {
        read.filled_ = std::make_shared<CurrentIOCollection>();
    }
    read.last_ = last_;
    return read;
}

std::shared_ptr<const CurrentIOCollection> CurrentIOSnapshots::take(std::shared_ptr<CurrentIOCollection> snapshot) {
    spare_ = std::move(last_);
    last_ = std::move(snapshot);
    return last_;
}

}  // namespace quelm
