#include "OPC/Client/check/CheckReport.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <fstream>

namespace quelm::opcclient::check {

namespace {

constexpr std::array versions{Version::Da2, Version::Da3};

std::string_view nameOf(Version version) {
    return version == Version::Da2 ? "DA 2.05a" : "DA 3.0";
}

std::string_view wordOf(const Ran& ran) {
    switch (ran.verdict) {
        case Verdict::Passed:
            return "passed";
        case Verdict::Tolerated:
            return "tolerated";
        case Verdict::Skipped:
            return "skipped";
        case Verdict::Failed:
            break;
    }
    return ran.known.empty() ? "failed" : "known";
}

Tone toneOf(const Ran& ran) {
    return ran.verdict == Verdict::Skipped  ? Tone::Faint
           : ran.verdict == Verdict::Passed ? Tone::Good
           : ran.passes()                   ? Tone::Doubtful
                                            : Tone::Bad;
}

struct Sums {
    std::size_t passed = 0;
    std::size_t counted = 0;
    std::size_t failed = 0;
    std::size_t known = 0;
    std::size_t tolerated = 0;
    std::size_t skipped = 0;
};

Sums sumsOf(const std::vector<Ran>& cases, Version version) {
    Sums sums;
    for (const Ran& ran : cases) {
        if (ran.what->version == version) {
            sums.passed += ran.counts() && ran.verdict != Verdict::Failed ? 1 : 0;
            sums.counted += ran.counts() ? 1 : 0;
            sums.failed += ran.passes() ? 0 : 1;
            sums.known += ran.known.empty() ? 0 : 1;
            sums.tolerated += ran.verdict == Verdict::Tolerated ? 1 : 0;
            sums.skipped += ran.counts() ? 0 : 1;
        }
    }
    return sums;
}

std::string xml(std::string_view text) {
    std::string out;
    for (const char c : printable(text)) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

void addTestCase(std::string& out, const Ran& ran) {
    out += fmt::format("    <testcase classname=\"{}\" name=\"{} {}\" time=\"{}.{:03}\">", xml(ran.area->title),
                       ran.what->number, xml(ran.what->asked), ran.milliseconds / 1000, ran.milliseconds % 1000);
    if (!ran.passes()) {
        out += fmt::format("<failure message=\"{}\">expected: {}</failure>", xml(ran.came), xml(ran.what->expected));
    } else if (!ran.counts() || !ran.known.empty()) {
        out += fmt::format("<skipped message=\"{}\"/>", xml(ran.known.empty() ? ran.came : ran.known));
    }
    out += "</testcase>\n";
}

}  // namespace

std::vector<std::string> linesOf(const Ran& ran) {
    std::vector<std::string> lines{fmt::format("{:>4} {:<9} {}", ran.what->number, wordOf(ran), ran.what->asked)};
    if (ran.verdict == Verdict::Failed) {
        lines.push_back(fmt::format("       expected: {}", ran.what->expected));
    }
    if (!ran.came.empty()) {
        lines.push_back(fmt::format("       {}: {}", ran.counts() ? "came" : "because", ran.came));
    }
    if (!ran.known.empty()) {
        lines.push_back(fmt::format("       known: {}", ran.known));
    }
    return lines;
}

std::vector<std::string> summary(const std::vector<Ran>& cases) {
    std::vector<std::string> lines;
    for (const Version version : versions) {
        const Sums sums = sumsOf(cases, version);
        std::string remarks;
        for (const auto& [count, word] :
             {std::pair{sums.failed, "failed"}, std::pair{sums.known, "known"},
              std::pair{sums.tolerated, "passed with a remark"}, std::pair{sums.skipped, "skipped"}}) {
            if (count > 0) {
                remarks += fmt::format("{}{} {}", remarks.empty() ? "" : ", ", count, word);
            }
        }
        if (sums.counted + sums.skipped > 0) {
            lines.push_back(fmt::format("{}: {} of {}{}", nameOf(version), sums.passed, sums.counted,
                                        remarks.empty() ? "" : " (" + remarks + ")"));
        }
    }
    return lines;
}

Answer answerOf(const std::vector<Ran>& cases) {
    Answer answer = listOf(cases);
    answer.hidesTable = true;
    answer.table.columns.insert(answer.table.columns.end(),
                                {{"verdict", "Verdict"}, {"came", "Came"}, {"known", "Known"}, {"milliseconds", "ms"}});
    for (std::size_t i = 0; i < cases.size(); ++i) {
        const Ran& ran = cases[i];
        answer.table.rows[i].insert(answer.table.rows[i].end(), {Cell{wordOf(ran), "", toneOf(ran)}, Cell{ran.came},
                                                                 Cell{ran.known}, Cell{ran.milliseconds}});
    }
    Json sums = Json::object();
    for (const Version version : versions) {
        const Sums each = sumsOf(cases, version);
        sums[std::string(nameOf(version))] = {{"passed", each.passed},       {"of", each.counted},
                                              {"failed", each.failed},       {"known", each.known},
                                              {"tolerated", each.tolerated}, {"skipped", each.skipped}};
    }
    answer.facts["summary"] = std::move(sums);
    answer.lines = summary(cases);
    answer.code = std::all_of(cases.begin(), cases.end(), [](const Ran& ran) { return ran.passes(); })
                      ? ExitCode::Good
                      : ExitCode::ItemFailed;
    return answer;
}

Answer listOf(const std::vector<Ran>& cases) {
    Answer answer;
    answer.table = {
        "cases",
        {{"number", "Case"}, {"area", ""}, {"version", "Version"}, {"asked", "Asked"}, {"expected", "Expected"}},
        {}};
    for (const Ran& ran : cases) {
        answer.table.rows.push_back({Cell{ran.what->number}, Cell{ran.area->title}, Cell{nameOf(ran.what->version)},
                                     Cell{ran.what->asked}, Cell{ran.what->expected}});
    }
    return answer;
}

void writeJunit(const std::string& path, const std::vector<Ran>& cases) {
    const auto failures = std::count_if(cases.begin(), cases.end(), [](const Ran& ran) { return !ran.passes(); });
    std::string out = fmt::format(
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuites>\n"
        "  <testsuite name=\"opcda check\" tests=\"{}\" failures=\"{}\">\n",
        cases.size(), failures);
    for (const Ran& ran : cases) {
        addTestCase(out, ran);
    }
    out += "  </testsuite>\n</testsuites>\n";
    std::ofstream file(path, std::ios::binary);
    file << out;
    file.close();
    if (!file) {
        throw UsageError(fmt::format("{} cannot be written", path));
    }
}

}  // namespace quelm::opcclient::check
