#include "dcom/domain/PassThrough.h"

#include "dcom/ntlm/Crypto.h"

namespace quelm::dcom {

NtlmAnswer::~NtlmAnswer() {
    ntlm::wipe(sessionKey);
}

}  // namespace quelm::dcom
