#include "CommandQueue.h"

#include <algorithm>
#include <array>

#include "base/RuntimeError.h"
#include "xml/XmlDom.h"

namespace demo {

namespace {

constexpr std::string_view queueOfIOS5 = "Q5IOCOMMAND";
constexpr std::string_view queueOfIOS6 = "Q6IOCOMMAND";

const std::string success = "<Success>1</Success>";

// reason: plain words without mark-up.
std::string failure(const std::string& reason) {
    return "<Success>0</Success><Reason>" + reason + "</Reason>";
}

std::optional<std::string> attribute(const quelm::XmlNode& element, const std::string& name) {
    const quelm::XmlNode found = element.selectSingleNode("@" + name);
    return found.isNothing() ? std::nullopt : std::optional(found.text());
}

// The channels' keys: every run of digits is a channel ID, whatever stands between.
std::vector<std::string> ioidsOf(std::string_view list) {
    constexpr std::string_view digits = "0123456789";
    std::vector<std::string> ioids;
    for (std::size_t at = list.find_first_of(digits); at != std::string_view::npos;) {
        const std::size_t end = std::min(list.find_first_not_of(digits, at), list.size());
        ioids.push_back("C" + std::string(list.substr(at, end - at)));
        at = list.find_first_of(digits, end);
    }
    return ioids;
}

}  // namespace

std::optional<Misbehaviour> misbehaviourNamed(std::string_view name) {
    if (name == "never-answer") {
        return Misbehaviour::NeverAnswer;
    }
    if (name == "broken-xml") {
        return Misbehaviour::BrokenXml;
    }
    if (name == "delete-record") {
        return Misbehaviour::DeleteRecord;
    }
    return std::nullopt;
}

CommandQueue::CommandQueue(quelm::ISqlConnection& database, Plant& plant, Misbehaviour misbehaviour)
    : database_(database), plant_(plant), misbehaviour_(misbehaviour) {
    const auto rows = database_.query("SELECT DISTINCT SiteID FROM CurrentIO", {});
    while (rows->next()) {
        std::array<quelm::SqlValue, 1> siteID;
        rows->read(siteID);
        siteIDs_.emplace_back(sqlText(siteID[0]));
    }
}

void CommandQueue::carryOut() {
    if (misbehaviour_ == Misbehaviour::NeverAnswer) {
        return;
    }
    for (const std::string& siteID : siteIDs_) {
        for (const std::string_view queue : {queueOfIOS5, queueOfIOS6}) {
            for (const Command& command : waiting(siteID, queue)) {
                process(command);
            }
        }
    }
}

void CommandQueue::process(const Command& command) {
    if (failedIDs_.contains(command.id)) {
        answer(command, failure("the database failed"));
        return;
    }
    try {
        answer(command, responseTo(command));
    } catch (const quelm::RuntimeError&) {
        // Whatever the database does not take must not hold up the heartbeats of all cycles to come.
        failedIDs_.insert(command.id);
        throw;
    }
}

std::vector<CommandQueue::Command> CommandQueue::waiting(const std::string& siteID, std::string_view queue) {
    std::vector<Command> commands;
    const auto rows = database_.query(
        "SELECT ID, Data FROM Message WHERE SiteID = ? AND Type = ? AND State = '' ORDER BY ID", {siteID, queue});
    while (rows->next()) {
        std::array<quelm::SqlValue, 2> columns;
        rows->read(columns);
        commands.push_back(
            {std::string(sqlText(columns[0])), siteID, std::string(queue), std::string(sqlText(columns[1]))});
    }
    return commands;
}

std::string CommandQueue::responseTo(const Command& command) {
    quelm::XmlDocument document = quelm::XmlDocument::create();
    if (!document.loadXML(command.data)) {
        return failure("the command is not well-formed");
    }
    const quelm::XmlNode element = document.documentElement().selectSingleNode("/Command");
    if (element.isNothing()) {
        return failure("there is no Command element");
    }
    const std::string action = attribute(element, "action").value_or("");
    const std::optional<std::string> value = attribute(element, "value");
    if (action == "RefreshAllData") {
        plant_.refreshAll(command.siteID, command.queue == queueOfIOS5 ? Generation::IOS5 : Generation::IOS6);
        return success;
    }
    if (!value) {
        return failure("the command has no value, or its action is unknown");
    }
    if (action == "WriteToChannel") {
        return write(command, attribute(element, "id").value_or(""), *value);
    }
    return action == "RefreshSelectedChannels" ? refreshSelected(command, *value) : failure("unknown action");
}

std::string CommandQueue::write(const Command& command, const std::string& ioid, const std::string& value) {
    const bool isChannel = ioidsOf(ioid) == std::vector{ioid};
    return isChannel && plant_.write(command.siteID, ioid, value) ? success : failure("no such channel");
}

std::string CommandQueue::refreshSelected(const Command& command, std::string_view channels) {
    const std::vector<std::string> ioids = ioidsOf(channels);
    const auto refreshed = std::count_if(ioids.begin(), ioids.end(),
                                         [&](const std::string& ioid) { return plant_.refresh(command.siteID, ioid); });
    return refreshed > 0 ? success : failure("none of the channels is known");
}

void CommandQueue::answer(const Command& command, const std::string& response) {
    if (misbehaviour_ == Misbehaviour::DeleteRecord) {
        database_.execute("DELETE FROM Message WHERE SiteID = ? AND ID = ?", {command.siteID, command.id});
        return;
    }
    database_.execute("UPDATE Message SET State = 'DONE', Response = ? WHERE SiteID = ? AND ID = ?",
                      {misbehaviour_ == Misbehaviour::BrokenXml ? "<Success>1</Succ" : std::string_view(response),
                       command.siteID, command.id});
}

}  // namespace demo
