#include "dcom/kerberos/GssLibrary.h"

#include <dlfcn.h>

#include <array>

namespace quelm::dcom::kerberos {

namespace {

constexpr const char* fileName = "libgssapi_krb5.so.2";

template <class Function>
bool find(void* library, const char* name, Function& function) {
    function = reinterpret_cast<Function>(dlsym(library, name));
    return function != nullptr;
}

bool findAll(void* library, GssLibrary& found) {
    return find(library, "gss_acquire_cred_from", found.acquireCredential) &&
           find(library, "gss_release_cred", found.releaseCredential) &&
           find(library, "gss_accept_sec_context", found.accept) &&
           find(library, "gss_delete_sec_context", found.deleteContext) &&
           find(library, "gss_inquire_context", found.inquireContext) &&
           find(library, "gss_inquire_sec_context_by_oid", found.inquireContextByOid) &&
           find(library, "gss_display_name", found.displayName) &&
           find(library, "gss_get_name_attribute", found.nameAttribute) &&
           find(library, "gss_release_name", found.releaseName) &&
           find(library, "gss_display_status", found.displayStatus) &&
           find(library, "gss_release_buffer", found.releaseBuffer) &&
           find(library, "gss_release_buffer_set", found.releaseBufferSet) &&
           find(library, "gss_wrap_iov", found.wrap) && find(library, "gss_wrap_iov_length", found.wrapLength) &&
           find(library, "gss_unwrap_iov", found.unwrap) && find(library, "gss_get_mic_iov", found.sign) &&
           find(library, "gss_get_mic_iov_length", found.signLength) &&
           find(library, "gss_verify_mic_iov", found.verify) && find(library, "gss_get_mic", found.signText) &&
           find(library, "gss_verify_mic", found.verifyText);
}

}  // namespace

gss_OID kerberosMechanism() {
    static std::array<std::uint8_t, 9> number{0x2A, 0x86, 0x48, 0x86, 0xF7, 0x12, 0x01, 0x02, 0x02};
    static gss_OID_desc mechanism{number.size(), number.data()};
    return &mechanism;
}

const GssLibrary* GssLibrary::load(std::string& fault) {
    static GssLibrary found;
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

std::string GssLibrary::words(OM_uint32 major, OM_uint32 minor) const {
    OM_uint32 status = 0;
    OM_uint32 more = 0;
    GssBuffer text(*this);
    const bool isMechanisms = minor != 0;
    displayStatus(&status, isMechanisms ? minor : major, isMechanisms ? GSS_C_MECH_CODE : GSS_C_GSS_CODE,
                  kerberosMechanism(), &more, text.get());
    return text.text();
}

}  // namespace quelm::dcom::kerberos
