// What comes in log-ons by accounts of a domain, before and after the library has looked at it: the frame of the first
// message, what a ticket says of its holder; and a keytab. Nobody comes in by what does not decode.

#include <algorithm>
#include <string>

#include "FuzzInput.h"
#include "dcom/domain/AccessList.h"
#include "dcom/domain/ApRequest.h"
#include "dcom/domain/Keytab.h"
#include "dcom/domain/Pac.h"

namespace quelm::fuzz {
namespace {

void readTicket(Bytes encoded) {
    const auto person = dcom::readLogonInfo(encoded);
    if (!person) {
        return;
    }
    require(!person->user.empty() && !person->domain.empty(), "who decodes has a name");
    requireOneLine(person->account());
    dcom::AccessList list;
    require(!list.admits(*person), "an empty list lets nobody in");
    for (const std::string& sid : person->sids) {
        require(sid.starts_with("S-1-") && sid.size() < 4096, "a SID is one");
    }
}

void readRequest(Bytes token) {
    const Bytes bare = dcom::bareApRequest(token);
    require(bare.empty() || (bare.data() >= token.data() && bare.data() + bare.size() <= token.data() + token.size()),
            "the message lies inside the frame");
    if (const auto digest = dcom::digestOf(bare)) {
        dcom::ReplayMemory taken;
        require(!taken.knows(*digest), "nothing is known before it came");
        taken.add(*digest);
        require(taken.knows(*digest), "what came is known");
    }
}

}  // namespace

void runInput(Input input) {
    const std::uint8_t kind = input.u8();
    ExactCopy data(input.rest());
    if (kind % 3 == 0) {
        readTicket(data.bytes());
    } else if (kind % 3 == 1) {
        readRequest(data.bytes());
    } else {
        std::string contents(data.text());
        const dcom::Keytab keytab = dcom::parseKeytab(contents);
        require(keytab.fault.empty() != keytab.entries.empty() || !keytab.fault.empty(), "entries or a fault");
    }
}

}  // namespace quelm::fuzz
