#include "DB Interface Library/sql/SqlWorker.h"

#include <fmt/format.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>

#include "base/TimeSource.h"
#include "base/WorkerThread.h"

namespace quelm {

namespace {

// How much the worker lets others go first: clients are to be answered beside the largest read.
constexpr int niceness = 5;

// An attempt to connect that failed after so long has held up the other sites, which must not happen at every tick.
constexpr std::chrono::milliseconds slow{1'000};
// How long a caller therefore waits for the next one: a database that is back answers at once. The attempt itself has
// all its time.
constexpr std::chrono::milliseconds patience{500};

ErrorInfo noAnswerWithin(std::chrono::milliseconds limit) {
    return {sqlNoAnswer, fmt::format("the database did not answer within {} ms", limit.count())};
}

void work(std::unique_ptr<ISqlConnection> connection, std::future<std::unique_ptr<SqlJob>> next,
          std::promise<void> end) {
    const auto self = static_cast<id_t>(gettid());
    setpriority(PRIO_PROCESS, self, getpriority(PRIO_PROCESS, self) + niceness);
    while (const std::unique_ptr<SqlJob> job = next.get()) {
        next = std::move(job->next);
        job->run(*connection);
    }
    connection.reset();
    end.set_value();
}

}  // namespace

SqlWorker::SqlWorker(std::unique_ptr<ISqlConnection> connection, News news)
    : timeouts_(connection->timeouts()), news_(std::move(news)) {
    std::promise<void> end;
    threadEnd_ = end.get_future();
    const SignalsBlocked blocked;
    thread_ = std::thread(work, std::move(connection), next_.get_future(), std::move(end));
}

SqlWorker::~SqlWorker() {
    const bool hangs = progress_ && progress_->timedOut_ && !progress_->isOver();
    next_.set_value(nullptr);
    if (hangs || threadEnd_.wait_for(timeouts_.grace) != std::future_status::ready) {
        thread_.detach();
        LeftBehind::add(std::move(threadEnd_));
    } else {
        thread_.join();
    }
}

void SqlWorker::handOver(std::unique_ptr<SqlJob> job) {
    std::promise<std::unique_ptr<SqlJob>> next;
    job->next = next.get_future();
    next_.set_value(std::move(job));
    next_ = std::move(next);
}

std::optional<ErrorInfo> SqlWorker::refusal() {
    if (progress_) {
        // Of two calls begun one after the other the second waits for the first.
        await(*progress_);
        if (!progress_->isOver()) {
            return progress_->timedOut_;
        }
    }
    return isHeldOff() ? failure_ : std::nullopt;
}

bool SqlWorker::isFree() const {
    return (!progress_ || progress_->isOver()) && !isHeldOff();
}

bool SqlWorker::isHeldOff() const {
    return failure_ &&
           timeSource().monotonicMilliseconds() - failedAt_ < static_cast<std::uint64_t>(timeouts_.holdOff.count());
}

SqlCall<bool> SqlWorker::beginClose() {
    SqlCall<bool> call;
    call.refusal = refusal();
    failure_.reset();
    slowFailure_.reset();
    lost_ = false;
    if (!progress_ || progress_->isOver()) {
        const auto close = [](ISqlConnection& connection) {
            connection.close();
            return true;
        };
        call.refusal.reset();
        start(call, std::make_unique<Job<decltype(close), bool>>(close, false));
        progress_->limit_ = {};
    }
    return call;
}

std::optional<ErrorInfo> SqlWorker::await(SqlProgress& progress) {
    if (!progress.timedOut_ && awaitConnection(progress) &&
        progress.ended_.wait_until(*progress.connectedAt_ + progress.limit_ + timeouts_.grace) !=
            std::future_status::ready) {
        giveUp(progress, noAnswerWithin(timeouts_.query));
    }
    return progress.timedOut_;
}

bool SqlWorker::awaitConnection(SqlProgress& progress) {
    if (progress.connectedAt_) {
        return true;
    }
    const auto limit = timeouts_.connect + timeouts_.grace;
    const auto waited = slowFailure_ ? std::min<std::chrono::milliseconds>(limit, patience) : limit;
    if (progress.connected_.wait_until(progress.begun_ + waited) != std::future_status::ready) {
        if (!slowFailure_) {
            slowFailure_ = noAnswerWithin(timeouts_.connect);
        }
        giveUp(progress, *slowFailure_);
        return false;
    }
    const SqlProgress::Connected connected = progress.connected_.get();
    progress.connectedAt_ = connected.at;
    failure_ = connected.failure;
    failedAt_ = timeSource().monotonicMilliseconds();
    slowFailure_ = connected.at - progress.begun_ >= slow ? failure_ : std::nullopt;
    tell(failure_);
    return true;
}

void SqlWorker::giveUp(SqlProgress& progress, const ErrorInfo& reason) {
    progress.givenUp_->test_and_set();
    progress.timedOut_ = reason;
    tell(reason);
}

void SqlWorker::tell(const std::optional<ErrorInfo>& loss) {
    if (std::exchange(lost_, loss.has_value()) != loss.has_value() && news_) {
        news_(loss);
    }
}

}  // namespace quelm
