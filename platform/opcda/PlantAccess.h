#pragma once

// What one client asks of the plant: device reads and writes. What waits for the plant's handler is bounded, for all
// clients together and for each: one that asks without end leaves the others their answers.

#include <memory>
#include <span>
#include <utility>

#include "budget/ClientBudget.h"
#include "slikda/SLIKNetwork.h"

namespace quelm::opcda {

class PlantAccess {
 public:
    PlantAccess(SLIKNetwork& control, std::shared_ptr<ClientBudget> budget)
        : control_(&control), budget_(std::move(budget)) {}

    const ItemStore& items() const { return control_->items(); }
    // As the control's deviceRead. E_OUTOFMEMORY at once when the client has too many items asked for.
    void read(std::span<const SLIKTag* const> tags, SLIKNetwork::ReadDone done) const {
        if (const auto hold = ask(tags.size())) {
            control_->deviceRead(tags, [hold, done = std::move(done)](HResult error, auto readings) {
                hold->set(0);
                done(error, readings);
            });
        } else {
            done(E_OUTOFMEMORY, {});
        }
    }
    // As the control's write, of so many items.
    void write(std::size_t count, SLIKNetwork::WriteDone done) const {
        if (const auto hold = ask(1)) {
            control_->write(count, [hold, done = std::move(done)](HResult error) {
                hold->set(0);
                done(error);
            });
        } else {
            done(E_OUTOFMEMORY);
        }
    }

 private:
    std::shared_ptr<Hold> ask(std::size_t items) const {
        auto hold = std::make_shared<Hold>(questionsOf(budget_));
        return hold->resize(items) ? hold : nullptr;
    }

    SLIKNetwork* control_;
    std::shared_ptr<ClientBudget> budget_;
};

}  // namespace quelm::opcda
