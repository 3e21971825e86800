#include "OPC/Client/Commands.h"

#include <fmt/format.h>

#include <algorithm>

#include "OPC/Client/ValueForms.h"
#include "opcda/client/EnumeratorStubs.h"
#include "opcda/client/GroupStubs.h"
#include "opcda/client/Words.h"

namespace quelm::opcclient {

using namespace opcda::client;

namespace {

constexpr std::size_t progressEvery = 500;  // elements

std::string categoriesOf(const FoundServer& server) {
    std::string text;
    for (const auto& [has, name] :
         {std::pair{server.da1, "1.0"}, std::pair{server.da2, "2.0"}, std::pair{server.da3, "3.0"}}) {
        if (has) {
            text += (text.empty() ? "" : ", ") + std::string(name);
        }
    }
    return text;
}

std::string braced(const Uuid& id) {
    std::string text = id.toText();
    std::transform(text.begin(), text.end(), text.begin(), [](char c) { return c >= 'a' && c <= 'f' ? c - 32 : c; });
    return "{" + text + "}";
}

Json timeOrNull(std::int64_t fileTime) {
    const std::string text = fileTimeText(fileTime);
    return text.empty() ? Json() : Json(text);
}

// The id stands behind a name only where it is not made of it.
std::string treeLine(const BrowsedElement& element) {
    const std::string indent(2 * element.level, ' ');
    const bool isPath = element.isItem && !element.itemId.ends_with(element.name);
    return indent + element.name + (element.hasChildren && !element.isItem ? "/" : "") +
           (isPath ? "  (" + element.itemId + ")" : "");
}

Cell fieldOf(const Property& property) {
    return failed(property.error) ? Cell{Json(), resultCell(property.error).text, Tone::Bad}
                                  : Cell{jsonOf(property.value), textOf(property.value)};
}

}  // namespace

Answer discover(Connection& connection) {
    Answer answer;
    answer.table = {"servers",
                    {{"progId", "ProgID"},
                     {"description", "Description"},
                     {"versions", "OPC DA"},
                     {"classId", "Class"},
                     {"versionIndependentProgId", ""}},
                    {}};
    for (const FoundServer& each : opcda::client::discover(connection.session())) {
        answer.table.rows.push_back({Cell{each.progId}, Cell{each.userType}, Cell{categoriesOf(each)},
                                     Cell{braced(each.classId)}, Cell{each.versionIndependentProgId}});
    }
    if (answer.table.rows.empty()) {
        answer.lines.emplace_back("No OPC DA server is listed there.");
        answer.code = ExitCode::NotReached;
    }
    return answer;
}

Answer status(Connection& connection, const Options& options) {
    const OpcSession& opc = connection.opc();
    const ServerStatus now = opc.status();
    Answer answer;
    answer.facts = {{"host", options.host},
                    {"address", connection.session().serverAddress()},
                    {"classId", braced(connection.classId())},
                    {"progId", connection.progId().empty() ? Json() : Json(connection.progId())},
                    {"state", stateText(now.state)},
                    {"startTime", timeOrNull(now.startTime)},
                    {"currentTime", timeOrNull(now.currentTime)},
                    {"lastUpdateTime", timeOrNull(now.lastUpdateTime)},
                    {"groups", now.groupCount},
                    {"bandWidth", now.bandWidth == 0xFFFFFFFFU ? Json() : Json(now.bandWidth)},
                    {"version", fmt::format("{}.{}.{}", now.majorVersion, now.minorVersion, now.buildNumber)},
                    {"vendor", now.vendorInfo.value_or("")},
                    {"speaks", opc.offers().version()}};
    for (const auto& [key, value] : answer.facts.items()) {
        answer.lines.push_back(fmt::format("{:<15} {}", key,
                                           value.is_null()     ? std::string("-")
                                           : value.is_string() ? value.get<std::string>()
                                                               : jsonLine(value)));
    }
    return answer;
}

Answer browse(Connection& connection, Screen& screen, const Options& options) {
    BrowseOptions wishes;
    wishes.depth = options.depth;
    wishes.filter = options.filter;
    wishes.itemsOnly = options.isFlat;
    Answer answer;
    answer.hidesTable = true;
    answer.table = {
        "elements", {{"item", "Item"}, {"name", "Name"}, {"level", ""}, {"isItem", ""}, {"hasChildren", ""}}, {}};
    wishes.onRefused = [&](const std::string& itemId, HResult result) {
        screen.message(fmt::format("{} is not let be browsed: {}", itemId, resultText(result)));
        answer.code = ExitCode::ItemFailed;
    };
    connection.opc().browse(wishes, [&](const BrowsedElement& element) {
        answer.lines.push_back(options.isFlat ? element.itemId : treeLine(element));
        answer.table.rows.push_back({Cell{element.itemId}, Cell{element.name}, Cell{element.level},
                                     Cell{element.isItem}, Cell{element.hasChildren}});
        if (answer.table.rows.size() % progressEvery == 0) {
            screen.progress(fmt::format("{} elements so far", answer.table.rows.size()));
        }
        return true;
    });
    return answer;
}

Answer read(Connection& connection, const Options& options) {
    const std::uint32_t age = options.fromDevice ? fromDevice : options.maxAge.value_or(fromCache);
    Answer answer;
    answer.table = {"items", readingColumns(), {}};
    for (const ItemValue& item : connection.opc().read(options.items, age)) {
        answer.table.rows.push_back(readingRow(item));
        if (isTrouble(item)) {
            answer.code = ExitCode::ItemFailed;
        }
    }
    return answer;
}

Answer properties(Connection& connection, const Options& options) {
    Answer answer;
    answer.table = {"properties",
                    {{"item", "Item"},
                     {"id", "Property"},
                     {"description", "Description"},
                     {"type", "Type"},
                     {"value", "Value"},
                     {"propertyItem", ""},
                     {"error", ""}},
                    {}};
    for (const ItemProperties& item : connection.opc().properties(options.items)) {
        if (failed(item.result)) {
            const Cell error = resultCell(item.result);
            answer.table.rows.push_back({Cell{item.itemId}, Cell{Json(), " "}, Cell{Json(), error.text, Tone::Bad},
                                         Cell{Json(), " "}, Cell{Json(), " "}, Cell{Json()}, error});
            answer.code = ExitCode::ItemFailed;
        }
        for (const Property& each : item.properties) {
            answer.table.rows.push_back({Cell{item.itemId}, Cell{each.id}, Cell{each.description.value_or("")},
                                         Cell{typeName(each.type)}, fieldOf(each),
                                         Cell{each.itemId.value_or("").empty() ? Json() : Json(*each.itemId)},
                                         resultCell(each.error)});
            answer.code = failed(each.error) ? ExitCode::ItemFailed : answer.code;
        }
    }
    return answer;
}

Answer groups(Connection& connection) {
    const IOPCServer& server = connection.opc().server();
    Answer answer;
    answer.table = {"groups",
                    {{"name", "Group"},
                     {"active", "Active"},
                     {"updateRate", "Rate (ms)"},
                     {"percentDeadband", "Deadband (%)"},
                     {"timeBias", "Bias (min)"},
                     {"localeId", "Locale"}},
                    {}};
    const auto reply = server.CreateGroupEnumerator(GroupScope::All, IEnumUnknown::iid);
    const auto enumerator = need(reply, "the question for its groups");
    for (const auto& group :
         enumerator ? allOf(IEnumUnknown(*enumerator), "the list of its groups") : std::vector<Maybe<Interface>>()) {
        const auto mgt = group ? ask<IOPCGroupStateMgt>(*group).out : std::nullopt;
        if (mgt) {
            const GroupState state = need(mgt->GetState(), "the question for a group's state");
            answer.table.rows.push_back({Cell{state.name.value_or("")}, Cell{state.active}, Cell{state.updateRate},
                                         Cell{state.percentDeadband}, Cell{state.timeBias}, Cell{state.localeId}});
        }
    }
    const std::uint32_t count = connection.opc().status().groupCount;
    answer.facts = {{"groupCount", count}};
    answer.lines.push_back(fmt::format("The server counts {} {}.", count, count == 1 ? "group" : "groups"));
    if (answer.table.rows.empty()) {
        answer.lines.emplace_back("It shows none to a new client: groups are private to the client that made them.");
    }
    return answer;
}

}  // namespace quelm::opcclient
