#pragma once

// The functions of winbind's client library that log-ons need. The library is loaded when the domain is to be asked, so
// that the server runs on machines without it and pays nothing for it.

// The library's header wants these in front of it.
#include <stdbool.h>  // NOLINT(modernize-deprecated-headers)
#include <stdint.h>   // NOLINT(modernize-deprecated-headers)
#include <wbclient.h>

#include <string>

namespace quelm::dcom::winbind {

struct WbcLibrary {
    decltype(&wbcCtxCreate) create = nullptr;
    decltype(&wbcCtxFree) free = nullptr;
    decltype(&wbcCtxInterfaceDetails) details = nullptr;
    decltype(&wbcCtxCheckTrustCredentials) checkTrust = nullptr;
    decltype(&wbcCtxLookupName) lookUpName = nullptr;
    decltype(&wbcCtxAuthenticateUserEx) authenticate = nullptr;
    decltype(&wbcSidToStringBuf) sidToText = nullptr;
    decltype(&wbcErrorString) words = nullptr;
    decltype(&wbcFreeMemory) freeMemory = nullptr;

    // nullptr, and the reason, where the library is not installed. Loaded once and never unloaded. One thread's.
    static const WbcLibrary* load(std::string& fault);
};

}  // namespace quelm::dcom::winbind
