#pragma once

// The interfaces of a server object that have to do with the server itself and with groups, and those of the list of
// servers. Methods have the names and the order of parameters of OPC DA.

#include "opcda/client/Stub.h"
#include "opcda/wire/CommonInterface.h"
#include "opcda/wire/ServerInterface.h"
#include "opcda/wire/ServerListInterface.h"

namespace quelm::opcda::client {

// What AddGroup is given. Times in milliseconds.
struct GroupRequest {
    std::string name;  // empty: the server makes one
    bool active = true;
    std::uint32_t updateRate = 1000;
    std::uint32_t clientHandle = 0;
    std::optional<std::int32_t> timeBias;  // minutes; nothing: a null pointer, the server's own
    std::optional<float> percentDeadband;  // 0 to 100; nothing: a null pointer, none
    std::uint32_t localeId = 0x0409;
};

struct NewGroup {
    std::uint32_t serverHandle = 0;
    std::uint32_t revisedUpdateRate = 0;
    Maybe<Interface> group;
};

// Time stamps: UTC, 100-nanosecond units since 1601-01-01.
struct ServerStatus {
    std::int64_t startTime = 0;
    std::int64_t currentTime = 0;
    std::int64_t lastUpdateTime = 0;
    std::uint16_t state = 0;  // 1 running, 2 failed, 3 no configuration, 4 suspended, 5 test, 6 communication fault
    std::uint32_t groupCount = 0;
    std::uint32_t bandWidth = 0;  // FFFFFFFF: not known
    std::uint16_t majorVersion = 0;
    std::uint16_t minorVersion = 0;
    std::uint16_t buildNumber = 0;
    Maybe<std::string> vendorInfo;
};

enum class GroupScope : std::uint16_t {
    PrivateConnections = 1,
    PublicConnections,
    AllConnections,
    Private,
    Public,
    All,
};

class IOPCServer : public Stub {
 public:
    static constexpr Uuid iid = wire::iidOpcServer;
    using Stub::Stub;

    // groupIid: the interface by which the group is wanted.
    Reply<NewGroup> AddGroup(const GroupRequest& request, const Uuid& groupIid) const;
    Reply<Maybe<std::string>> GetErrorString(HResult error, std::uint32_t localeId) const;
    Reply<Maybe<Interface>> GetGroupByName(std::string_view name, const Uuid& groupIid) const;
    Reply<Maybe<ServerStatus>> GetStatus() const;
    HResult RemoveGroup(std::uint32_t serverHandle, bool force) const;
    // By IEnumString or IEnumUnknown. The scope may be a number that is none.
    Reply<Maybe<Interface>> CreateGroupEnumerator(GroupScope scope, const Uuid& enumeratorIid) const;
};

class IOPCCommon : public Stub {
 public:
    static constexpr Uuid iid = wire::iidOpcCommon;
    using Stub::Stub;

    HResult SetLocaleID(std::uint32_t localeId) const;
    Reply<std::uint32_t> GetLocaleID() const;
    Reply<Maybe<std::vector<std::uint32_t>>> QueryAvailableLocaleIDs() const;
    Reply<Maybe<std::string>> GetErrorString(HResult error) const;
    HResult SetClientName(std::string_view name) const;
};

// The class of the list of servers, and the categories by which it lists them.
inline constexpr Uuid serverListClass = Uuid::parse("13486D51-4821-11D2-A494-3CB306C10000");
inline constexpr Uuid categoryDa1 = Uuid::parse("63D5F430-CFE4-11D1-B2C8-0060083BA1FB");
inline constexpr Uuid categoryDa2 = Uuid::parse("63D5F432-CFE4-11D1-B2C8-0060083BA1FB");
inline constexpr Uuid categoryDa3 = Uuid::parse("CC603642-66D7-48F1-B69A-B625E73652D7");

struct ClassDetails {
    Maybe<std::string> progId;
    Maybe<std::string> userType;
    Maybe<std::string> versionIndependentProgId;  // of IOPCServerList2 only
};

// The younger one has one more text of each class, and enumerates by IOPCEnumGUID.
template <bool younger>
class ServerListStub : public Stub {
 public:
    static constexpr Uuid iid = younger ? wire::iidOpcServerList2 : wire::iidOpcServerList;
    static constexpr Uuid enumeratorIid = younger ? wire::iidOpcEnumGuid : wire::iidEnumGuid;
    using Stub::Stub;

    Reply<Maybe<Interface>> EnumClassesOfCategories(std::span<const Uuid> implemented,
                                                    std::span<const Uuid> required) const;
    Reply<ClassDetails> GetClassDetails(const Uuid& classId) const;
    Reply<Uuid> CLSIDFromProgID(std::string_view progId) const;
};

extern template class ServerListStub<false>;
extern template class ServerListStub<true>;

using IOPCServerList = ServerListStub<false>;
using IOPCServerList2 = ServerListStub<true>;

}  // namespace quelm::opcda::client
