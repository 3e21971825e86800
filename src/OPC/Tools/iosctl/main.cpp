// iosctl: an operator's hand on a site's I/O servers, through the server's own link to them.

#include <fmt/format.h>

#include <exception>
#include <string>
#include <variant>
#include <vector>

#include "OPC/Tools/Arguments.h"
#include "OPC/Tools/Commands.h"
#include "OPC/Tools/Json.h"
#include "OPC/Tools/MessageList.h"
#include "OPC/Tools/SiteLink.h"
#include "OPC/Tools/Terminal.h"
#include "base/RuntimeError.h"

namespace quelm::tools {
namespace {

void printAnswer(const Request& request, SiteLink& link, const Outcome& outcome) {
    for (const std::string& problem : outcome.problems) {
        showProblem(problem);
    }
    if (!request.json) {
        for (const std::string& line : outcome.lines) {
            showLine(line);
        }
        return;
    }
    Json answer{
        {"command", request.name}, {"site", link.manager().SiteID()}, {"exitCode", static_cast<int>(outcome.code)}};
    answer.update(outcome.fields);
    answer["problems"] = outcome.problems;
    answer["messages"] = Json::array();
    for (const MessageList::Entry& entry : link.messages().entries()) {
        answer["messages"].push_back({{"type", entry.type}, {"text", entry.text}});
    }
    showLine(lineOf(answer));
}

ExitCode runOnSite(const Request& request, SiteLink& link) {
    link.messages().begin(request.verbose);
    const Outcome outcome = carryOut(request, link);
    printAnswer(request, link, outcome);
    return outcome.code;
}

// True when the request was for words alone.
bool printedWords(const Request& request) {
    if (std::holds_alternative<HelpCommand>(request.command)) {
        showText(helpText());
        return true;
    }
    if (std::holds_alternative<VersionCommand>(request.command)) {
        showLine(fmt::format("iosctl {}", QUELM_VERSION));
        return true;
    }
    return false;
}

ExitCode runLine(const std::vector<std::string>& words, const Request& shell, SiteLink& link) {
    try {
        Request request = parseArguments(words, Origin::ShellLine);
        request.json |= shell.json;
        request.yes |= shell.yes;
        request.verbose |= shell.verbose;
        return printedWords(request) ? ExitCode::Done : runOnSite(request, link);
    } catch (const UsageError& error) {
        showProblem(error.what());
        return ExitCode::Usage;
    }
}

// A line's words; none for a comment, and nothing to run either for a line that cannot be split.
std::vector<std::string> wordsOf(const std::string& line, ExitCode& code) {
    try {
        std::vector<std::string> words = splitLine(line);
        return !words.empty() && words.front().starts_with('#') ? std::vector<std::string>() : words;
    } catch (const UsageError& error) {
        showProblem(error.what());
        code = ExitCode::Usage;
        return {};
    }
}

ExitCode runShell(const Request& shell, SiteLink& link) {
    ExitCode first = ExitCode::Done;
    while (const auto line = nextCommandLine()) {
        ExitCode code = ExitCode::Done;
        const std::vector<std::string> words = wordsOf(*line, code);
        if (words == std::vector<std::string>{"quit"}) {
            break;
        }
        if (!words.empty()) {
            code = runLine(words, shell, link);
        }
        first = first == ExitCode::Done ? code : first;
    }
    return first;
}

ExitCode run(const std::vector<std::string>& arguments) {
    try {
        const Request request = parseArguments(arguments, Origin::CommandLine);
        if (printedWords(request)) {
            return ExitCode::Done;
        }
        MessageList messages;
        messages.begin(request.verbose);
        SiteLink link(request.ini, request.site, messages);
        return std::holds_alternative<ShellCommand>(request.command) ? runShell(request, link)
                                                                     : runOnSite(request, link);
    } catch (const UsageError& error) {
        showProblem(fmt::format("{} (iosctl --help shows how it is used)", error.what()));
        return ExitCode::Usage;
    } catch (const SiteTrouble& trouble) {
        showProblem(trouble.what());
        return ExitCode::SiteTrouble;
    } catch (...) {
        showProblem(currentError().text());
        return ExitCode::Failed;
    }
}

}  // namespace
}  // namespace quelm::tools

int main(int argc, char** argv) {
    using namespace quelm::tools;
    const ExitCode code = run(std::vector<std::string>(argv + 1, argv + argc));
    // A script must not take a lost answer for an empty one.
    if (!allShown() && code == ExitCode::Done) {
        showProblem("the answer could not be written to standard output");
        return static_cast<int>(ExitCode::Failed);
    }
    return static_cast<int>(code);
}
