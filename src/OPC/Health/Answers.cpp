#include "OPC/Health/Answers.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <utility>

#include "OPC/Health/Tasks.h"
#include "OPC/Health/Words.h"
#include "base/TimeSource.h"

namespace quelm::health {

namespace {

// How late a handler is that was due while another one ran: what is not a client's call is measured by such samples.
constexpr std::chrono::milliseconds sampleTime{200};
constexpr unsigned samplesOfHalfMinute = 150;

class SaidAtOnce final : public Task {
 public:
    SaidAtOnce(std::weak_ptr<Asker> asker, std::string line) : Task(std::move(asker)), line_(std::move(line)) {}
    bool goOn() override {
        answer(std::move(line_));
        return true;
    }

 private:
    std::string line_;
};

// A member of the question, or what holds where there is none. Throws the library's error for one of another type.
template <class T>
T given(const Json& question, const char* name, T usual) {
    const auto found = question.find(name);
    return found == question.end() ? usual : found->get<T>();
}

// At least 0.
std::size_t countGiven(const Json& question, const char* name, std::size_t usual) {
    const auto found = question.find(name);
    if (found == question.end()) {
        return usual;
    }
    if (!found->is_number_unsigned()) {
        throw std::invalid_argument(fmt::format("\"{}\" is no whole number from 0 on", name));
    }
    return found->get<std::size_t>();
}

std::unique_ptr<Task> itemsTask(const Json& question, const Sources& sources, ItemSites& sites,
                                const std::weak_ptr<Asker>& asker) {
    constexpr std::size_t usualCount = 100;
    constexpr std::size_t greatestCount = 500;
    ItemQuestion asked{.site = given<std::string>(question, "site", ""),
                       .name = given<std::string>(question, "name", ""),
                       .quality = std::nullopt,
                       .from = countGiven(question, "from", 0),
                       .count = countGiven(question, "count", usualCount)};
    const auto quality = given<std::string>(question, "quality", "");
    if (!quality.empty()) {
        const auto* const found = std::find(qualityNames.begin(), qualityNames.end(), quality);
        if (found == qualityNames.end()) {
            throw std::invalid_argument("\"quality\" is none of \"good\", \"uncertain\", \"bad\", \"\"");
        }
        asked.quality = static_cast<Quality>(found - qualityNames.begin());
    }
    if (asked.count > greatestCount) {
        throw std::invalid_argument(fmt::format("\"count\" is greater than {}", greatestCount));
    }
    return std::make_unique<ItemsTask>(asker, sources, sites, std::move(asked));
}

std::unique_ptr<Task> taskFor(std::string_view line, const Sources& sources, ItemSites& sites,
                              const std::weak_ptr<Asker>& asker) {
    const Json question = Json::parse(line);
    if (!question.is_object()) {
        throw std::invalid_argument("a question is an object: {\"ask\":\"status\"}");
    }
    const auto ask = given<std::string>(question, "ask", "");
    if (ask == "status") {
        return std::make_unique<StatusTask>(asker, sources, sites);
    }
    if (ask == "clients") {
        return std::make_unique<ClientsTask>(asker, sources);
    }
    if (ask == "items") {
        return itemsTask(question, sources, sites, asker);
    }
    if (ask == "messages") {
        return std::make_unique<SaidAtOnce>(asker, messagesAfter(sources.plant, countGiven(question, "after", 0)));
    }
    if (ask == "reload") {
        return std::make_unique<ReloadTask>(asker, sources);
    }
    throw std::invalid_argument("\"ask\" is none of \"status\", \"clients\", \"items\", \"messages\", \"reload\"");
}

}  // namespace

Answers::Answers(IMessageLoop& loop, Sources sources)
    : sources_(std::move(sources)),
      itemSites_(sources_.application.items()),
      next_(loop.makeTimer([this] { turn(); })),
      sample_(loop.makeTimer([this] {
          const std::uint64_t now = timeSource().monotonicMilliseconds();
          sources_.longestTurn.note(now > sampleDue_ ? static_cast<double>(now - sampleDue_) : 0);
          if (++samples_ % samplesOfHalfMinute == 0) {
              sources_.longestTurn.goOn();
          }
          sampleDue_ = now + static_cast<std::uint64_t>(sampleTime.count()) + 1;
          sample_->start(sampleTime);
      })) {
    sampleDue_ = timeSource().monotonicMilliseconds() + static_cast<std::uint64_t>(sampleTime.count()) + 1;
    sample_->start(sampleTime);
}

void Answers::ask(std::string_view line, const std::shared_ptr<Asker>& asker) {
    std::unique_ptr<Task> task;
    try {
        task = taskFor(line, sources_, itemSites_, asker);
    } catch (const Json::exception& error) {
        const std::string_view what = error.what();  // "[json.exception.parse_error.101] parse error at ..."
        const std::size_t code = what.find("] ");
        task = std::make_unique<SaidAtOnce>(
            asker, lineOf({{"error", what.substr(code == std::string_view::npos ? 0 : code + 2)}}));
    } catch (const std::invalid_argument& error) {
        task = std::make_unique<SaidAtOnce>(asker, lineOf({{"error", error.what()}}));
    }
    tasks_.push_back(std::move(task));
    if (!next_->pending()) {
        next_->start(std::chrono::milliseconds(0));
    }
}

// One part of one answer, in turn; what nobody waits for any more goes.
void Answers::turn() {
    std::erase_if(tasks_, [](const auto& task) { return !task->isWanted(); });
    if (!tasks_.empty()) {
        std::unique_ptr<Task> task = std::move(tasks_.front());
        tasks_.pop_front();
        if (!task->goOn()) {
            tasks_.push_back(std::move(task));
        }
    }
    if (!tasks_.empty()) {
        next_->start(std::chrono::milliseconds(0));
    }
}

}  // namespace quelm::health
