#pragma once

// What a command has to say, once for people and for programs alike: single facts, and a table. The form decides how it
// is written.

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "OPC/Client/ExitCode.h"
#include "OPC/Client/Options.h"
#include "OPC/Client/Screen.h"

namespace quelm::opcclient {

using Json = nlohmann::ordered_json;

// One field of a table: the value for programs, and the text for people (made of the value where it is empty).
struct Cell {
    Json value;
    std::string text = {};
    Tone tone = Tone::Plain;
};

struct Column {
    std::string key;      // in JSON and CSV
    std::string heading;  // for people; empty: not shown to them
};

struct Table {
    std::string name;  // of the list in JSON
    std::vector<Column> columns;
    std::vector<std::vector<Cell>> rows;  // each as long as columns
};

struct Answer {
    Json facts = Json::object();     // in JSON beside the table; in CSV only where there is no table
    std::vector<std::string> lines;  // for people, in front of the table
    Table table;
    bool hidesTable = false;  // the lines say to people what it says
    ExitCode code = ExitCode::Good;
};

void show(Screen& screen, Form form, const Answer& answer);

// Pieces of it, for tables that grow.
std::vector<std::string> textLines(const Screen& screen, const Table& table);
std::string csvHead(const Table& table);
std::string csvLine(const std::vector<Cell>& row);
Json jsonRow(const Table& table, const std::vector<Cell>& row);
// In one line; broken UTF-8 becomes U+FFFD, control characters are escaped.
std::string jsonLine(const Json& json);

}  // namespace quelm::opcclient
