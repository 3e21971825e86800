#include "OPC/Client/check/Runner.h"

#include <algorithm>

#include "base/TimeSource.h"
#include "opcda/client/OpcError.h"

namespace quelm::opcclient::check {

using dcom::client::Trouble;

namespace {

// The longest cases watch a server for a minute; those that must be named wait for somebody, or until the server counts
// a client as dead, which takes six minutes.
constexpr std::chrono::seconds longestCase{90};
constexpr std::chrono::minutes longestNamed{12};

bool losesConnection(Trouble::Kind kind) {
    return kind != Trouble::Kind::Fault && kind != Trouble::Kind::AccessDenied && kind != Trouble::Kind::ClassUnknown;
}

// Runs one case; gives whether the connection must be made anew.
bool attempt(Stage& stage, const Case& what, Findings& found) {
    try {
        what.run(stage, found);
    } catch (const Findings::Stop&) {
        return false;
    } catch (const opcda::client::OpcError& error) {
        found.fail(error.what());
    } catch (const Trouble& trouble) {
        if (trouble.kind == Trouble::Kind::Interrupted && !stage.timeIsUp()) {
            throw;
        }
        found.fail(stage.timeIsUp() ? std::string("its time is up: the server takes too long") : trouble.what());
        return losesConnection(trouble.kind);
    }
    return false;
}

class CaseOnStage {
 public:
    CaseOnStage(Stage& stage, Findings& found, std::chrono::milliseconds limit) : stage_(stage) {
        stage_.use(found);
        stage_.begin(limit);
    }
    CaseOnStage(const CaseOnStage&) = delete;
    CaseOnStage& operator=(const CaseOnStage&) = delete;
    ~CaseOnStage() { stage_.end(); }

 private:
    Stage& stage_;
};

void runOne(Stage& stage, const Choice& choice, Ran& ran) {
    const std::uint64_t began = timeSource().monotonicMilliseconds();
    Findings found;
    bool isLost = false;
    {
        const bool isNamed = *ran.what->onlyNamed != '\0';
        const CaseOnStage onStage(stage, found, isNamed ? std::chrono::milliseconds(longestNamed) : longestCase);
        isLost = attempt(stage, *ran.what, found);
    }
    ran.verdict = found.verdict();
    ran.came = found.came();
    ran.milliseconds = timeSource().monotonicMilliseconds() - began;
    const auto known = choice.known.find(ran.what->number);
    if (known != choice.known.end() && ran.verdict == Verdict::Failed) {
        ran.known = known->second;
    }
    if (isLost) {
        // A server that is gone answers nobody any more: that ends the check, and not with a hundred failures.
        stage.reconnect();
        stage.newServer(stage.session());
    }
}

}  // namespace

std::vector<Ran> chosen(const Choice& choice) {
    std::vector<Ran> cases;
    for (const Area& area : areas()) {
        for (const Case& what : area.cases) {
            if (choice.cases.empty() || choice.cases.contains(what.number)) {
                cases.push_back({&area, &what, Verdict::Skipped, "not run", "", 0});
            }
        }
    }
    std::sort(cases.begin(), cases.end(), [](const Ran& a, const Ran& b) { return a.what->number < b.what->number; });
    return cases;
}

void run(Stage& stage, const Choice& choice, std::vector<Ran>& cases, const std::function<void(const Ran&)>& onDone) {
    for (Ran& ran : cases) {
        if (ran.what->writes && !choice.writes) {
            ran.came = "tries to write: only with --writes --item";
        } else if (*ran.what->onlyNamed != '\0' && !choice.cases.contains(ran.what->number)) {
            ran.came = fmt::format("{}: only with --case {}", ran.what->onlyNamed, ran.what->number);
        } else {
            runOne(stage, choice, ran);
        }
        onDone(ran);
    }
}

}  // namespace quelm::opcclient::check
