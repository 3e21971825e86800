#pragma once

// What a server has sent to a sink, as the cases about callbacks look at it.

#include <chrono>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "OPC/Client/check/Stage.h"

namespace quelm::opcclient::check {

// The calls of one kind and transaction, in the order in which they came.
std::vector<const Called*> sentOf(const Sink& sink, Called::Kind kind, std::uint32_t transaction);

// The first of these calls, once it is there; ends the case when none comes within ten seconds.
const Called& awaited(Stage& stage, Findings& found, const Sink& sink, Called::Kind kind, std::uint32_t transaction);

// The client handles that came of the server's own accord.
std::set<std::uint32_t> handlesIn(const Sink& sink);
// Waits for these, and no others, for ten seconds at most.
void awaitHandles(Stage& stage, Findings& found, const Sink& sink, const std::set<std::uint32_t>& expected);

// Items that were sent again by the server's own accord although neither value, quality nor code had changed since they
// were sent last; of each callback's first item. Empty: none.
std::string repeatedBy(const Sink& sink);

// The masters must be S_OK exactly when all items are good, or have no code.
void expectMasters(Findings& found, const Called& called);

// For a group that is subscribed to. A quick one by default: so waiting for what must not come is short.
opcda::client::GroupRequest subscribing(bool active, std::uint32_t rate = 200);

// Long enough for a callback of the group that must not come: five of its update periods.
std::chrono::milliseconds silenceOf(const Group& group);

// Callbacks that were under way when the server answered a call have come, and are forgotten.
void forgetLateOnes(Stage& stage, Sink& sink);

// Where the server can, it says all the time that it lives: so that silence says something where no value changes.
void sayAlive(const Group& group);

// A sink of the group; ends the case when that is refused.
std::unique_ptr<Sink> advised(Stage& stage, Findings& found, const Group& group);

}  // namespace quelm::opcclient::check
