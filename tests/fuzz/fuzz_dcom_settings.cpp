// The DCOM settings file: whatever stands in it, the settings are usable, damage never weakens the protection, and no
// password gets into what is logged.

#include "FuzzInput.h"
#include "base/Text.h"
#include "dcom/DcomSettings.h"

namespace quelm::fuzz {
void runInput(Input input) {
    const std::string lastLine = input.text();
    std::string host = input.text();
    std::replace_if(
        host.begin(), host.end(), [](unsigned char c) { return c < ' '; }, '-');  // no machine's name has any
    const Bytes rest = input.rest();
    std::string text(rest.begin(), rest.end());
    if ((lastLine + host + text).find(secret) != std::string::npos) {
        return;  // the secret counts as one in its own place only
    }
    const bool mayBeWeak = text.find('=') != std::string::npos;
    text += "\n[Accounts]\nfuzz =" + lastLine.substr(0, lastLine.find_first_of("\r\n")) + std::string(secret);
    const dcom::DcomSettings settings = dcom::parseDcomSettings(text, "dcom.conf", host);
    require(text.find(secret) == std::string::npos, "the text is wiped");
    require(!settings.addresses.empty(), "at least one address");
    require(settings.activationPort != 0, "an activation port");
    require(!settings.ntlm.computerName.empty() && !settings.ntlm.domainName.empty(), "names to log on with");
    if (!mayBeWeak) {
        require(settings.minimumLevel == dcom::rpc::AuthLevel::Integrity && !settings.ntlm.allowAnonymous &&
                    !settings.ntlm.allowNtlmV1Ess,
                "strict unless told otherwise");
    }
    for (const auto* lines : {&settings.problems, &settings.notices}) {
        for (const std::string& line : *lines) {
            require(line.find(secret) == std::string::npos, "no password in the log");
            requireOneLine(line);
        }
    }
}

}  // namespace quelm::fuzz
