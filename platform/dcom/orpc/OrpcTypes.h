#pragma once

// The building blocks that every object call shares: the ids of COM's own interfaces, the headers in front
// of parameters and results, object references, and the lists of addresses at which an object is reached.

#include <cstdint>
#include <span>
#include <string>
#include <type_traits>
#include <vector>

#include "base/Uuid.h"
#include "dcom/Fault.h"
#include "dcom/ndr/Reader.h"
#include "dcom/ndr/Writer.h"

namespace quelm::dcom::orpc {

inline constexpr Uuid iidUnknown = Uuid::parse("00000000-0000-0000-C000-000000000046");
inline constexpr Uuid iidClassFactory = Uuid::parse("00000001-0000-0000-C000-000000000046");
inline constexpr Uuid iidRemUnknown = Uuid::parse("00000131-0000-0000-C000-000000000046");
inline constexpr Uuid iidRemUnknown2 = Uuid::parse("00000143-0000-0000-C000-000000000046");
inline constexpr Uuid iidRemoteScmActivator = Uuid::parse("000001A0-0000-0000-C000-000000000046");
inline constexpr Uuid iidActivation = Uuid::parse("4D9F4AB8-7D1C-11CF-861E-0020AF6E7C57");
inline constexpr Uuid iidObjectExporter = Uuid::parse("99FCFEC4-5260-101B-BBCB-00AA0021347A");

// Bytes of one on the wire.
inline constexpr std::size_t uuidSize = 16;

// The methods of COM's own interfaces.
enum class ObjectExporterCall : std::uint16_t {
    ResolveOxid,
    SimplePing,
    ComplexPing,
    ServerAlive,
    ResolveOxid2,
    ServerAlive2,
};
enum class RemUnknownCall : std::uint16_t { QueryInterface = 3, AddRef, Release, QueryInterface2 };
enum class ActivationCall : std::uint16_t { RemoteActivation };
enum class ScmActivatorCall : std::uint16_t { GetClassObject = 3, CreateInstance };
enum class ClassFactoryCall : std::uint16_t { CreateInstance = 3, LockServer };

// The number by which a method of these or any other interface is called.
template <class Call>
constexpr std::uint16_t opnumOf(Call method) {
    static_assert(std::is_enum_v<Call>);
    return static_cast<std::uint16_t>(method);
}

// A packed object reference begins with the one, and the kind that needs no code of its own has the other.
inline constexpr std::uint32_t objectSignature = 0x574F454D;  // "MEOW"
inline constexpr std::uint32_t standardReference = 1;
// A string binding of this tower is an address over TCP.
inline constexpr std::uint16_t towerTcp = 7;

inline constexpr std::uint16_t comMajorVersion = 5;
inline constexpr std::uint16_t comMinorVersion = 7;

// References that an interface pointer brings along, so that the client need not come back for each copy of it.
inline constexpr std::uint32_t referencesPerPointer = 5;

// The header in front of an object call's parameters, as far as its answer depends on it.
struct OrpcThis {
    Fault fault = Fault::None;  // another one: the call is answered with it
    std::uint32_t flags = 0;
};

// Reads that header, extensions included.
OrpcThis readOrpcThis(ndr::Reader& in);
// Passes over the header in front of an object call's results; what is wrong with it latches in the reader.
void skipOrpcThat(ndr::Reader& in);
// Writes the header in front of an object call's results.
void writeOrpcThat(ndr::Writer& out, const OrpcThis& request);
// The protocol version as replies state it.
void writeComVersion(ndr::Writer& out);

// The contents of a marshalled interface pointer (behind its referent), unexamined.
std::span<const std::uint8_t> readInterfacePointer(ndr::Reader& in);

// Where one interface of one object is found and how many references the client was given with it.
// All zero stands for "none".
struct ObjectReference {
    std::uint32_t publicReferences = 0;
    std::uint64_t oxid = 0;
    std::uint64_t oid = 0;
    Uuid ipid;
};

inline constexpr std::size_t objectReferenceSize = 40;

// Written field after field without alignment to 8, as it stands inside packed object references;
// in a structure the caller aligns to 8 first.
void writeObjectReference(ndr::Writer& out, const ObjectReference& reference);

// The addresses of a port, and the log-on services that it offers: NTLM, and Kerberos where there are keys for it.
class Bindings {
 public:
    // The address that the client dialled is the first entry, because clients look for the text that they were
    // given and take the first that fits, and the last one again, because other clients fall back to the last.
    // hostNames: further names of this machine; "localhost" stands beside them only for a client that dialled a
    // loopback address, because any other one would look for the server on its own machine.
    // port 0: entries without port, which means the well-known activation port.
    // principal: what clients ask tickets for ("host/opc.plant.example"); empty: no Kerberos.
    Bindings(const std::string& dialledAddress, const std::vector<std::string>& hostNames, std::uint16_t port,
             const std::string& principal = {});

    // Number of 16-bit units behind the two leading counts.
    std::uint32_t units() const { return static_cast<std::uint32_t>(units_.size()); }
    // Size in bytes as write() leaves it.
    std::uint32_t byteSize() const { return 4 + 2 * units(); }
    void write(ndr::Writer& out) const;
    // The same as the target of a unique pointer: referent, conformance, contents.
    void writePointed(ndr::Writer& out) const;

 private:
    void addEntry(const std::string& address, std::uint16_t port);
    void addService(std::uint16_t service, const std::string& principal);
    void addText(std::string_view text);

    std::vector<std::uint16_t> units_;
    std::uint16_t securityOffset_ = 0;
};

// Writes an interface pointer behind its referent: length twice, then the packed object reference.
void writeMarshalledReference(ndr::Writer& out, const Uuid& iid, const ObjectReference& reference,
                              const Bindings& resolver);

}  // namespace quelm::dcom::orpc
