#pragma once

// Takes command records from both queues of the Message table, has the plant carry them out and marks them done. On
// request it does none of that well, so that one can see what a server makes of it.

#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "DB Interface Library/sql/Sql.h"
#include "Plant.h"

namespace demo {

enum class Misbehaviour {
    None,
    NeverAnswer,   // leaves every record as it is
    BrokenXml,     // carries commands out, but answers with a response that is not well-formed
    DeleteRecord,  // carries commands out, but deletes the record instead of answering
};

// The name as it stands on the command line ("never-answer"); nothing for any other.
std::optional<Misbehaviour> misbehaviourNamed(std::string_view name);

class CommandQueue {
 public:
    // Both must outlive the queue. Raises RuntimeError when the database fails, as carryOut does.
    CommandQueue(quelm::ISqlConnection& database, Plant& plant, Misbehaviour misbehaviour);

    // Every command that waits now, the oldest of each queue first. Writes in the caller's transaction. A command at
    // which the database fails is tried once; from the next call on it is turned down.
    void carryOut();

 private:
    struct Command {
        std::string id;
        std::string siteID;
        std::string queue;
        std::string data;
    };

    void process(const Command& command);
    std::vector<Command> waiting(const std::string& siteID, std::string_view queue);
    std::string responseTo(const Command& command);
    std::string write(const Command& command, const std::string& ioid, const std::string& value);
    std::string refreshSelected(const Command& command, std::string_view channels);
    void answer(const Command& command, const std::string& response);

    quelm::ISqlConnection& database_;
    Plant& plant_;
    Misbehaviour misbehaviour_;
    std::vector<std::string> siteIDs_;
    std::set<std::string> failedIDs_;
};

}  // namespace demo
