#include "OPC/Monitor/Answers.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>

#include "OPC/Monitor/Fields.h"
#include "OPC/Monitor/Metrics.h"

namespace quelm::monitor {
namespace {

constexpr std::size_t longestText = 1024;  // bytes of a name; none of an item is longer in a plant
constexpr std::int64_t farthest = 1'000'000'000'000;
constexpr const char* json = "application/json";

// A question that cannot be passed on, with the status of its answer.
struct Unanswerable {
    int status;
    std::string text;
};

std::string textFrom(const Parameters& parameters, const char* name) {
    const auto found = parameters.find(name);
    std::string text = found == parameters.end() ? std::string() : found->second;
    if (text.size() > longestText) {
        throw Unanswerable{400, fmt::format("\"{}\" is longer than {} bytes", name, longestText)};
    }
    return text;
}

std::int64_t numberFrom(const Parameters& parameters, const char* name, std::int64_t otherwise, std::int64_t most) {
    const auto found = parameters.find(name);
    if (found == parameters.end()) {
        return otherwise;
    }
    const std::string& text = found->second;
    std::int64_t number = -1;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || number < 0 || number > most) {
        throw Unanswerable{400, fmt::format("\"{}\" must be a number from 0 to {}", name, most)};
    }
    return number;
}

std::string qualityFrom(const Parameters& parameters) {
    std::string quality = textFrom(parameters, "quality");
    if (!quality.empty() && quality != "good" && quality != "uncertain" && quality != "bad") {
        throw Unanswerable{400, "\"quality\" must be good, uncertain or bad"};
    }
    return quality;
}

Reply jsonReply(int status, const Json& body) {
    return {status, json, body.dump(-1, ' ', false, Json::error_handler_t::replace)};
}

const char* stateOf(Trouble kind) {
    switch (kind) {
        case Trouble::Stopped:
            return "stopped";
        case Trouble::Forbidden:
            return "forbidden";
        default:
            return "failed";
    }
}

}  // namespace

Reply Answers::metrics() {
    constexpr const char* prometheusText = "text/plain; version=0.0.4; charset=utf-8";
    try {
        const Json status = ask_({{"ask", "status"}});
        return {200, prometheusText, metricsText(&status)};
    } catch (const LinkTrouble&) {
        return {200, prometheusText, metricsText(nullptr)};
    }
}

Reply Answers::api(std::string_view what, const Parameters& parameters) {
    try {
        return jsonReply(200, answerTo(what, parameters));
    } catch (const Unanswerable& reason) {
        return jsonReply(reason.status, {{"error", reason.text}});
    } catch (const LinkTrouble& trouble) {
        if (trouble.kind() == Trouble::Refused) {
            return jsonReply(502, {{"error", trouble.what()}});
        }
        return jsonReply(503, {{"state", stateOf(trouble.kind())}, {"error", trouble.what()}});
    }
}

Json Answers::answerTo(std::string_view what, const Parameters& parameters) {
    if (what == "status" || what == "clients") {
        return ask_({{"ask", what}});
    }
    if (what == "items") {
        return ask_({{"ask", what},
                     {"site", textFrom(parameters, "site")},
                     {"name", textFrom(parameters, "name")},
                     {"quality", qualityFrom(parameters)},
                     {"from", numberFrom(parameters, "from", 0, farthest)},
                     {"count", numberFrom(parameters, "count", 100, 500)}});
    }
    if (what == "messages") {
        return ask_({{"ask", what}, {"after", numberFrom(parameters, "after", 0, farthest)}});
    }
    if (what == "trend") {
        return trend(textFrom(parameters, "item"));
    }
    throw Unanswerable{404, "there is nothing of this name"};
}

// Nothing is kept for a name that no item has.
Json Answers::trend(const std::string& item) {
    if (!trends_.has(item)) {
        const Json reading = readingOf(item);
        if (reading.is_null()) {
            throw Unanswerable{404, "there is no such item"};
        }
        trends_.look(item);
        trends_.add(item, reading);
    }
    trends_.look(item);
    return {{"item", item}, {"samples", trends_.samples(item)}};
}

// Null where the server has no such item, or too many others have its name as a part of theirs.
Json Answers::readingOf(const std::string& item) {
    const Json answer =
        ask_({{"ask", "items"}, {"site", ""}, {"name", item}, {"quality", ""}, {"from", 0}, {"count", 500}});
    const Json& found = listIn(answer, "items");
    const auto place =
        std::find_if(found.begin(), found.end(), [&](const Json& each) { return textIn(each, "id") == item; });
    return place == found.end() ? Json() : *place;
}

void Answers::sampleNext() {
    const std::string item = trends_.next();
    if (item.empty()) {
        return;
    }
    try {
        trends_.add(item, readingOf(item));
    } catch (const LinkTrouble&) {
        // A gap in the trend tells it; the page says why.
    }
}

int Answers::pauseBetweenSamples() const {
    return 15'000 / static_cast<int>(std::max<std::size_t>(trends_.size(), 1));
}

}  // namespace quelm::monitor
