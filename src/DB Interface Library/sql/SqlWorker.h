#pragma once

// One database connection and the thread of its own that is the only one to call the database's library. A library may
// wait for a frozen or vanished machine for ever; whoever asks here waits until his time is up, and not longer.
//
// Everything in this file but SqlJob::run belongs to the one thread that asks. Work goes to the worker and its result
// comes back by being moved, so that nothing is ever used by two threads at once.

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <thread>
#include <type_traits>
#include <utility>

#include "DB Interface Library/sql/Sql.h"
#include "base/RuntimeError.h"

namespace quelm {

// The number raised when a database has not answered in time.
inline constexpr long sqlNoAnswer = 3712;

// What the worker does next. It lives on the worker's thread.
class SqlJob {
 public:
    SqlJob() = default;
    SqlJob(const SqlJob&) = delete;
    SqlJob& operator=(const SqlJob&) = delete;
    virtual ~SqlJob() = default;
    // Must not throw.
    virtual void run(ISqlConnection& connection) noexcept = 0;
    // The job behind this one; none ends the thread.
    std::future<std::unique_ptr<SqlJob>> next;
};

template <class Result>
struct SqlOutcome {
    std::optional<Result> result;
    std::optional<ErrorInfo> failure;
};

// A call that the worker has begun: where it stands.
class SqlProgress {
 public:
    // Of the attempt to connect, which is at once over where there is a connection.
    struct Connected {
        std::chrono::steady_clock::time_point at;
        std::optional<ErrorInfo> failure;
    };

    bool isOver() const { return ended_.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }

 private:
    friend class SqlWorker;
    std::chrono::steady_clock::time_point begun_;
    std::future<Connected> connected_;
    std::optional<std::chrono::steady_clock::time_point> connectedAt_;
    std::future<void> ended_;
    // Tells the worker that nobody waits for the result any longer.
    std::shared_ptr<std::atomic_flag> givenUp_;
    // How long the caller waits for what comes behind the connection.
    std::chrono::milliseconds limit_{};
    std::optional<ErrorInfo> timedOut_;
};

template <class Result>
struct SqlCall {
    // Why the call was not begun.
    std::optional<ErrorInfo> refusal;
    std::shared_ptr<SqlProgress> progress = nullptr;
    std::future<SqlOutcome<Result>> outcome = {};
};

class SqlWorker {
 public:
    // The database does not answer, and why, or (nothing) answers again. Once for each spell, on the thread that asks.
    using News = std::function<void(const std::optional<ErrorInfo>& loss)>;

    // Starts the thread; connects nothing yet.
    explicit SqlWorker(std::unique_ptr<ISqlConnection> connection, News news = {});
    SqlWorker(const SqlWorker&) = delete;
    SqlWorker& operator=(const SqlWorker&) = delete;
    // A library that hangs is left to itself; its connection goes when it returns. Should the process end before, it
    // does so without the handlers that others have set for its end.
    ~SqlWorker();

    // Why a call would fail at once: the library still hangs in an earlier one, or connecting has just failed. Waits
    // for a call that was begun before and has time left.
    std::optional<ErrorInfo> refusal();
    // True when a call would begin at once.
    bool isFree() const;

    // Has the worker do some work on the connection, connecting first where it has to: a function that takes the
    // ISqlConnection& and returns the result. It must hold all that it works on. A call that nobody finishes is done
    // all the same, and its result thrown away.
    template <class Work>
    auto begin(Work work) -> SqlCall<std::invoke_result_t<Work&, ISqlConnection&>> {
        using Result = std::invoke_result_t<Work&, ISqlConnection&>;
        SqlCall<Result> call;
        call.refusal = refusal();
        if (!call.refusal) {
            start(call, std::make_unique<Job<Work, Result>>(std::move(work), true));
        }
        return call;
    }

    // The call's result. Waits for it until its time is up: the connection's and behind it the query's, each with the
    // grace. Raises RuntimeError with the database's number and text, or sqlNoAnswer.
    template <class Result>
    Result finish(SqlCall<Result> call) {
        if (!call.refusal) {
            call.refusal = await(*call.progress);
        }
        if (call.refusal) {
            throw RuntimeError(call.refusal->number, call.refusal->description);
        }
        SqlOutcome<Result> outcome = call.outcome.get();
        if (outcome.failure) {
            throw RuntimeError(outcome.failure->number, outcome.failure->description);
        }
        return std::move(*outcome.result);
    }

    // Waits as finish does and takes no result. False when the call has not ended well in its time.
    template <class Result>
    bool wait(const SqlCall<Result>& call) {
        return !call.refusal && !await(*call.progress);
    }

    template <class Work>
    auto run(Work work) {
        return finish(begin(std::move(work)));
    }

    // Has the session closed, for which its database has the grace alone, and forgets about connections that failed.
    // The next call connects again.
    SqlCall<bool> beginClose();

 private:
    template <class Call>
    static std::optional<ErrorInfo> failureOf(Call call) noexcept {
        try {
            call();
            return std::nullopt;
        } catch (...) {
            return currentError();
        }
    }

    template <class Work, class Result>
    class Job final : public SqlJob {
     public:
        Job(Work work, bool connects) : work_(std::move(work)), connects_(connects) {}

        void run(ISqlConnection& connection) noexcept override {
            SqlOutcome<Result> done;
            if (connects_) {
                done.failure = failureOf([&] { connection.connect(); });
            }
            const bool isConnected = !done.failure;
            connected.set_value({std::chrono::steady_clock::now(), done.failure});
            if (isConnected && !givenUp->test()) {
                done.failure = failureOf([&] { done.result.emplace((*work_)(connection)); });
                if (givenUp->test()) {
                    // Nobody knows what state the answer that came too late has left the session in.
                    connection.close();
                }
            }
            // Whoever sees the end finds himself alone with all that the work was given.
            work_.reset();
            outcome.set_value(std::move(done));
            ended.set_value();
        }

        std::promise<SqlProgress::Connected> connected;
        std::promise<SqlOutcome<Result>> outcome;
        std::promise<void> ended;
        std::shared_ptr<std::atomic_flag> givenUp = std::make_shared<std::atomic_flag>();

     private:
        std::optional<Work> work_;
        bool connects_;
    };

    template <class Result, class AnyJob>
    void start(SqlCall<Result>& call, std::unique_ptr<AnyJob> job) {
        progress_ = std::make_shared<SqlProgress>();
        progress_->begun_ = std::chrono::steady_clock::now();
        progress_->connected_ = job->connected.get_future();
        progress_->ended_ = job->ended.get_future();
        progress_->givenUp_ = job->givenUp;
        progress_->limit_ = timeouts_.query;
        call.progress = progress_;
        call.outcome = job->outcome.get_future();
        handOver(std::move(job));
    }
    void handOver(std::unique_ptr<SqlJob> job);
    bool isHeldOff() const;
    // Waits until it is over; why nobody waits for it any longer.
    std::optional<ErrorInfo> await(SqlProgress& progress);
    bool awaitConnection(SqlProgress& progress);
    void giveUp(SqlProgress& progress, const ErrorInfo& reason);
    void tell(const std::optional<ErrorInfo>& loss);

    const SqlTimeouts timeouts_;
    const News news_;
    bool lost_ = false;
    // The latest call. There is never another one under way.
    std::shared_ptr<SqlProgress> progress_;
    // Of the last attempt to connect.
    std::optional<ErrorInfo> failure_;
    std::uint64_t failedAt_ = 0;  // milliseconds of the time source's monotonic clock
    // Why the last attempt has let its caller wait in vain.
    std::optional<ErrorInfo> slowFailure_;
    std::promise<std::unique_ptr<SqlJob>> next_;
    std::future<void> threadEnd_;
    std::thread thread_;
};

}  // namespace quelm
