#pragma once

// A client's server object: its groups, its status, its locale, and its own place in the browse hierarchy.
// It counts as a client from its construction to its destruction.

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "budget/ClientBudget.h"
#include "opcda/Application.h"
#include "opcda/Browser.h"
#include "opcda/Callbacks.h"
#include "opcda/Connections.h"
#include "opcda/ElementBrowser.h"
#include "opcda/Enumerators.h"
#include "opcda/Group.h"
#include "opcda/HResults.h"
#include "opcda/ItemIO.h"
#include "opcda/Properties.h"
#include "slikda/SLIKNetwork.h"

namespace quelm::opcda {

// Numbers of the interface's enumeration.
enum class ServerState : std::uint16_t { running = 1, communicationFault = 6 };

struct ServerStatus {
    std::int64_t startTime = 0;       // UTC, FILETIME
    std::int64_t currentTime = 0;     // UTC, FILETIME
    std::int64_t lastUpdateTime = 0;  // UTC, FILETIME; 0: no data sent to this client yet
    // A communication fault: nothing that the items are fed from can be reached.
    ServerState state = ServerState::running;
    std::uint32_t groupCount = 0;
    std::uint32_t bandWidth = 0xFFFFFFFF;  // not known
    std::uint16_t majorVersion = 0;
    std::uint16_t minorVersion = 0;
    std::uint16_t buildNumber = 0;
    std::string_view vendor;
};

// When data last went to a client.
class LastUpdate {
 public:
    void note();
    std::int64_t fileTime() const { return fileTime_; }  // UTC, FILETIME; 0: never

 private:
    std::int64_t fileTime_ = 0;
};

struct GroupRequest {
    std::string_view name;  // "": the server makes one
    bool active = false;
    std::uint32_t updateRate = 0;  // milliseconds; 0: as fast as possible
    std::uint32_t clientHandle = 0;
    std::optional<std::int32_t> timeBias;  // minutes; none: of the local time zone
    std::optional<float> percentDeadband;  // none: 0
    std::uint32_t localeId = 0;
};

// Numbers of the interface's enumeration. There are no public groups: their scopes are empty.
enum class EnumScope : std::uint16_t {
    privateConnections = 1,
    publicConnections = 2,
    allConnections = 3,
    privateGroups = 4,
    publicGroups = 5,
    allGroups = 6,
};

inline constexpr std::uint32_t localeEnglish = 0x0409;
inline constexpr std::uint32_t localeSystemDefault = 0x0800;
inline constexpr std::uint32_t localeNeutral = 0x0400;

class Server {
 public:
    // Bytes that a server object takes: itself, its object with its interfaces, the books about them; and each of its
    // sinks.
    static constexpr std::size_t footprint = 4096;
    static constexpr std::size_t sinkFootprint = 1024;

    // budget: where what the client holds is counted; none: a budget of its own.
    explicit Server(Application& application, std::shared_ptr<ClientBudget> budget = nullptr);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // False: it came when the server was already going, serves nobody and does not count.
    bool isAdmitted() const { return isAdmitted_; }

    // S_OK or OPC_S_UNSUPPORTEDRATE with the group; OPC_E_DUPLICATENAME; E_INVALIDARG for a deadband outside 0 to 100
    // or a name that is too long; E_OUTOFMEMORY when the client has as many groups as it may, or no room for one.
    HResult addGroup(const GroupRequest& request, std::shared_ptr<Group>& group);
    // E_INVALIDARG when there is no such group. Names count with their case.
    HResult groupByName(std::string_view name, std::shared_ptr<Group>& group) const;
    // E_INVALIDARG for an unknown handle. The group is gone in every case: its items and sinks are let go of, its name
    // is free again, and who still holds it gets E_FAIL from each call. inUse: the client holds an interface of it;
    // without force that gives OPC_S_INUSE.
    HResult removeGroup(std::uint32_t serverHandle, bool force, bool inUse);
    // A copy with new handles and inactive; name "": the server makes one. Refused as addGroup does.
    HResult cloneGroup(const Group& group, std::string_view name, std::shared_ptr<Group>& clone);
    // For CreateGroupEnumerator. E_INVALIDARG for an unknown scope; S_FALSE for an empty list; E_OUTOFMEMORY when the
    // client's budget has no room for the names.
    HResult groups(std::uint16_t scope, std::vector<std::shared_ptr<Group>>& list) const;
    HResult groupNames(std::uint16_t scope, StringEnumerator& names) const;
    std::size_t groupCount() const { return groups_.size(); }
    // The first one whose handle is greater, for who looks at some at a time; nullptr: there is none.
    const Group* groupAfter(std::uint32_t serverHandle) const {
        const auto next = groups_.upper_bound(serverHandle);
        return next == groups_.end() ? nullptr : next->second.get();
    }

    ServerStatus status() const;
    // S_OK with the text; E_INVALIDARG for a code or a locale that is not known.
    HResult errorString(HResult error, std::uint32_t localeId, std::string_view& text) const;

    HResult setLocale(std::uint32_t localeId);  // E_INVALIDARG when not among the available ones
    std::uint32_t locale() const { return localeId_; }
    static std::span<const std::uint32_t> availableLocales();
    // For diagnosis only; the first 256 characters are kept.
    void setClientName(std::string_view name);
    const std::string& clientName() const { return clientName_; }

    // A sink for the notice that the server stops. CONNECT_E_ADVISELIMIT; E_OUTOFMEMORY when the client's budget has no
    // room for it.
    HResult advise(std::unique_ptr<IShutdownSink> sink, std::uint32_t& cookie);
    // CONNECT_E_NOCONNECTION for an unknown cookie.
    HResult unadvise(std::uint32_t cookie);
    void requestShutdown(std::string_view reason) const;

    Application& application() { return *application_; }
    const std::shared_ptr<ClientBudget>& budget() const { return budget_; }
    Browser& browser() { return browser_; }
    const ElementBrowser& elementBrowser() const { return elementBrowser_; }
    const Properties& properties() const { return properties_; }
    ItemIO& itemIO() { return itemIO_; }

    // To be told by whoever sends data to this client, which may be after the server object's end.
    const std::shared_ptr<LastUpdate>& lastUpdate() const { return lastUpdate_; }

 private:
    friend class Group;
    bool isNameTaken(std::string_view name) const { return byName_.contains(name); }
    HResult checkName(std::string_view name) const;
    std::string unusedName();
    HResult insert(std::string_view name, const GroupState& state, std::shared_ptr<Group>& group);
    void rename(Group& group, std::string_view name);

    Application* application_;
    bool isAdmitted_;
    std::shared_ptr<ClientBudget> budget_;
    Hold memory_;
    PlantAccess plant_;
    std::map<std::uint32_t, std::shared_ptr<Group>> groups_;  // by handle, which is the order of making
    std::unordered_map<std::string_view, Group*> byName_;     // the names stand in the groups
    std::uint32_t lastNumber_ = 0;
    std::shared_ptr<LastUpdate> lastUpdate_ = std::make_shared<LastUpdate>();
    std::uint32_t localeId_ = localeSystemDefault;
    std::string clientName_;
    Browser browser_;
    ElementBrowser elementBrowser_;
    Properties properties_;
    ItemIO itemIO_;
    Connections<IShutdownSink> shutdownSinks_;
};

}  // namespace quelm::opcda
