#pragma once

// What a server has sent to a sink, as the cases about callbacks look at it.

#include <chrono>
#include <map>
#include <vector>

#include "OPC/Client/check/Stage.h"

namespace quelm::opcclient::check {

// The calls of one kind and transaction, in the order in which they came.
std::vector<const Called*> sentOf(const Sink& sink, Called::Kind kind, std::uint32_t transaction);

// The first of these calls, once it is there; ends the case when none comes within ten seconds.
const Called& awaited(Stage& stage, Findings& found, const Sink& sink, Called::Kind kind, std::uint32_t transaction);

// Items that were sent again by the server's own accord although neither value, quality nor code had changed since they
// were sent last; of each callback's first item. Empty: none.
std::string repeatedBy(const Sink& sink);

// The masters must be S_OK exactly when all items are good, or have no code.
void expectMasters(Findings& found, const Called& called);

// A sink of the group; ends the case when that is refused.
std::unique_ptr<Sink> advised(Stage& stage, Findings& found, const Group& group);

}  // namespace quelm::opcclient::check
