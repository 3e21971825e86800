#pragma once

// What all server objects of the process share: the control, the network's loop, the clients' budgets, the rooms for
// parameters and callbacks, and what publishes new values. Lives longer than any server object.

#include <cstdint>
#include <string_view>
#include <vector>

#include "budget/ClientBudget.h"
#include "loop/MessageLoop.h"
#include "opcda/CallBuffers.h"
#include "opcda/CallbackColumns.h"
#include "opcda/Publisher.h"
#include "slikda/SLIKNetwork.h"

namespace quelm::opcda {

// Numbers for whom they name: never 0, and none twice within four thousand million.
class Numbers {
 public:
    std::uint32_t next() { return ++last_ != 0 ? last_ : ++last_; }

 private:
    std::uint32_t last_ = 0;
};

class Application {
 public:
    // loop: the network's. values: where the values of callbacks are written, in the form that the sinks take.
    // All outlive the application.
    Application(SLIKNetwork& control, IMessageLoop& loop, IValueWriter& values);
    ~Application();
    Application(const Application&) = delete;
    Application& operator=(const Application&) = delete;

    SLIKNetwork& control() { return *control_; }
    IMessageLoop& loop() { return *loop_; }
    const ItemStore& items() const { return control_->items(); }
    std::int64_t startTime() const { return startTime_; }  // UTC, FILETIME
    ClientBudgets& budgets() { return budgets_; }
    CallBuffers& callBuffers() { return callBuffers_; }
    CallbackColumns& callback() { return callback_; }
    Publisher& publisher() { return publisher_; }
    // Items of one call, from which on it is refused as a whole.
    std::size_t itemsPerCall() const { return budgets_.limits().itemsPerCall; }
    std::uint32_t nextGroupHandle() { return groupHandles_.next(); }
    std::uint32_t nextCancelId() { return cancelIds_.next(); }

    // The server is about to stop: tells every sink that a client advised for it.
    void requestShutdown(std::string_view reason);

 private:
    friend class Server;

    SLIKNetwork* control_;
    IMessageLoop* loop_;
    std::int64_t startTime_;
    Numbers groupHandles_;
    Numbers cancelIds_;
    ClientBudgets budgets_;
    CallBuffers callBuffers_;
    CallbackColumns callback_;
    Publisher publisher_;
    std::vector<Server*> servers_;  // all that there are
};

}  // namespace quelm::opcda
