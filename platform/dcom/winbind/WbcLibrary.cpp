#include "dcom/winbind/WbcLibrary.h"

#include <dlfcn.h>

namespace quelm::dcom::winbind {

namespace {

constexpr const char* fileName = "libwbclient.so.0";

template <class Function>
bool find(void* library, const char* name, Function& function) {
    function = reinterpret_cast<Function>(dlsym(library, name));
    return function != nullptr;
}

bool findAll(void* library, WbcLibrary& found) {
    return find(library, "wbcCtxCreate", found.create) && find(library, "wbcCtxFree", found.free) &&
           find(library, "wbcCtxInterfaceDetails", found.details) &&
           find(library, "wbcCtxCheckTrustCredentials", found.checkTrust) &&
           find(library, "wbcCtxLookupName", found.lookUpName) &&
           find(library, "wbcCtxAuthenticateUserEx", found.authenticate) &&
           find(library, "wbcSidToStringBuf", found.sidToText) && find(library, "wbcErrorString", found.words) &&
           find(library, "wbcFreeMemory", found.freeMemory);
}

}  // namespace

const WbcLibrary* WbcLibrary::load(std::string& fault) {
    static WbcLibrary found;
    static bool isLoaded = false;
    if (isLoaded) {
        return &found;
    }
    void* const library = dlopen(fileName, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        fault = std::string(fileName) + " is not installed";
        return nullptr;
    }
    if (!findAll(library, found)) {
        fault = std::string(fileName) + " lacks functions that are needed";
        return nullptr;
    }
    isLoaded = true;
    return &found;
}

}  // namespace quelm::dcom::winbind
