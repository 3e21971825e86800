#pragma once

// One site out of the system INI file, linked to its I/O servers in the server's own way.

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "DB Interface Library/IDBIL.h"
#include "OPC/OPC DA Server/IOSSimpleManager.h"
#include "OPC/Tools/MessageList.h"
#include "OPC/Tools/OnDemandClock.h"

namespace quelm::tools {

// The site cannot be reached: the INI file, its entry or its databases. what() says which.
class SiteTrouble : public std::runtime_error {
 public:
    using std::runtime_error::runtime_error;
};

class SiteLink {
 public:
    // ini: the file, or nothing for where the server looks for it. site: a SiteID, or nothing for this computer's own
    // entry. Raises SiteTrouble; what the libraries say about it goes to standard error first. messages must outlive
    // the link.
    SiteLink(const std::optional<std::string>& ini, const std::optional<std::string>& site, MessageList& messages);
    SiteLink(const SiteLink&) = delete;
    SiteLink& operator=(const SiteLink&) = delete;
    ~SiteLink();

    // Reads the site's values and health now, and looks whether a pending refresh is done.
    void read() { clock_.expire(); }

    IOSSimpleManager& manager() { return manager_; }
    MessageList& messages() { return messages_; }
    // Raises RuntimeError with the database's own number and text.
    std::optional<MessageRecord> record(const std::string& id);

 private:
    MessageList& messages_;
    OnDemandClock clock_;
    std::shared_ptr<IDBIL> dbil_;
    IOSSimpleManager manager_;
};

}  // namespace quelm::tools
