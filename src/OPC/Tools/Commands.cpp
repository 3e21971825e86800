#include "OPC/Tools/Commands.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <optional>
#include <string_view>
#include <thread>

#include "DB Interface Library/SystemINI.h"
#include "OPC/OPC DA Server/TextConversionFunctions.h"
#include "OPC/OPC DA Server/UtilityFunctions.h"
#include "OPC/OPC DA Server/UtilityXMLDOMFunctions.h"
#include "OPC/Tools/Terminal.h"
#include "base/Conversion.h"
#include "base/RuntimeError.h"
#include "base/TimeSource.h"
#include "base/Utf.h"

namespace quelm::tools {

namespace {

constexpr std::array<std::string_view, 6> typeNames{"not defined",
                                                    "Q5 I/O channel",
                                                    "Q5 implicit channel",
                                                    "Q6 I/O channel",
                                                    "Q6 multivalue CSV channel",
                                                    "Q6 multivalue UDT channel"};

std::string_view typeName(std::int32_t type) {
    return type >= 0 && type < static_cast<std::int32_t>(typeNames.size()) ? typeNames[static_cast<std::size_t>(type)]
                                                                           : "unknown type";
}

std::string shownChannel(SiteLink& link, std::int32_t channel) {
    const std::string name = link.manager().GetChannelName(channel);
    return name.empty() ? fmt::format("channel {}", channel) : fmt::format("channel {} ({})", channel, name);
}

std::string requestor(const Request& request) {
    return request.requestor.value_or("iosctl " + userName());
}

// Values travel to the I/O server as they are; these break the command that carries them.
bool breaksCommand(std::string_view text) {
    const bool hasMarkup = text.find_first_of("\"<&") != std::string_view::npos;
    const bool hasControl = std::any_of(text.begin(), text.end(), [](char c) { return c >= 0 && c < ' '; });
    return hasMarkup || hasControl || utf16ToUtf8(utf8ToUtf16(text)) != text;
}

void warnOfBrokenCommand(std::string_view text) {
    if (breaksCommand(text)) {
        showProblem(
            "Notice the text contains \", <, &, a control character or broken UTF-8, which the command carries as they "
            "are: the I/O server will probably not understand it");
    }
}

Outcome failed(Outcome outcome, std::string problem) {
    outcome.code = std::max(outcome.code, ExitCode::Failed);
    outcome.problems.push_back(std::move(problem));
    return outcome;
}

ExitCode codeSince(const MessageList& messages, const MessageList::Counts& before) {
    if (messages.counts().databaseFailures > before.databaseFailures) {
        return ExitCode::SiteTrouble;
    }
    return messages.counts().errors > before.errors ? ExitCode::Failed : ExitCode::Done;
}

std::string dateOrNothing(Date date) {
    return date.isZero() ? "none" : dateText(date);
}

// ---- write

// Why the value is not to be written after all; "" when the operator wants it. Refused where nobody can be asked.
std::string refusal(const Request& request, SiteLink& link, std::string_view intent) {
    if (request.yes) {
        return {};
    }
    if (!canAsk()) {
        return "not written: this writes to a field device, and standard input is not a terminal where one could ask "
               "(--yes writes without asking)";
    }
    const auto answer =
        ask(fmt::format("This WRITES TO A FIELD DEVICE of site {}: {}. Write? [y/N]", link.manager().SiteID(), intent));
    const bool isYes = answer && (*answer == "y" || *answer == "Y" || *answer == "yes");
    return isYes ? "" : "not written";
}

Outcome run(const WriteCommand& command, const Request& request, SiteLink& link) {
    IOSSimpleManager& manager = link.manager();
    const std::string valueText = VariantToText(command.value);
    const std::string intent = fmt::format("{} to '{}'", shownChannel(link, command.channel), valueText);
    Outcome outcome;
    outcome.fields = {
        {"channel", command.channel}, {"name", manager.GetChannelName(command.channel)}, {"value", valueText}};
    warnOfBrokenCommand(valueText);
    if (std::string reason = refusal(request, link, intent); !reason.empty()) {
        return failed(std::move(outcome), std::move(reason));
    }
    const MessageList::Counts before = link.messages().counts();
    manager.WriteValueToChannel("iosctl on " + thisComputer(), command.channel, command.value, requestor(request),
                                command.isTimeSensitive, command.isFrequent, command.requiresAutoOutput,
                                command.allowsEmpty);
    outcome.code = codeSince(link.messages(), before);
    if (outcome.code == ExitCode::Done) {
        outcome.lines.push_back("Command left for the I/O server: " + intent);
    }
    return outcome;
}

// ---- refresh

Outcome run(const RefreshAllCommand&, const Request& request, SiteLink& link) {
    IOSSimpleManager& manager = link.manager();
    Outcome outcome;
    std::vector<std::string> asked;
    if (manager.IsIOS5Used()) {
        asked.push_back("IOS5");
    }
    if (manager.IsIOS6Used()) {
        asked.push_back("IOS6");
    }
    const MessageList::Counts before = link.messages().counts();
    manager.ReadAllData(requestor(request));
    outcome.code = codeSince(link.messages(), before);
    if (asked.empty()) {
        return failed(std::move(outcome), "the site defines no channels of any I/O server: there is nobody to ask");
    }
    for (const std::string& generation : asked) {
        if (outcome.code == ExitCode::Done) {
            outcome.lines.push_back(fmt::format("Command left for {}: refresh all data", generation));
        }
    }
    outcome.fields = {{"generations", asked}};
    return outcome;
}

// Until the pending refresh is over; false when it is not after that many seconds.
bool waitForRefresh(SiteLink& link, std::int32_t seconds) {
    constexpr std::uint64_t readEvery = 1000;
    const std::uint64_t begun = timeSource().monotonicMilliseconds();
    const std::uint64_t limit = static_cast<std::uint64_t>(seconds) * 1000;
    ProgressLine progress;
    while (link.manager().IsRefreshPending()) {
        const std::uint64_t gone = timeSource().monotonicMilliseconds() - begun;
        if (gone >= limit) {
            return false;
        }
        progress.show(fmt::format("waiting for the I/O server: {} of {} s", gone / 1000, seconds));
        std::this_thread::sleep_for(std::chrono::milliseconds(std::min(readEvery, limit - gone)));
        progress.clear();
        link.read();
    }
    return true;
}

struct Reply {
    ExitCode code;
    std::string words;
};

constexpr std::int32_t longestShownResponse = 300;

// What the I/O server says in a record that it has marked as done.
Reply replyIn(const MessageRecord& record) {
    if (record.Response.empty()) {
        return {ExitCode::Done, "done; the I/O server says nothing about the outcome"};
    }
    const XmlDocument response = LoadXMLFragment(nullptr, record.Response);
    if (response.isNothing()) {
        return {ExitCode::Failed, "done, but the I/O server's response is not well-formed; the outcome is unknown"};
    }
    const Variant success(GetNodeText(response.documentElement(), "Success"));
    try {
        if (toBoolean(success)) {
            return {ExitCode::Done, "done"};
        }
    } catch (const RuntimeError&) {
        return {ExitCode::Failed, "done, but the I/O server's response names no outcome"};
    }
    return {ExitCode::Failed, "the I/O server could not do it: " + TruncateText(record.Response, longestShownResponse)};
}

Reply replyTo(SiteLink& link, const std::string& id) {
    try {
        const auto record = link.record(id);
        return record ? replyIn(*record)
                      : Reply{ExitCode::Failed, "the request's record is gone; the outcome is unknown"};
    } catch (...) {
        return {ExitCode::SiteTrouble, "the response cannot be read: " + currentError().text()};
    }
}

Outcome run(const RefreshCommand& command, const Request& request, SiteLink& link) {
    IOSSimpleManager& manager = link.manager();
    Outcome outcome;
    outcome.fields = {{"channels", command.channels}};
    warnOfBrokenCommand(command.channels);
    const MessageList::Counts before = link.messages().counts();
    if (!manager.RefreshSelectedChannels(command.channels, requestor(request))) {
        outcome.code = std::max(codeSince(link.messages(), before), ExitCode::Failed);
        return outcome;
    }
    const std::string id = manager.PendingRefreshMsgID();
    outcome.fields["record"] = id;
    if (!command.waitSeconds) {
        outcome.lines.push_back(
            fmt::format("Command left for the I/O server: refresh {} (record {})", command.channels, id));
        return outcome;
    }
    Reply reply{ExitCode::TimedOut, fmt::format("not done after {} s; the request still stands", *command.waitSeconds)};
    if (waitForRefresh(link, *command.waitSeconds)) {
        reply = replyTo(link, id);
    }
    outcome.code = reply.code;
    outcome.fields["outcome"] = reply.words;
    const std::string line = fmt::format("refresh {} (record {}): {}", command.channels, id, reply.words);
    if (reply.code == ExitCode::Done) {
        outcome.lines.push_back(line);
    } else {
        outcome.problems.push_back(line);
    }
    return outcome;
}

// ---- health

struct Health {
    std::string_view name;
    bool isUsed;
    bool isPolling;
    const CurrentIORecord* heartbeat;
    Date refreshStart;
    Date refreshFinish;
};

Date dateIn(const XmlNode& root, std::string_view element) {
    const Variant date = GetNodeDate(root, element);
    return date.kind() == VariantKind::Date ? date.date() : Date{};
}

Health healthOf(SiteLink& link, std::string_view name, std::string_view prefix, bool isUsed, bool isPolling) {
    const IOSSimpleManager& manager = link.manager();
    Health health{name, isUsed, isPolling, manager.GetCurrentIORecord(fmt::format("{}.AllCommsOk", prefix)), {}, {}};
    if (const auto* refreshed = manager.GetCurrentIORecord(fmt::format("{}.AllDataRefreshed", prefix))) {
        const XmlDocument document = LoadXMLFragment(nullptr, refreshed->XValue.view());
        if (!document.isNothing()) {
            health.refreshStart = dateIn(document.documentElement(), "Start");
            health.refreshFinish = dateIn(document.documentElement(), "Finish");
        }
    }
    return health;
}

// Whole seconds; negative for a heartbeat from the future.
std::int64_t ageSeconds(Date heartbeat) {
    constexpr double secondsPerDay = 86400;
    return std::llround((localNow().days - heartbeat.days) * secondsPerDay);
}

// What the server itself goes by at the first sight of a heartbeat, whichever clock is ahead.
bool isSilent(const Health& health) {
    constexpr std::int64_t longestSilenceSeconds = 45;
    return health.isUsed && (health.heartbeat == nullptr || health.heartbeat->TStamp.isZero() ||
                             std::abs(ageSeconds(health.heartbeat->TStamp)) > longestSilenceSeconds);
}

std::string_view stateOf(const Health& health) {
    if (isSilent(health)) {
        return "SILENT, no heartbeat within 45 s";
    }
    return health.isPolling ? "all devices answer" : "NOT all devices answer";
}

std::string line(const Health& health) {
    if (!health.isUsed) {
        return fmt::format("{}: not in use", health.name);
    }
    const std::string heartbeat =
        health.heartbeat == nullptr || health.heartbeat->TStamp.isZero()
            ? "none"
            : fmt::format("{} ({} s ago), AllCommsOk {}", dateText(health.heartbeat->TStamp),
                          ageSeconds(health.heartbeat->TStamp), naturalText(health.heartbeat->NValue));
    return fmt::format("{}: {}; heartbeat {}; all data refreshed {} to {}", health.name, stateOf(health), heartbeat,
                       dateOrNothing(health.refreshStart), dateOrNothing(health.refreshFinish));
}

Json factsOf(const Health& health) {
    const bool hasHeartbeat = health.heartbeat != nullptr && !health.heartbeat->TStamp.isZero();
    return {
        {"name", health.name},
        {"isUsed", health.isUsed},
        {"isPolling", health.isPolling},
        {"isSilent", isSilent(health)},
        {"heartbeat", hasHeartbeat ? jsonOf(health.heartbeat->TStamp) : Json()},
        {"heartbeatAgeSeconds", hasHeartbeat ? Json(ageSeconds(health.heartbeat->TStamp)) : Json()},
        {"allCommsOk", health.heartbeat == nullptr ? Json() : jsonOf(health.heartbeat->NValue)},
        {"refreshStart", jsonOf(health.refreshStart)},
        {"refreshFinish", jsonOf(health.refreshFinish)},
    };
}

Outcome run(const HealthCommand&, const Request&, SiteLink& link) {
    IOSSimpleManager& manager = link.manager();
    const bool allPolling = manager.AllDevicesArePolling();
    const bool isReadComplete = manager.IsInitialCurrentIOReadComplete();
    const std::array<Health, 2> generations{
        healthOf(link, "IOS5", "IOS", manager.IsIOS5Used(), manager.AllDevicesArePolling_IOS5()),
        healthOf(link, "IOS6", "IOS6", manager.IsIOS6Used(), manager.AllDevicesArePolling_IOS6())};
    Outcome outcome;
    outcome.code = allPolling ? ExitCode::Done : ExitCode::Failed;
    outcome.lines.push_back(fmt::format("Site {}: {} CurrentIO records; initial read {}", manager.SiteID(),
                                        manager.GetCurrentIORecordCount(),
                                        isReadComplete ? "complete" : "NOT complete"));
    Json items = Json::array();
    for (const Health& health : generations) {
        outcome.lines.push_back(line(health));
        items.push_back(factsOf(health));
    }
    outcome.fields = {{"allDevicesArePolling", allPolling},
                      {"isInitialReadComplete", isReadComplete},
                      {"recordCount", manager.GetCurrentIORecordCount()},
                      {"generations", items}};
    return outcome;
}

// ---- values

Outcome run(const ShowCommand& command, const Request&, SiteLink& link) {
    IOSSimpleManager& manager = link.manager();
    const std::int32_t type = manager.GetChannelDefType(command.channel);
    const CurrentIORecord* record = manager.GetCurrentIORecord(fmt::format("C{}", command.channel));
    const std::string name = manager.GetChannelName(command.channel);
    const Variant value = manager.GetChannelValue(command.channel);
    const Date written = record == nullptr ? Date{} : record->TStamp;
    Outcome outcome;
    outcome.fields = {{"channel", command.channel},   {"name", name},           {"definitionType", type},
                      {"definition", typeName(type)}, {"value", jsonOf(value)}, {"written", jsonOf(written)}};
    if (type == 0 && record == nullptr) {
        return failed(std::move(outcome), fmt::format("channel {} is not defined", command.channel));
    }
    outcome.lines = {fmt::format("Channel  {}", command.channel), fmt::format("Name     {}", name),
                     fmt::format("Type     {} ({})", type, typeName(type)),
                     fmt::format("Value    {}", value.isNull() ? "none" : naturalText(value)),
                     fmt::format("Written  {}", dateOrNothing(written))};
    return outcome;
}

Outcome run(const ChannelsCommand&, const Request&, SiteLink& link) {
    const MessageList::Counts before = link.messages().counts();
    const ChannelDefCollection* const definitions = link.manager().GetChannelDefs();
    Outcome outcome;
    outcome.code = codeSince(link.messages(), before);
    Json items = Json::array();
    if (definitions != nullptr) {
        for (const ChannelDef& definition : *definitions) {
            const std::string_view type = typeName(definition.DefinitionType);
            outcome.lines.push_back(fmt::format("{:>10}  {:<25}  {}", definition.ID, type, definition.Name));
            items.push_back({{"channel", definition.ID},
                             {"name", definition.Name},
                             {"definitionType", definition.DefinitionType},
                             {"definition", type}});
        }
    }
    outcome.fields = {{"channels", items}};
    return outcome;
}

Outcome run(const ListCommand& command, const Request&, SiteLink& link) {
    const MessageList::Counts before = link.messages().counts();
    const Variant values =
        link.manager().GetMultiValueChannelCSV(command.channel, command.pid, command.blocks, command.blockLength);
    Outcome outcome;
    outcome.code = codeSince(link.messages(), before);
    if (values.kind() != VariantKind::TextArray) {
        outcome.fields = {{"channel", command.channel}, {"values", nullptr}};
        return failed(std::move(outcome), fmt::format("there are no values for channel {}", command.channel));
    }
    outcome.code = ExitCode::Done;  // of several CSV elements the first serves, with a message
    outcome.lines = values.texts();
    outcome.fields = {{"channel", command.channel}, {"values", values.texts()}};
    return outcome;
}

// Commands without a site never get here.
template <class Other>
Outcome run(const Other&, const Request&, SiteLink&) {
    return {};
}

}  // namespace

Outcome carryOut(const Request& request, SiteLink& link) {
    const MessageList::Counts before = link.messages().counts();
    link.read();
    if (codeSince(link.messages(), before) == ExitCode::SiteTrouble) {
        return {.code = ExitCode::SiteTrouble, .lines = {}, .problems = {}, .fields = {}};
    }
    return std::visit([&](const auto& command) { return run(command, request, link); }, request.command);
}

}  // namespace quelm::tools
