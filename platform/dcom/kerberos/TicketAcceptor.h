#pragma once

// Log-ons with Kerberos tickets, by MIT Kerberos and a keytab. Everything here works with keys and local files alone:
// no controller is asked, so that it all happens on the network's thread and goes on while the
// domain's controllers are away.

#include <memory>
#include <string>

#include "dcom/domain/ApRequest.h"
#include "dcom/domain/Kerberos.h"
#include "dcom/kerberos/GssLibrary.h"

namespace quelm::dcom::kerberos {

class TicketAcceptor final : public Kerberos {
 public:
    // keytab: path of the file, which is looked at anew at each log-on and may thus change or come later.
    TicketAcceptor(const GssLibrary& library, std::string keytab);
    ~TicketAcceptor() override;
    TicketAcceptor(const TicketAcceptor&) = delete;
    TicketAcceptor& operator=(const TicketAcceptor&) = delete;

    std::unique_ptr<KerberosLogOn> begin() override;

    // GSS_C_NO_CREDENTIAL, and the reason, as long as the keytab cannot be used.
    gss_cred_id_t credential(std::string& fault);
    const GssLibrary& library() const { return library_; }
    ReplayMemory& taken() { return taken_; }

 private:
    const GssLibrary& library_;
    std::string keytab_;
    gss_cred_id_t credential_ = GSS_C_NO_CREDENTIAL;
    ReplayMemory taken_;
};

// nullptr, and the reason, where the library is not installed.
std::unique_ptr<Kerberos> acceptTickets(const std::string& keytab, std::string& fault);

}  // namespace quelm::dcom::kerberos
