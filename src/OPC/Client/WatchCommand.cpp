#include "OPC/Client/WatchCommand.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <map>

#include "OPC/Client/Answer.h"
#include "OPC/Client/Trend.h"
#include "OPC/Client/ValueForms.h"
#include "base/TimeSource.h"
#include "opcda/client/ItemGroup.h"

namespace quelm::opcclient {

using namespace opcda::client;

namespace {

constexpr std::size_t trendWidth = 30;
constexpr std::chrono::milliseconds turn{500};

class LiveView {
 public:
    LiveView(Screen& screen, const Options& options);
    void take(std::span<const ItemValue> values);
    // How the values come; said again when it changes.
    void say(const std::string& how);
    void draw();
    ExitCode code() const;

 private:
    bool isLive() const { return options_.form == Form::Text && screen_.isTerminal(); }
    void log(const ItemValue& item);

    Screen& screen_;
    const Options& options_;
    Table table_{"items", readingColumns(), {}};
    std::vector<ItemValue> latest_;
    std::multimap<std::string, std::size_t> places_;
    std::vector<Trend> trends_;
    std::string how_;
};

LiveView::LiveView(Screen& screen, const Options& options)
    : screen_(screen), options_(options), trends_(options.items.size(), Trend(trendWidth)) {
    for (std::size_t i = 0; i < options.items.size(); ++i) {
        latest_.push_back({options.items[i], {}, 0, 0, S_OK});
        places_.emplace(options.items[i], i);
    }
    if (options.form == Form::Csv) {
        screen.line(csvHead(table_));
    }
    if (options.plots && !isLive()) {
        screen.message("--plot shows on a terminal only");
    }
}

void LiveView::take(std::span<const ItemValue> values) {
    for (const ItemValue& item : values) {
        const auto [first, last] = places_.equal_range(item.itemId);
        for (auto place = first; place != last; ++place) {
            latest_[place->second] = item;
            trends_[place->second].add(failed(item.result) ? std::nullopt : item.value.number());
        }
        if (!isLive()) {
            log(item);
        }
    }
    if (!isLive() && !screen_.flush()) {
        throw UsageError("what is written is not taken any more");
    }
}

void LiveView::log(const ItemValue& item) {
    const std::vector<Cell> row = readingRow(item);
    if (options_.form == Form::Json) {
        screen_.line(jsonLine(jsonRow(table_, row)));
    } else if (options_.form == Form::Csv) {
        screen_.line(csvLine(row));
    } else {
        screen_.line(fmt::format("{}  {}  {}  {}", row[5].value.is_null() ? "-" : row[5].value.get<std::string>(),
                                 item.itemId, textOf(item.value),
                                 row[4].value.is_null() ? row[4].text : row[4].value.get<std::string>()));
    }
}

void LiveView::say(const std::string& how) {
    if (how != how_) {
        how_ = how;
        if (!isLive()) {
            screen_.message(how);
        }
    }
}

void LiveView::draw() {
    if (!isLive()) {
        return;
    }
    Table table{"", readingColumns(), {}};
    const std::size_t room = screen_.size().rows - std::min<std::size_t>(screen_.size().rows - 1, 4);
    const std::size_t shown = std::min(latest_.size(), room);
    if (options_.plots) {
        table.columns.push_back({"trend", "Trend"});
    }
    for (std::size_t i = 0; i < shown; ++i) {
        table.rows.push_back(readingRow(latest_[i]));
        if (options_.plots) {
            table.rows.back().push_back(Cell{Json(), trends_[i].text() + " "});
        }
    }
    std::vector<std::string> lines{screen_.toned(how_ + " (Ctrl-C ends it)", Tone::Faint)};
    const std::vector<std::string> rows = textLines(screen_, table);
    lines.insert(lines.end(), rows.begin(), rows.end());
    if (shown < latest_.size()) {
        lines.push_back(fmt::format("and {} more items, for which the window is too small", latest_.size() - shown));
    }
    screen_.redraw(lines);
}

ExitCode LiveView::code() const {
    return std::any_of(latest_.begin(), latest_.end(), isTrouble) ? ExitCode::ItemFailed : ExitCode::Good;
}

std::string howOf(const Watch& watch, const OpcSession& opc) {
    return watch.isSubscribed() ? fmt::format("Subscribed: the server calls {} at most every {} ms",
                                              opc.callbacks().callbackAddress(), watch.group().updateRate())
                                : fmt::format("Asking every {} ms: {}", watch.group().updateRate(), watch.whyPolling());
}

}  // namespace

ExitCode watch(Connection& connection, Screen& screen, const Options& options) {
    LiveView view(screen, options);
    Watch::Options wishes;
    wishes.updateRate = options.rate;
    wishes.pollOnly = options.polls;
    const OpcSession& opc = connection.opc();
    Watch watch(opc, options.items, wishes, [&view](std::span<const ItemValue> values) { view.take(values); });
    const std::uint64_t began = timeSource().monotonicMilliseconds();
    while (options.seconds == 0 || timeSource().monotonicMilliseconds() - began < options.seconds * 1000ULL) {
        view.say(howOf(watch, opc));
        view.draw();
        watch.run(turn);
    }
    return view.code();
}

}  // namespace quelm::opcclient
