#include "opcda/Publisher.h"

#include <algorithm>
#include <chrono>

#include "base/TimeSource.h"

namespace quelm::opcda {

namespace {

// Items looked at in one turn, well below a millisecond's worth, and what a member costs beside its items.
constexpr std::size_t workOfATurn = 20'000;
constexpr std::size_t workOfAMember = 10;

}  // namespace

Publisher::Member::Member(Publisher& publisher) : publisher_(&publisher), place_(publisher.all_.size()) {
    publisher.all_.push_back(this);
    entry_ = publisher.queue_.extract(publisher.queue_.emplace(0, this));
}

Publisher::Member::~Member() {
    publisher_->dequeue(*this);
    publisher_->attended_ = publisher_->attended_ == this ? nullptr : publisher_->attended_;
    std::vector<Member*>& all = publisher_->all_;
    all[place_] = all.back();
    all[place_]->place_ = place_;
    all.pop_back();
    if (publisher_->left_ > 0) {
        publisher_->left_ = all.size();  // the one that took its place might be passed over
    }
}

struct Publisher::NextTurn {
    NextTurn(Publisher& its, std::uint64_t since) : publisher(its), now(since) {}
    NextTurn(const NextTurn&) = delete;
    NextTurn& operator=(const NextTurn&) = delete;
    ~NextTurn() { publisher.startTimer(now); }

    Publisher& publisher;
    std::uint64_t now;
};

Publisher::Publisher(IMessageLoop& loop) : timer_(loop.makeTimer([this] { turn(); })) {}

void Publisher::valuesShown() {
    ++block_;
    left_ = all_.size();
    turn();
}

void Publisher::wake(Member& member) {
    if (const std::optional<std::uint64_t> due = member.due()) {
        enqueue(member, *due);
        startTimer(timeSource().monotonicMilliseconds());
    }
}

// Those that waited for their time and those that new values came for take turns, so that neither holds up the other.
// One that lets a failure out costs the others nothing: they are looked at in the next turn.
void Publisher::turn() {
    const std::uint64_t now = timeSource().monotonicMilliseconds();
    const NextTurn next(*this, now);
    std::size_t work = 0;
    while (work < workOfATurn && (left_ > 0 || isAnyDue(now))) {
        if (isAnyDue(now)) {
            attend(*queue_.begin()->second, now, work);
        }
        if (left_ > 0) {
            --left_;
            next_ = next_ < all_.size() ? next_ : 0;
            attend(*all_[next_++], now, work);
        }
    }
}

void Publisher::attend(Member& member, std::uint64_t now, std::size_t& work) {
    work += workOfAMember;
    dequeue(member);
    std::optional<std::uint64_t> due = member.due();
    if (due && *due <= now) {
        attended_ = &member;
        work += member.deliver(now);
        if (attended_ != &member) {
            return;  // that was its end
        }
        due = member.due();
    }
    if (due) {
        enqueue(member, *due);
    }
}

void Publisher::enqueue(Member& member, std::uint64_t due) {
    dequeue(member);
    member.entry_.key() = due;
    member.queued_ = queue_.insert(std::move(member.entry_));
}

void Publisher::dequeue(Member& member) {
    if (member.entry_.empty()) {
        member.entry_ = queue_.extract(member.queued_);
    }
}

void Publisher::startTimer(std::uint64_t now) {
    if (left_ == 0 && queue_.empty()) {
        return;
    }
    const std::uint64_t due = left_ > 0 ? now : std::max(queue_.begin()->first, now);
    if (!timer_->pending() || due < timerDue_) {
        timerDue_ = due;
        timer_->start(std::chrono::milliseconds(due - now));
    }
}

}  // namespace quelm::opcda
