#include "OPC/Main/StandardSwitches.h"

#include <fmt/format.h>

#include <cstdio>
#include <string>
#include <string_view>

#include "OPC/OPC DA Server/frmOPCQuelm.h"
#include "SLIK-DA/Identity.h"

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
    print(
        fmt::format("Usage: {} [SWITCH]\n\n{}\n\n"
                    "?\n      Show these options in a box, or print them where there is no display\n\n"
                    "--help\n      Print this text\n\n"
                    "--version\n      Print version and identity\n\n"
                    "Environment\n\n"
                    "QUELM_INI\n      Sites, databases and log folder; otherwise /etc/quelm/Quelm.ini\n\n"
                    "QUELM_DCOM_CONF\n      Addresses, ports, accounts and security; otherwise /etc/quelm/dcom.conf\n\n"
                    "DISPLAY\n      Where a window is shown\n",
                    frmOPCQuelm::executableName, switches));
}

void printVersion() {
    print(fmt::format(
        "{} {}\n"
        "ProgID           {}\n"
        "Class            {}\n"
        "Application      {}\n"
        "OPC Data Access  2.05a, custom interface\n",
        frmOPCQuelm::applicationTitle, QUELM_VERSION, identity::progId, identity::classId, identity::applicationId));
}

}  // namespace

bool answeredStandardSwitch(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        if (argument == "--help") {
            printHelp();
            return true;
        }
        if (argument == "--version") {
            printVersion();
            return true;
        }
    }
    return false;
}

}  // namespace quelm
