#pragma once

// The settings of the DCOM layer, which belong to the machine and not to the server: where it listens, who may log on
// and how well messages must be protected. A damaged line costs only itself and never weakens the protection.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "dcom/domain/AccessList.h"
#include "dcom/ntlm/AccountTable.h"
#include "dcom/ntlm/ClientContext.h"
#include "dcom/ntlm/ServerContext.h"
#include "dcom/rpc/AuthLevel.h"

namespace quelm::dcom {

// How this server logs on to clients when it calls them back.
struct CallbackSettings {
    std::optional<ntlm::ClientAccount> account;               // none: only clients that need no log-on are called back
    rpc::AuthLevel minimumLevel = rpc::AuthLevel::Integrity;  // the least protection of a call that logs on
    bool allowNoLogOn = false;                                // where the client's machine takes no log-on
};

struct DcomSettings {
    std::vector<std::string> addresses{"127.0.0.1"};  // numeric IPv4, at least one
    std::uint16_t activationPort = 135;
    std::uint16_t objectPort = 49200;                         // 0: any free one
    rpc::AuthLevel minimumLevel = rpc::AuthLevel::Integrity;  // the least protection of a call: connect or better
    bool openServerList = false;                              // the list of OPC servers asks for no log-on
    ntlm::ServerSettings ntlm;
    ntlm::AccountTable accounts;
    // Path of the keys with which tickets of the domain are taken; empty: none are.
    std::string keytab;
    bool winbind = false;  // log-ons by NTLM of accounts that are not above are passed on to the domain
    AccessList access;     // the domain's accounts that may come in
    CallbackSettings callbacks;
    // Seconds. When clients that went away without a word are let go of: without ping or call for so long; without a
    // first ping for so long after their first call; so long after the end of their last connection.
    std::uint32_t pingTimeout = 360;
    std::uint32_t firstPing = 150;
    std::uint32_t closeGrace = 10;
    std::string systemBranch;  // of the items about the server itself; "": there are none
    bool keepRunning = false;  // the server stays in use when no client is there

    // Both are for the log at start, one line each, without secrets.
    std::vector<std::string> problems;  // what is damaged, what holds instead, what to do about it
    std::vector<std::string> notices;   // what is set weaker than the default, and what keeps clients out

    // Whether accounts of the domain can log on at all.
    bool letsDomainIn() const { return !keytab.empty() || winbind; }
};

// The settings file: the environment variable QUELM_DCOM_CONF, else /etc/quelm/dcom.conf.
std::string dcomSettingsPath();

// Reads the file. A missing one gives the defaults; one that cannot be read gives the defaults and a problem.
// Never raises. hostName: this machine's name, with or without its DNS domain.
DcomSettings readDcomSettings(const std::string& path, std::string_view hostName);
// As above, for this machine.
DcomSettings readDcomSettings(const std::string& path);

// The text of a settings file. name: how problem lines call the file. The text is wiped, as it holds passwords.
DcomSettings parseDcomSettings(std::string& text, const std::string& name, std::string_view hostName);

// Adds the notices about settings that were read.
void noteWhatIsWeak(DcomSettings& settings);

}  // namespace quelm::dcom
