#pragma once

// The functions of MIT Kerberos that log-ons need. The library is loaded when tickets are to be used, so that the
// server runs on machines without it and pays nothing for it.

#include <gssapi/gssapi.h>
#include <gssapi/gssapi_ext.h>
#include <gssapi/gssapi_krb5.h>

#include <span>
#include <string>
#include <vector>

namespace quelm::dcom::kerberos {

struct GssLibrary {
    decltype(&gss_acquire_cred_from) acquireCredential = nullptr;
    decltype(&gss_release_cred) releaseCredential = nullptr;
    decltype(&gss_accept_sec_context) accept = nullptr;
    decltype(&gss_delete_sec_context) deleteContext = nullptr;
    decltype(&gss_inquire_context) inquireContext = nullptr;
    decltype(&gss_inquire_sec_context_by_oid) inquireContextByOid = nullptr;
    decltype(&gss_display_name) displayName = nullptr;
    decltype(&gss_get_name_attribute) nameAttribute = nullptr;
    decltype(&gss_release_name) releaseName = nullptr;
    decltype(&gss_display_status) displayStatus = nullptr;
    decltype(&gss_release_buffer) releaseBuffer = nullptr;
    decltype(&gss_release_buffer_set) releaseBufferSet = nullptr;
    decltype(&gss_wrap_iov) wrap = nullptr;
    decltype(&gss_wrap_iov_length) wrapLength = nullptr;
    decltype(&gss_unwrap_iov) unwrap = nullptr;
    decltype(&gss_get_mic_iov) sign = nullptr;
    decltype(&gss_get_mic_iov_length) signLength = nullptr;
    decltype(&gss_verify_mic_iov) verify = nullptr;
    decltype(&gss_get_mic) signText = nullptr;
    decltype(&gss_verify_mic) verifyText = nullptr;

    // nullptr, and the reason, where the library is not installed. Loaded once and never unloaded. One thread's.
    static const GssLibrary* load(std::string& fault);

    // The mechanism's own words for what went wrong.
    std::string words(OM_uint32 major, OM_uint32 minor) const;
};

// The mechanism, which every call names.
gss_OID kerberosMechanism();

// A buffer that the library gave, which takes it back.
class GssBuffer {
 public:
    explicit GssBuffer(const GssLibrary& library) : library_(library) {}
    ~GssBuffer() {
        OM_uint32 minor = 0;
        library_.releaseBuffer(&minor, &buffer_);
    }
    GssBuffer(const GssBuffer&) = delete;
    GssBuffer& operator=(const GssBuffer&) = delete;

    gss_buffer_t get() { return &buffer_; }
    std::span<const std::uint8_t> bytes() const {
        return {static_cast<const std::uint8_t*>(buffer_.value), buffer_.length};
    }
    std::string text() const { return {static_cast<const char*>(buffer_.value), buffer_.length}; }

 private:
    const GssLibrary& library_;
    gss_buffer_desc buffer_ = GSS_C_EMPTY_BUFFER;
};

}  // namespace quelm::dcom::kerberos
