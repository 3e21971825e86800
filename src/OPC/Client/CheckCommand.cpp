#include "OPC/Client/CheckCommand.h"

#include <fmt/format.h>

#include <optional>

#include "OPC/Client/check/CheckReport.h"

namespace quelm::opcclient {

using check::Ran;
using dcom::client::Trouble;

namespace {

check::Choice choiceOf(const Options& options) {
    return {options.cases, options.writes, options.known.empty() ? check::Known() : check::readKnown(options.known)};
}

std::vector<Ran> chosenBy(const check::Choice& choice) {
    std::vector<Ran> cases = check::chosen(choice);
    if (cases.empty()) {
        throw UsageError("there is no such case; opcda check --list shows them");
    }
    return cases;
}

// People see what is not as expected when it is found, or everything with --verbose.
void showRan(Screen& screen, const Options& options, const Ran& ran) {
    const bool isPlain = ran.verdict == check::Verdict::Passed || ran.verdict == check::Verdict::Skipped;
    if (options.form == Form::Text && (!isPlain || options.verbose)) {
        for (const std::string& line : check::linesOf(ran)) {
            screen.line(line);
        }
        screen.flush();
    }
    screen.progress(fmt::format("case {} is done", ran.what->number));
}

void tellOfNeedlessKnown(Screen& screen, const std::vector<Ran>& cases, const check::Known& known) {
    for (const Ran& ran : cases) {
        if (known.contains(ran.what->number) && ran.counts() && ran.known.empty()) {
            screen.message(fmt::format("case {} passes: it need not stand among the known ones", ran.what->number));
        }
    }
}

}  // namespace

void listCases(Screen& screen, const Options& options) {
    show(screen, options.form, check::listOf(chosenBy({options.cases, true, {}})));
}

ExitCode runCheck(Connection& connection, AsioLoop& loop, Screen& screen, const Options& options) {
    const check::Choice choice = choiceOf(options);
    std::vector<Ran> cases = chosenBy(choice);
    check::Target target;
    target.connect = [&connection] { return connection.newSession(); };
    target.classId = connection.classId();
    target.progId = connection.progId();
    target.items = options.items;
    target.tell = [&screen](const std::string& what) { screen.message(what); };
    check::Stage stage(loop, std::move(target));
    connection.onInterrupt([&stage] { stage.interrupt(); });
    std::optional<Trouble> end;
    try {
        check::run(stage, choice, cases, [&](const Ran& ran) { showRan(screen, options, ran); });
    } catch (const Trouble& trouble) {
        end = trouble;
    }
    connection.onInterrupt({});
    const Answer answer = check::answerOf(cases);
    show(screen, options.form, answer);
    tellOfNeedlessKnown(screen, cases, choice.known);
    if (!options.junit.empty()) {
        check::writeJunit(options.junit, cases);
    }
    if (end) {
        throw Trouble(*end);
    }
    return answer.code;
}

}  // namespace quelm::opcclient
