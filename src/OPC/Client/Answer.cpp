#include "OPC/Client/Answer.h"

#include <algorithm>

#include "base/Text.h"

namespace quelm::opcclient {

namespace {

// Longer texts are shown whole, but do not push all other rows apart.
constexpr std::size_t widestColumn = 60;

std::string plainText(const Json& value) {
    return value.is_null() ? std::string() : value.is_string() ? value.get<std::string>() : jsonLine(value);
}

std::string textOf(const Cell& cell) {
    return printable(cell.text.empty() ? plainText(cell.value) : cell.text);
}

std::string padded(std::size_t characters, std::size_t width) {
    return std::string(characters < width ? width - characters : 0, ' ');
}

std::vector<std::size_t> widthsOf(const Table& table) {
    std::vector<std::size_t> widths;
    for (std::size_t column = 0; column < table.columns.size(); ++column) {
        std::size_t width = characterCount(table.columns[column].heading);
        for (const std::vector<Cell>& row : table.rows) {
            const std::size_t needed = characterCount(textOf(row[column]));
            width = std::max(width, std::min(needed, widestColumn));
        }
        widths.push_back(width);
    }
    return widths;
}

// Control characters are no use in a line of a table, and may do harm where it is looked at; JSON has them.
std::string csvField(const Json& value) {
    std::string text = printable(plainText(value));
    if (text.find_first_of(",\"") == std::string::npos) {
        return text;
    }
    std::string quoted = "\"";
    for (const char c : text) {
        quoted += c;
        if (c == '"') {
            quoted += c;
        }
    }
    return quoted + '"';
}

void showJson(Screen& screen, const Answer& answer) {
    Json whole = answer.facts;
    if (!answer.table.name.empty()) {
        Json list = Json::array();
        for (const std::vector<Cell>& row : answer.table.rows) {
            list.push_back(jsonRow(answer.table, row));
        }
        whole[answer.table.name] = std::move(list);
    }
    screen.line(jsonLine(whole));
}

void showCsv(Screen& screen, const Answer& answer) {
    if (answer.table.name.empty()) {
        screen.line("name,value");
        for (const auto& [key, value] : answer.facts.items()) {
            screen.line(csvField(key) + ',' + csvField(value));
        }
        return;
    }
    screen.line(csvHead(answer.table));
    for (const std::vector<Cell>& row : answer.table.rows) {
        screen.line(csvLine(row));
    }
}

}  // namespace

std::vector<std::string> textLines(const Screen& screen, const Table& table) {
    const std::vector<std::size_t> widths = widthsOf(table);
    std::vector<std::string> lines(1);
    for (const std::vector<Cell>& row : table.rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            if (!table.columns[i].heading.empty()) {
                const std::string text = textOf(row[i]);
                line += screen.toned(text, row[i].tone) + padded(characterCount(text), widths[i]) + "  ";
            }
        }
        line.erase(line.find_last_not_of(' ') + 1);
        lines.push_back(std::move(line));
    }
    for (std::size_t i = 0; i < table.columns.size(); ++i) {
        const std::string& heading = table.columns[i].heading;
        if (!heading.empty()) {
            lines[0] += screen.toned(heading, Tone::Strong) + padded(characterCount(heading), widths[i]) + "  ";
        }
    }
    lines[0].erase(lines[0].find_last_not_of(' ') + 1);
    return lines;
}

std::string csvHead(const Table& table) {
    std::string line;
    for (const Column& column : table.columns) {
        line += (line.empty() ? "" : ",") + column.key;
    }
    return line;
}

std::string csvLine(const std::vector<Cell>& row) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
        line += (i == 0 ? "" : ",") + csvField(row[i].value);
    }
    return line;
}

Json jsonRow(const Table& table, const std::vector<Cell>& row) {
    Json object = Json::object();
    for (std::size_t i = 0; i < row.size(); ++i) {
        object[table.columns[i].key] = row[i].value;
    }
    return object;
}

std::string jsonLine(const Json& json) {
    std::string line = json.dump(-1, ' ', false, Json::error_handler_t::replace);
    // The library lets this one control character through; it can stand within texts only.
    for (std::size_t at = line.find('\x7F'); at != std::string::npos; at = line.find('\x7F', at)) {
        line.replace(at, 1, "\\u007f");
    }
    return line;
}

void show(Screen& screen, Form form, const Answer& answer) {
    screen.endProgress();
    if (form == Form::Json) {
        showJson(screen, answer);
    } else if (form == Form::Csv) {
        showCsv(screen, answer);
    } else {
        for (const std::string& line : answer.lines) {
            screen.line(line);
        }
        if (!answer.table.rows.empty() && !answer.hidesTable) {
            for (const std::string& line : textLines(screen, answer.table)) {
                screen.tonedLine(line);
            }
        }
    }
}

}  // namespace quelm::opcclient
