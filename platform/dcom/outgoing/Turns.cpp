#include "dcom/outgoing/Turns.h"

#include <algorithm>
#include <utility>

namespace quelm::dcom::outgoing {

// begin is called at once where there is room, else when another turn ends; it may not end turns itself.
Turns::Turn::Turn(Turns& turns, std::string client, std::function<void()> begin)
    : turns_(turns), client_(std::move(client)), begin_(std::move(begin)) {
    if (turns_.hasRoomFor(client_)) {
        turns_.take(*this);
    } else {
        turns_.waiting_.push_back(this);
    }
}

Turns::Turn::~Turn() {
    if (begin_) {
        turns_.waiting_.remove(this);
        return;
    }
    --turns_.taken_;
    if (const auto own = turns_.ofClient_.find(client_); --own->second == 0) {
        turns_.ofClient_.erase(own);
    }
    turns_.handOn();
}

bool Turns::hasRoomFor(const std::string& client) const {
    const auto own = ofClient_.find(client);
    return taken_ < most && (own == ofClient_.end() || own->second < mostOfClient);
}

void Turns::take(Turn& turn) {
    ++taken_;
    ++ofClient_[turn.client_];
    std::exchange(turn.begin_, nullptr)();
}

void Turns::handOn() {
    const auto next =
        std::find_if(waiting_.begin(), waiting_.end(), [this](const Turn* turn) { return hasRoomFor(turn->client_); });
    if (next != waiting_.end()) {
        Turn& turn = **next;
        waiting_.erase(next);
        take(turn);
    }
}

}  // namespace quelm::dcom::outgoing
