#include "OPC/Main/StandardSwitches.h"

#include <fmt/format.h>

#include <cstdio>
#include <string>
#include <string_view>

#include "OPC/OPC DA Server/frmOPCQuelm.h"
#include "base/IniFile.h"
#include "base/PasswordPrompt.h"
#include "dcom/ntlm/Crypto.h"
#include "slikda/Identity.h"

namespace quelm {
namespace {

void print(const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), stdout);
}

void printHelp() {
    std::string switches;
    for (const char c : frmOPCQuelm::HelpText()) {
        if (c != '\r') {
            switches += c;
        }
    }
    print(fmt::format(
        "Usage: {} [SWITCH]\n\n{}\n\n"
        "?\n      Show these options in a box, or print them where there is no display\n\n"
        "--help, -h\n      Print this text\n\n"
        "--version, -v\n      Print version and identity\n\n"
        "--nt-hash\n      Ask for a password, or read it from standard input, and print what dcom.conf takes for it\n\n"
        "Environment\n\n"
        "QUELM_INI\n      Sites, databases and log folder; otherwise /etc/quelm/Quelm.ini\n\n"
        "QUELM_DCOM_CONF\n      Addresses, ports, accounts and security; otherwise /etc/quelm/dcom.conf\n\n"
        "QUELM_DESTDIR\n      A folder in which regserver and unregserver take the place of /\n\n"
        "QUELM_STOP_WAIT\n      Seconds that clients get to leave after SIGTERM; otherwise 8\n\n"
        "DISPLAY\n      Where a window is shown\n",
        frmOPCQuelm::executableName, switches));
}

void printVersion() {
    print(
        fmt::format("{} {}\n"
                    "ProgID           {}\n"
                    "Class            {}\n"
                    "Application      {}\n"
                    "OPC Data Access  2.05a and 3.00, custom interfaces\n",
                    frmOPCQuelm::applicationTitle, identity::version, identity::progId, identity::classId,
                    identity::applicationId));
}

// The password comes from standard input, as a command line would show it to everybody.
int printNtHash() {
    std::string password = readNewPassword();
    if (password.empty() || password.size() > longestPassword) {
        std::fputs("Give the password, 1 to 1024 bytes, as a line on standard input\n", stderr);
        return 1;
    }
    print(fmt::format("nt:{}\n", dcom::ntlm::ntHashText(password)));
    dcom::ntlm::wipe(password);
    return 0;
}

}  // namespace

std::optional<int> answerStandardSwitch(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        if (argument == "--help" || argument == "-h") {
            printHelp();
            return 0;
        }
        if (argument == "--version" || argument == "-v") {
            printVersion();
            return 0;
        }
        if (argument == "--nt-hash") {
            return printNtHash();
        }
    }
    return std::nullopt;
}

std::vector<std::string> notUnderstood(int argc, char** argv) {
    std::vector<std::string> notices;
    for (int i = 1; i < argc; ++i) {
        if (!frmOPCQuelm::KnowsSwitchIn(argv[i])) {
            notices.push_back(fmt::format("\"{}\" is no switch of this server and changes nothing; --help lists them",
                                          shownSetting(argv[i])));
        }
    }
    return notices;
}

}  // namespace quelm
