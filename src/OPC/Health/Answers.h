#pragma once

// What the server says of itself when it is asked over the control socket: a line of JSON for a line of JSON, made on
// the network's thread in turns of the loop, so that no client waits however many items and clients there are.

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "OPC/Health/ItemSites.h"
#include "OPC/Health/PlantHealth.h"
#include "OPC/Health/Traffic.h"
#include "loop/MessageLoop.h"
#include "opcda/Application.h"

namespace quelm::health {

// What became of reading the settings anew, and the lines that told of it.
struct Reloaded {
    bool isDone = false;
    std::vector<std::string> lines;
};
using ReloadDone = std::function<void(const Reloaded&)>;

// Numbers that others keep.
struct Counters {
    std::size_t connections = 0;
    std::uint64_t calls = 0;
    std::uint64_t refusals = 0;
    std::uint64_t callbacks = 0;
    std::uint64_t callbacksFailed = 0;
    bool keepsRunning = false;
};

// What answers are made of; all of it outlives them and belongs to the network's thread.
struct Sources {
    opcda::Application& application;
    const PlantHealth& plant;
    const ClientBook& clients;
    LongestTurn& longestTurn;
    std::function<Counters()> counters;
    std::function<void(ReloadDone)> reload;  // answers on the network's thread, maybe never when the server closes
};

// Who asked, for as long as somebody waits for the answer.
class Asker {
 public:
    virtual ~Asker() = default;
    // The answer without line end; once for each question.
    virtual void answer(std::string line) = 0;
};

// An answer in the making.
class Task {
 public:
    explicit Task(std::weak_ptr<Asker> asker) : asker_(std::move(asker)) {}
    Task(const Task&) = delete;
    Task& operator=(const Task&) = delete;
    virtual ~Task() = default;
    // A part of the work, well below a millisecond. True: the answer is given.
    virtual bool goOn() = 0;
    bool isWanted() const { return !asker_.expired(); }

 protected:
    void answer(std::string line) const {
        if (const std::shared_ptr<Asker> asker = asker_.lock()) {
            asker->answer(std::move(line));
        }
    }

 private:
    std::weak_ptr<Asker> asker_;
};

class Answers {
 public:
    Answers(IMessageLoop& loop, Sources sources);
    Answers(const Answers&) = delete;
    Answers& operator=(const Answers&) = delete;

    // A line without its end. The answer never comes from within this. Who asks again before it came gets both.
    void ask(std::string_view line, const std::shared_ptr<Asker>& asker);

 private:
    void turn();

    Sources sources_;
    ItemSites itemSites_;
    std::deque<std::unique_ptr<Task>> tasks_;
    std::unique_ptr<ITimer> next_;
    std::unique_ptr<ITimer> sample_;
    std::uint64_t sampleDue_ = 0;  // monotonic milliseconds
    unsigned samples_ = 0;
};

}  // namespace quelm::health
