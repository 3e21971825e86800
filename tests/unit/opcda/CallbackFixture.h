#pragma once

// A group, the sinks that are advised to it, and commands by which tests drive both. What sinks get is a line each: who
// (with several sinks), what, transaction, group, "q" or "e" where the master quality or error is not S_OK, and each
// item as client handle=value/quality or !error.

#include <iterator>
#include <map>
#include <memory>
#include <sstream>

#include "opcda/Fixture.h"

namespace quelm::opcda {

struct Sinks {
    std::vector<std::string> log;
    const WrittenValues* values = nullptr;
    bool answerAtOnce = true;
    std::size_t alive = 0;
    std::function<void()> during;  // the next call, once
};

using Handles = std::vector<std::uint32_t>;

class FakeSink final : public IDataSink {
 public:
    FakeSink(Sinks& sinks, std::string name) : sinks_(sinks), name_(std::move(name)) { ++sinks_.alive; }
    FakeSink(const FakeSink&) = delete;
    FakeSink& operator=(const FakeSink&) = delete;
    ~FakeSink() override { --sinks_.alive; }

    std::size_t unanswered() const override { return unanswered_; }
    void onDataChange(const CallbackItems& items) override { add("change", items); }
    void onReadComplete(const CallbackItems& items) override { add("read", items); }
    void onWriteComplete(std::uint32_t transaction, std::uint32_t clientGroup, HResult masterError,
                         std::span<const std::uint32_t> clientHandles, std::span<const HResult> errors) override {
        std::string line = head("written", transaction, clientGroup, S_OK, masterError);
        for (std::size_t i = 0; i < clientHandles.size(); ++i) {
            line += fmt::format(" {}!{:X}", clientHandles[i], static_cast<std::uint32_t>(errors[i]));
        }
        add(line);
    }
    void onCancelComplete(std::uint32_t transaction, std::uint32_t clientGroup) override {
        add(head("cancelled", transaction, clientGroup, S_OK, S_OK));
    }
    void answer() { unanswered_ = 0; }

 private:
    std::string head(std::string_view what, std::uint32_t transaction, std::uint32_t clientGroup, HResult quality,
                     HResult error) const {
        return fmt::format("{}{} {} {}{}{}:", name_, what, transaction, clientGroup, quality == S_OK ? "" : "q",
                           error == S_OK ? "" : "e");
    }
    void add(std::string_view what, const CallbackItems& items) {
        std::string line = head(what, items.transaction, items.clientGroup, items.masterQuality, items.masterError);
        for (std::size_t i = 0; i < items.clientHandles.size(); ++i) {
            const auto error = static_cast<std::uint32_t>(items.errors[i]);
            line += fmt::format(" {}={}/{:X}{}", items.clientHandles[i], sinks_.values->texts[i], items.qualities[i],
                                error == 0 ? "" : fmt::format("!{:X}", error));
        }
        add(line);
    }
    void add(const std::string& line) {
        sinks_.log.push_back(line);
        unanswered_ += sinks_.answerAtOnce ? 0 : 1;
        if (const auto during = std::exchange(sinks_.during, nullptr)) {
            during();
        }
    }

    Sinks& sinks_;
    std::string name_;
    std::size_t unanswered_ = 0;
};

using Words = std::vector<std::string>;

// Commands with ";" between them; what the last one that fails gives, and what is sent until nothing is left to do.
struct Step {
    const char* commands;
    std::string expected;
};

class CallbackTest : public OpcDaTest {
 protected:
    CallbackTest() {
        sinks.values = &callbackValues;
        OpcDaTest::add("Setpoint", Variant(1.0), 2);
        control.setHooks({[] {}, {}, {}, {}, {}});
        control.StartServer();
    }

    void follow(std::initializer_list<Step> steps) {
        for (const Step& step : steps) {
            EXPECT_EQ(run(step.commands), step.expected) << step.commands;
        }
    }
    std::string run(const std::string& commands) {
        std::string told;
        std::istringstream all(commands);
        for (std::string command; std::getline(all, command, ';');) {
            std::istringstream parts(command);
            const Words words{std::istream_iterator<std::string>(parts), {}};
            const std::size_t sent = sinks.log.size();
            if (const HResult result = verbs.at(words[0])(words); result != S_OK) {
                told = fmt::format("{:X}", static_cast<std::uint32_t>(result));
            }
            EXPECT_TRUE(sinks.log.size() == sent || words[0] == "wait") << "sent from within " << command;
        }
        settle();
        for (const std::string& line : std::exchange(sinks.log, {})) {
            told += (told.empty() ? "" : " | ") + line;
        }
        return told;
    }
    void settle() {
        do {
            plant.drain();
            loop.advance(0);
        } while (plant.pendingPosts() + loop.pendingPosts() > 0);
    }

    static std::uint32_t number(const Words& words, std::size_t at) {
        return static_cast<std::uint32_t>(std::stoul(words.at(at)));
    }
    static bool isOn(const Words& words, std::size_t at) { return words.at(at) == "on"; }
    // Of the items by their places; "x" is nobody's.
    Handles handlesOf(const Words& words, std::size_t from) {
        Handles asked;
        for (; from < words.size(); ++from) {
            asked.push_back(words[from] == "x" ? 99 : handles.at(number(words, from)));
        }
        return asked;
    }
    HResult change(const std::function<void(GroupChange&)>& how) {
        GroupChange wanted;
        how(wanted);
        return group->setState(wanted);
    }
    HResult set(const Words& words) {
        const std::string& text = words.at(2);
        const Variant value = words[1] == "0"                    ? Variant(std::stof(text))
                              : words[1] == "1" && text != "n/a" ? Variant(static_cast<std::int32_t>(std::stol(text)))
                                                                 : Variant(text);
        const char* const names[] = {"Plant.Stack1.NOx", "Plant.Stack1.Count", "Plant.Stack1.State"};
        control.SLIKTags()
            .Item(names[number(words, 1)])
            .SetVQT(value, static_cast<std::int16_t>(words.size() > 3 ? std::stoi(words[3], nullptr, 16) : 0xC0),
                    localNow());
        return S_OK;
    }
    HResult advise(const Words& words) {
        const std::string name = words.size() > 1 ? words[1] + " " : "";
        auto made = std::make_unique<FakeSink>(sinks, name);
        FakeSink* const sink = made.get();
        std::uint32_t cookie = 0;
        const HResult result = group->advise(std::move(made), cookie);
        advised[name] = {sink, cookie};
        return result;
    }
    HResult stream(const Words& words) {
        auto made = std::make_unique<FakeSink>(sinks, words.at(1) + " ");
        FakeSink* const sink = made.get();
        std::uint32_t connection = 0;
        const HResult result = group->adviseStream(std::move(made), static_cast<Stream>(number(words, 2)), connection);
        if (result == S_OK) {
            advised[words[1] + " "] = {sink, connection};
        }
        return result;
    }
    Recipient to(const Words& words) {
        return Recipient::stream(advised.contains(words.at(1) + " ") ? advised.at(words[1] + " ").second : 99);
    }
    HResult unadvise(const Words& words) {
        return group->unadvise(advised.at(words.size() > 1 ? words[1] + " " : "").second);
    }
    HResult answer(const Words& words) {
        advised.at(words.size() > 1 ? words[1] + " " : "").first->answer();
        group->sinkAnswered();
        return S_OK;
    }
    HResult wait(const Words& words) {
        for (std::uint32_t i = 0; i < number(words, 1); ++i) {
            settle();
            clock.advanceMilliseconds(1);
            loop.advance(1);
        }
        return S_OK;
    }

    const std::map<std::string, std::function<HResult(const Words&)>> verbs{
        {"set", [&](const Words& w) { return set(w); }},
        {"advise", [&](const Words& w) { return advise(w); }},
        {"unadvise", [&](const Words& w) { return unadvise(w); }},
        {"answer", [&](const Words& w) { return answer(w); }},
        {"wait", [&](const Words& w) { return wait(w); }},
        {"slow", [&](const Words&) { return sinks.answerAtOnce = false, S_OK; }},
        {"midnight", [&](const Words&) { return clock.setLocal(makeDate(2026, 3, 5)), S_OK; }},
        {"group", [&](const Words& w) { return change([&](GroupChange& to) { to.active = isOn(w, 1); }); }},
        {"rate", [&](const Words& w) { return change([&](GroupChange& to) { to.updateRate = number(w, 1); }); }},
        {"handle", [&](const Words& w) { return change([&](GroupChange& to) { to.clientHandle = number(w, 1); }); }},
        {"alive", [&](const Words& w) { return group->setKeepAlive(number(w, 1)); }},
        {"enable", [&](const Words& w) { return group->setEnabled(isOn(w, 1)); }},
        {"item", [&](const Words& w) { return group->setActiveState(handlesOf(w, 2), isOn(w, 1), errors); }},
        {"remove", [&](const Words& w) { return group->removeItems(handlesOf(w, 1), errors); }},
        {"add", [&](const Words& w) { return handles.push_back(addItems(*group, {w.at(1)}).at(0)), S_OK; }},
        {"type",
         [&](const Words& w) {
             return group->setDatatypes(handlesOf({w[1]}, 0), std::vector{static_cast<VarType>(number(w, 2))}, errors);
         }},
        {"client",
         [&](const Words& w) { return group->setClientHandles(handlesOf({w[1]}, 0), Handles{number(w, 2)}, errors); }},
        {"read", [&](const Words& w) { return group->asyncRead(handlesOf(w, 2), number(w, 1), cancelId, errors); }},
        {"write", [&](const Words& w) { return group->asyncWrite(handlesOf(w, 2), number(w, 1), cancelId, errors); }},
        {"cached", [&](const Words& w) { return group->refresh(1, number(w, 1), cancelId); }},
        {"device", [&](const Words& w) { return group->refresh(2, number(w, 1), cancelId); }},
        // The first of the items with a maximum age.
        {"aged",
         [&](const Words& w) {
             Handles ages(w.size() - 3, anyAge);
             ages[0] = number(w, 2);
             return group->asyncRead(handlesOf(w, 3), number(w, 1), cancelId, errors, MaxAges(ages));
         }},
        {"young", [&](const Words& w) { return group->refreshMaxAge(number(w, 2), number(w, 1), cancelId); }},
        // Of a stream: its name, the source, and the items.
        {"stream", [&](const Words& w) { return stream(w); }},
        {"unstream", [&](const Words& w) { return group->unadviseStream(to(w).connection); }},
        {"sread",
         [&](const Words& w) {
             const auto source = static_cast<std::uint16_t>(number(w, 2));
             return group->asyncReadFrom(source, handlesOf(w, 3), to(w), cancelId, errors);
         }},
        {"swrite", [&](const Words& w) { return group->asyncWrite(handlesOf(w, 2), to(w), cancelId, errors); }},
        {"srefresh",
         [&](const Words& w) { return group->refresh(static_cast<std::uint16_t>(number(w, 2)), to(w), cancelId); }},
        {"scancel", [&](const Words&) { return group->cancelStream(cancelId); }},
        {"cancel", [&](const Words&) { return group->cancel(cancelId); }},
        {"posts", [&](const Words&) { return loop.drain(), S_OK; }},
    };

    Sinks sinks;
    Server server{application};
    std::shared_ptr<Group> group = makeGroup(server);
    Handles handles = addItems(*group, {"Plant.Stack1.NOx", "Plant.Stack1.Count", "Plant.Stack1.State"});
    std::map<std::string, std::pair<FakeSink*, std::uint32_t>> advised;
    std::vector<HResult> errors;
    std::uint32_t cancelId = 0;
};

}  // namespace quelm::opcda
