#pragma once

// Log-ons of the domain's accounts as the settings ask for them: the libraries where they are there, and a plain line
// for the operator for everything that keeps these accounts out.

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "dcom/DcomSettings.h"
#include "dcom/domain/Kerberos.h"
#include "dcom/inquiry/DomainWorker.h"
#include "dcom/rpc/ServerSettings.h"
#include "loop/AsioLoop.h"

namespace quelm {

class DomainLogOns {
 public:
    using Say = std::function<void(std::string_view)>;

    // trouble: takes lines about what keeps accounts out; news: about what does so no longer. Both are called on the
    // loop's thread, or before it has one. The loop must outlive all this.
    DomainLogOns(const dcom::DcomSettings& settings, AsioLoop& loop, Say trouble, Say news);

    // That clients ask tickets for; empty where there is none.
    const std::string& principal() const { return principal_; }
    // From now on these settings let such accounts in; they must outlive the log-ons. Waits a moment for winbind, as
    // clients that are there at once could not log on before it has said how this machine is called.
    void serve(dcom::rpc::ServerSettings& protocol);
    // Others may come in from now on.
    void admit(const dcom::AccessList& access);

 private:
    void openKerberos(const dcom::DcomSettings& settings);
    void openWinbind();
    void look();
    void onSeen(const dcom::DomainLook& look);

    Say trouble_;
    Say news_;
    std::unique_ptr<dcom::Kerberos> kerberos_;
    std::string principal_;
    AsioLoop& loop_;
    std::unique_ptr<dcom::DomainWorker> worker_;  // none: nobody is passed on
    std::unique_ptr<ITimer> again_;
    dcom::rpc::ServerSettings* protocol_ = nullptr;
    bool isTold_ = false;
    std::vector<std::string> told_;
};

}  // namespace quelm
