#pragma once

// What the tests of the OPC interfaces share: a call context that remembers the interface pointers it wrote,
// requests built field by field, and replies shown as hex.

#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "DCOM/orpc/ComObject.h"

namespace quelm::opcda::wire::test {

using Bytes = std::vector<std::uint8_t>;

// "04 00 00 00 | 2A 00": blanks and bars are free.
inline Bytes fromHex(std::string_view text) {
    Bytes bytes;
    std::string digits;
    for (const char c : text) {
        if (std::isxdigit(static_cast<unsigned char>(c)) != 0) {
            digits += c;
        }
    }
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
        bytes.push_back(static_cast<std::uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

inline std::string toHex(std::span<const std::uint8_t> bytes) {
    std::string text;
    char pair[4];
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        std::snprintf(pair, sizeof pair, "%02X%c", bytes[i], i % 4 == 3 ? '\n' : ' ');
        text += pair;
    }
    return text;
}

#define EXPECT_HEX(bytes, expected)                     \
    EXPECT_EQ(::quelm::opcda::wire::test::toHex(bytes), \
              ::quelm::opcda::wire::test::toHex(::quelm::opcda::wire::test::fromHex(expected)))

// Writes an interface pointer as referent, length twice and four marker bytes, and keeps the object.
class FakeContext final : public dcom::orpc::CallContext {
 public:
    struct Written {
        std::shared_ptr<dcom::orpc::ComObject> object;
        dcom::Uuid iid;
    };
    std::vector<Written> written;

    dcom::HResult writeInterface(dcom::ndr::Writer& out, const std::shared_ptr<dcom::orpc::ComObject>& object,
                                 const dcom::Uuid& iid) override {
        static constexpr dcom::Uuid unknown = dcom::Uuid::parse("00000000-0000-0000-C000-000000000046");
        if (!object || (iid != unknown && object->queryInterface(iid) == nullptr)) {
            out.nullPointer();
            return dcom::E_NOINTERFACE;
        }
        written.push_back({object, iid});
        out.pointer();
        out.u32(4);
        out.u32(4);
        out.bytes(fromHex("4D454F57"));
        return dcom::S_OK;
    }
    const dcom::rpc::Peer& peer() const override { return peer_; }
    const std::string& account() const override { return account_; }

 private:
    dcom::rpc::Peer peer_{7, "192.0.2.9:50000", "192.0.2.1", 49200};
    std::string account_ = "PLANT\\historian";
};

// The reply to one call: the fault status, the bytes, and a reader over them.
struct Reply {
    std::uint32_t fault = 0;
    Bytes bytes;
    dcom::ndr::Reader reader() const { return dcom::ndr::Reader(bytes); }
    // The last four bytes.
    dcom::HResult result() const {
        dcom::HResult value = 0xDEADBEEF;
        if (bytes.size() >= 4) {
            std::memcpy(&value, bytes.data() + bytes.size() - 4, 4);
        }
        return value;
    }
};

// Parameters written field by field.
class Request {
 public:
    Request& u16(std::uint16_t value) { return writer_.u16(value), *this; }
    Request& u32(std::uint32_t value) { return writer_.u32(value), *this; }
    Request& f32(float value) { return writer_.f32(value), *this; }
    Request& f64(double value) { return writer_.f64(value), *this; }
    Request& text(std::string_view value) { return writer_.wideString(value), *this; }
    // A text without its NUL, as scripted clients send it.
    Request& bareText(std::string_view ascii) {
        const auto size = static_cast<std::uint32_t>(ascii.size());
        u32(size).u32(0).u32(size);
        for (const char c : ascii) {
            u16(static_cast<std::uint8_t>(c));
        }
        return *this;
    }
    Request& uuid(const dcom::Uuid& value) { return writer_.uuid(value), *this; }
    // Count, conformance, values.
    Request& counted(std::span<const std::uint32_t> values) {
        return u32(static_cast<std::uint32_t>(values.size())).array(values);
    }
    // Conformance and values.
    Request& array(std::span<const std::uint32_t> values) {
        u32(static_cast<std::uint32_t>(values.size()));
        for (const std::uint32_t value : values) {
            u32(value);
        }
        return *this;
    }
    Request& hex(std::string_view text) { return writer_.bytes(fromHex(text)), *this; }
    Request& align(std::size_t alignment) { return writer_.align(alignment), *this; }
    const Bytes& bytes() const { return bytes_; }

    Request() = default;
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;

 private:
    Bytes bytes_;
    dcom::ndr::Writer writer_{bytes_};
};

inline Reply invoke(dcom::orpc::Interface& target, std::uint16_t opnum, std::span<const std::uint8_t> stub,
                    dcom::orpc::CallContext& context) {
    Reply reply;
    dcom::ndr::Reader in(stub);
    // ORPCTHAT is 8 bytes long, so that alignment from here is alignment in the whole reply.
    dcom::ndr::Writer out(reply.bytes);
    reply.fault = target.invoke(opnum, in, out, context);
    return reply;
}

inline Reply invoke(dcom::orpc::ComObject& object, const dcom::Uuid& iid, std::uint16_t opnum, const Request& request,
                    dcom::orpc::CallContext& context) {
    dcom::orpc::Interface* target = object.queryInterface(iid);
    if (target == nullptr) {
        ADD_FAILURE() << "no interface " << iid.toText();
        return {};
    }
    return invoke(*target, opnum, request.bytes(), context);
}

}  // namespace quelm::opcda::wire::test
