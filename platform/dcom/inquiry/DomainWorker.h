#pragma once

// Asks the domain for the network's thread, which waits for nothing: a thread of its own is the only one that uses the
// link, one question at a time, and whoever asks has an answer after the time limit at the latest. What the link is
// asked and what it says is moved across, so that the two threads never hold the same data.

#include <chrono>
#include <deque>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "dcom/inquiry/DomainLink.h"
#include "loop/AsioLoop.h"
#include "loop/MessageLoop.h"

namespace quelm::dcom {

// One end of a pipe that is there to be heard, and no more.
class Bell {
 public:
    Bell();
    // Rings at the same place, for another thread.
    Bell(const Bell& other);
    Bell& operator=(const Bell&) = delete;
    ~Bell();
    void ring() const;
    void silence() const;
    int descriptor() const { return descriptor_; }

 private:
    int descriptor_;
};

class DomainWorker final : public PassThrough {
 public:
    // From the question to its answer, those before it included. A controller that hangs keeps the library for longer.
    static constexpr std::chrono::milliseconds timeLimit{10'000};
    // Log-ons that wait at once: half of all connections that a server has.
    static constexpr std::size_t most = 256;
    // How long the end waits for a question under way.
    static constexpr std::chrono::milliseconds grace{200};

    // The loop, which must outlive the worker, is the one of the thread that asks; its timers are elsewhere in tests.
    // Raises std::system_error without descriptors to be had.
    DomainWorker(AsioLoop& loop, IMessageLoop& timers, std::unique_ptr<DomainLink> link);
    DomainWorker(const DomainWorker&) = delete;
    DomainWorker& operator=(const DomainWorker&) = delete;
    // A library that hangs is left to itself.
    ~DomainWorker() override;

    std::shared_ptr<void> ask(NtlmQuestion question, Done done) override;

    // Has the domain looked at, before any log-on that waits. done is called once, however long that takes; a look
    // that has not begun is given up for a later one.
    using Seen = std::function<void(const DomainLook&)>;
    void look(std::vector<std::string> groups, Seen done);
    // Waits for what is under way, for a start that has nothing else to do. Not from within the loop.
    void await(std::chrono::milliseconds limit);

 private:
    struct Finished {
        NtlmAnswer answer = {};
        DomainLook look = {};
    };
    struct Job {
        std::optional<NtlmQuestion> question;  // none: a look
        std::vector<std::string> groups;
        std::promise<Finished> finished;
        std::future<std::unique_ptr<Job>> next;  // none ends the thread
    };
    // A log-on that waits, in the hands of who asked.
    struct Waiting {
        NtlmQuestion question;
        Done done;
        std::unique_ptr<ITimer> limit;
    };
    struct Look {
        std::vector<std::string> groups;
        Seen done;
    };

    static void work(std::unique_ptr<DomainLink> link, std::future<std::unique_ptr<Job>> next, const Bell& bell,
                     std::promise<void> end);
    static void answer(Waiting& waiting, const NtlmAnswer& answer);
    void begin(std::unique_ptr<Job> job);
    void beginNext();
    std::shared_ptr<Waiting> takeNext();
    void forgetTheGone();
    void onBell();

    IMessageLoop& timers_;
    Bell bell_;
    std::unique_ptr<IDescriptorWatch> watch_;
    // By host, which take turns. Those that have gone since count until their turn, or until there is no room.
    std::map<std::string, std::deque<std::weak_ptr<Waiting>>> queues_;
    std::size_t queued_ = 0;
    std::string lastHost_;
    std::optional<Look> nextLook_;
    // Under way:
    std::future<Finished> finished_;
    std::weak_ptr<Waiting> current_;
    std::optional<Look> currentLook_;
    std::promise<std::unique_ptr<Job>> next_;
    std::future<void> threadEnd_;
    std::thread thread_;
};

}  // namespace quelm::dcom
