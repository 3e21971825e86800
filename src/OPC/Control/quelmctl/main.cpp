// quelmctl: for whoever sets the server up and looks after it.
//
// Exit codes: 0 done, and nothing wrong was found; 1 something is wrong; 2 the command line cannot be understood.

#include <fmt/format.h>
#include <string.h>

#include <CLI/CLI.hpp>
#include <string>

#include "DB Interface Library/SystemINI.h"
#include "OPC/Control/AccountFile.h"
#include "OPC/Control/Check.h"
#include "OPC/Control/RunningServer.h"
#include "OPC/Health/ControlPath.h"
#include "OPC/Tools/Json.h"
#include "OPC/Tools/Terminal.h"
#include "base/PasswordPrompt.h"
#include "dcom/DcomSettings.h"

namespace quelm::control {
namespace {

using tools::Json;
using tools::lineOf;
using tools::showLine;

constexpr int done = 0;
constexpr int wrong = 1;
constexpr int misunderstood = 2;

struct Options {
    std::string ini = systemIniPath();
    std::string conf = dcom::dcomSettingsPath();
    std::string control = health::controlPath();
    std::string account;
    bool json = false;
};

void printFindings(std::string_view kind, const std::vector<Finding>& findings) {
    for (const Finding& finding : findings) {
        showLine(fmt::format("{:8} {:10} {}", kind, finding.area, finding.text));
    }
}

Json jsonOf(const std::vector<Finding>& findings) {
    Json list = Json::array();
    for (const Finding& finding : findings) {
        list.push_back({{"area", finding.area}, {"text", finding.text}});
    }
    return list;
}

int runCheck(const Options& options) {
    const CheckResult result = check(options.ini, options.conf);
    if (options.json) {
        Json sites = Json::array();
        for (const CheckedSite& site : result.sites) {
            sites.push_back({{"site", site.siteID},
                             {"reached", site.isReached},
                             {"definitions", site.definitions},
                             {"items", site.items},
                             {"channelRecords", site.fromChannels}});
        }
        showLine(lineOf(
            {{"problems", jsonOf(result.problems)}, {"notes", jsonOf(result.notes)}, {"sites", std::move(sites)}}));
        return result.problems.empty() ? done : wrong;
    }
    for (const CheckedSite& site : result.sites) {
        showLine(site.isReached ? fmt::format("site     {:10} {} of {} definitions become items; {} channel records",
                                              site.siteID, site.items, site.definitions, site.fromChannels)
                                : fmt::format("site     {:10} its databases cannot be reached", site.siteID));
    }
    printFindings("note", result.notes);
    printFindings("problem", result.problems);
    showLine(result.problems.empty()
                 ? "Nothing is wrong"
                 : fmt::format("{} problem{}", result.problems.size(), result.problems.size() == 1 ? "" : "s"));
    return result.problems.empty() ? done : wrong;
}

int runList(const Options& options) {
    const std::vector<std::string> names = AccountFile(options.conf).names();
    if (options.json) {
        showLine(lineOf({{"accounts", names}}));
    } else {
        for (const std::string& name : names) {
            showLine(name);
        }
    }
    return done;
}

int said(const Options& options, std::string_view what) {
    if (options.json) {
        showLine(lineOf({{"account", options.account}, {"done", what}}));
    } else {
        showLine(fmt::format("{}: {}; it counts once the server has read it: systemctl reload quelm-opc-server",
                             options.account, what));
    }
    return done;
}

int setPassword(const Options& options, bool isNew) {
    AccountFile file(options.conf);
    if (file.has(options.account) == isNew) {
        throw AccountTrouble(
            isNew
                ? fmt::format("there is an account '{}' already; \"change\" gives it another password", options.account)
                : fmt::format("there is no account '{}'; \"add\" makes one", options.account));
    }
    std::string password = readNewPassword();
    const bool isUsable = !password.empty() && password.size() <= longestPassword;
    if (isUsable) {
        file.set(options.account, password);
    }
    explicit_bzero(password.data(), password.size());
    if (!isUsable) {
        throw AccountTrouble("nothing is changed: give the password, 1 to 1024 bytes, as a line on standard input");
    }
    file.save();
    return said(options, isNew ? "added" : "changed");
}

int removeAccount(const Options& options) {
    AccountFile file(options.conf);
    file.remove(options.account);
    file.save();
    return said(options, "removed");
}

int showAnswer(const Options& options, const char* question, std::vector<std::string> (*linesOf)(const Answer&)) {
    const Answer answer = askServer(options.control, {{"ask", question}});
    if (options.json) {
        showLine(lineOf(answer));
    } else {
        for (const std::string& line : linesOf(answer)) {
            showLine(line);
        }
    }
    return done;
}

int reload(const Options& options) {
    const Answer answer = askServer(options.control, {{"ask", "reload"}});
    if (options.json) {
        showLine(lineOf(answer));
    } else {
        for (const Answer& line : answer.value("lines", Answer::array())) {
            showLine(line.is_string() ? line.get<std::string>() : "");
        }
    }
    return answer.value("reloaded", false) ? done : wrong;
}

int run(int argc, char** argv) {
    Options options;
    int code = done;
    CLI::App app("Sets the Quelm 5 OPC DA Server up and looks after it", "quelmctl");
    app.set_version_flag("--version", fmt::format("quelmctl {}", QUELM_VERSION));
    app.require_subcommand(1);
    app.fallthrough();
    app.add_flag("--json", options.json, "Answer in JSON, for programs");
    app.add_option("--ini", options.ini, "The system INI file")->capture_default_str();
    app.add_option("--conf", options.conf, "The settings of the network")->capture_default_str();
    app.add_subcommand("check", "Look for everything that a start of the server would stumble over")->callback([&] {
        code = runCheck(options);
    });
    app.add_option("--control", options.control, "Where the server is asked how it is")->capture_default_str();
    app.add_subcommand("status", "Say how the running server is: sites, databases, items, load")->callback([&] {
        code = showAnswer(options, "status", statusLines);
    });
    app.add_subcommand("clients", "Name the clients that are connected, and their groups")->callback([&] {
        code = showAnswer(options, "clients", clientLines);
    });
    app.add_subcommand("reload", "Have the running server read dcom.conf anew")->callback([&] {
        code = reload(options);
    });
    CLI::App* const passwords = app.add_subcommand("passwd", "The accounts that clients log on with");
    passwords->require_subcommand(1);
    const auto command = [&](const char* name, const char* help, auto&& action) {
        CLI::App* const sub = passwords->add_subcommand(name, help);
        sub->add_option("ACCOUNT", options.account, "DOMAIN\\user, or user alone: for any domain")->required();
        sub->callback([&, action] { code = action(options); });
    };
    command("add", "Add an account; asks for its password", [](const Options& o) { return setPassword(o, true); });
    command("change", "Give an account another password", [](const Options& o) { return setPassword(o, false); });
    command("remove", "Remove an account", removeAccount);
    passwords->add_subcommand("list", "Name all accounts")->callback([&] { code = runList(options); });
    try {
        app.parse(argc, argv);
        return code;
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? done : misunderstood;
    } catch (const NoAnswer& trouble) {
        tools::showProblem(trouble.what());
        return wrong;
    } catch (const AccountTrouble& trouble) {
        tools::showProblem(trouble.what());
        return wrong;
    }
}

}  // namespace
}  // namespace quelm::control

int main(int argc, char** argv) {
    return quelm::control::run(argc, argv);
}
