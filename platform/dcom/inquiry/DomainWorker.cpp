#include "dcom/inquiry/DomainWorker.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>
#include <utility>

#include "base/WorkerThread.h"

namespace quelm::dcom {

namespace {

int checked(int descriptor) {
    if (descriptor < 0) {
        throw std::system_error(errno, std::generic_category(), "no descriptor for the domain's worker");
    }
    return descriptor;
}

}  // namespace

// ---- The bell ------------------------------------------------------------------------------------------------

Bell::Bell() : descriptor_(checked(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))) {}

Bell::Bell(const Bell& other) : descriptor_(checked(fcntl(other.descriptor_, F_DUPFD_CLOEXEC, 0))) {}

Bell::~Bell() {
    ::close(descriptor_);
}

void Bell::ring() const {
    const std::uint64_t once = 1;
    static_cast<void>(!::write(descriptor_, &once, sizeof once));  // fails only where it rings already
}

void Bell::silence() const {
    std::uint64_t times = 0;
    static_cast<void>(!::read(descriptor_, &times, sizeof times));
}

// ---- The worker ----------------------------------------------------------------------------------------------

void DomainWorker::work(std::unique_ptr<DomainLink> link, std::future<std::unique_ptr<Job>> next, const Bell& bell,
                        std::promise<void> end) {
    while (const std::unique_ptr<Job> job = next.get()) {
        next = std::move(job->next);
        Finished finished;
        if (job->question) {
            finished.answer = link->logOn(*job->question);
        } else {
            finished.look = link->look(job->groups);
        }
        job->finished.set_value(std::move(finished));
        bell.ring();
    }
    link.reset();
    end.set_value();
}

DomainWorker::DomainWorker(AsioLoop& loop, IMessageLoop& timers, std::unique_ptr<DomainLink> link)
    : timers_(timers), watch_(loop.watch(bell_.descriptor(), [this] { onBell(); })) {
    std::promise<void> end;
    threadEnd_ = end.get_future();
    const SignalsBlocked blocked;
    thread_ = std::thread(work, std::move(link), next_.get_future(), bell_, std::move(end));
}

DomainWorker::~DomainWorker() {
    next_.set_value(nullptr);
    if (threadEnd_.wait_for(grace) == std::future_status::ready) {
        thread_.join();
    } else {
        thread_.detach();
        LeftBehind::add(std::move(threadEnd_));
    }
}

// ---- What is asked -------------------------------------------------------------------------------------------

std::shared_ptr<void> DomainWorker::ask(NtlmQuestion question, Done done) {
    if (queued_ >= most) {
        forgetTheGone();
    }
    if (queued_ >= most) {
        return nullptr;
    }
    const auto waiting = std::make_shared<Waiting>(Waiting{std::move(question), std::move(done), nullptr});
    waiting->limit = timers_.makeTimer([&each = *waiting] {
        NtlmAnswer late;
        late.reason = RefusalReason::DomainAway;
        late.detail = fmt::format("winbind has not answered for {} s", timeLimit.count() / 1000);
        answer(each, late);
    });
    waiting->limit->start(timeLimit);
    queues_[waiting->question.host].push_back(waiting);
    ++queued_;
    beginNext();
    return waiting;
}

void DomainWorker::look(std::vector<std::string> groups, Seen done) {
    nextLook_ = Look{std::move(groups), std::move(done)};
    beginNext();
}

void DomainWorker::await(std::chrono::milliseconds limit) {
    if (finished_.valid()) {
        finished_.wait_for(limit);
        onBell();
    }
}

// Whoever has his answer, or gets it too late, hears no more.
void DomainWorker::answer(Waiting& waiting, const NtlmAnswer& answer) {
    waiting.limit->stop();
    if (const Done done = std::exchange(waiting.done, nullptr)) {
        done(answer);
    }
}

// ---- The queue -----------------------------------------------------------------------------------------------

void DomainWorker::forgetTheGone() {
    const auto isGone = [](const std::weak_ptr<Waiting>& each) {
        const auto waiting = each.lock();
        return !waiting || !waiting->done;
    };
    queued_ = 0;
    for (auto& [host, queue] : queues_) {
        std::erase_if(queue, isGone);
        queued_ += queue.size();
    }
    std::erase_if(queues_, [](const auto& each) { return each.second.empty(); });
}

// Of the host behind the last one, so that each has its turn.
std::shared_ptr<DomainWorker::Waiting> DomainWorker::takeNext() {
    while (!queues_.empty()) {
        auto host = queues_.upper_bound(lastHost_);
        if (host == queues_.end()) {
            host = queues_.begin();
        }
        lastHost_ = host->first;
        auto waiting = host->second.front().lock();
        host->second.pop_front();
        --queued_;
        if (host->second.empty()) {
            queues_.erase(host);
        }
        if (waiting && waiting->done) {
            return waiting;
        }
    }
    return nullptr;
}

void DomainWorker::beginNext() {
    if (finished_.valid()) {
        return;
    }
    auto job = std::make_unique<Job>();
    if (nextLook_) {
        currentLook_ = std::exchange(nextLook_, std::nullopt);
        job->groups = currentLook_->groups;
    } else if (const auto waiting = takeNext()) {
        current_ = waiting;
        job->question = std::move(waiting->question);
    } else {
        return;
    }
    begin(std::move(job));
}

void DomainWorker::begin(std::unique_ptr<Job> job) {
    std::promise<std::unique_ptr<Job>> next;
    job->next = next.get_future();
    finished_ = job->finished.get_future();
    next_.set_value(std::move(job));
    next_ = std::move(next);
}

void DomainWorker::onBell() {
    bell_.silence();
    if (!finished_.valid() || finished_.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
        return;
    }
    const Finished finished = finished_.get();
    const auto look = std::exchange(currentLook_, std::nullopt);
    const auto waiting = std::exchange(current_, {}).lock();
    beginNext();
    if (look) {
        look->done(finished.look);
    } else if (waiting) {
        answer(*waiting, finished.answer);
    }
}

}  // namespace quelm::dcom
