#pragma once

// An OPC server as a program wants it: its status, its items, their properties and values, whatever version of OPC DA
// it speaks. Uses OPC DA 3.0 where the server has it, else 2.0, and says what it uses.
//
//     quelm::AsioLoop loop;
//     dcom::client::Session session(loop, "10.0.0.5", {dcom::client::account("PLANT", "reader", password)});
//     OpcSession opc(session, classOf(session, "Vendor.Server.1"));
//     for (const ItemValue& item : opc.read({"Unit1.Temperature", "Unit1.Flow"})) {
//         std::cout << item.itemId << " = " << textOf(item.value) << ' ' << qualityText(item.quality) << '\n';
//     }
//
// Everything throws dcom::client::Trouble where the server cannot be reached or does not answer, and OpcError where it
// answers a call as a whole with a failure. What is taken on the server is let go of by the destructors, in order.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "opcda/client/BrowseStubs.h"
#include "opcda/client/CallbackHost.h"
#include "opcda/client/EnumeratorStubs.h"
#include "opcda/client/OpcError.h"
#include "opcda/client/ServerStubs.h"
#include "opcda/client/Value.h"

namespace quelm::opcda::client {

// A reading of an item.
struct ItemValue {
    std::string itemId;
    Value value;
    std::uint16_t quality = 0;
    std::int64_t fileTime = 0;  // UTC, 100-nanosecond units since 1601-01-01
    HResult result{};           // a failure: the item has no value, quality or time stamp
};

struct BrowseOptions {
    std::string start = {};  // an item id of a branch; empty: the root
    std::string filter =
        {};              // on names: * ? # [list]; empty: all. Branches are passed through, whatever they are called
    unsigned depth = 0;  // levels below the start; 0: all
    bool itemsOnly = false;
    bool avoidBrowse3 = false;  // by IOPCBrowseServerAddressSpace even where the server has IOPCBrowse
    // So many elements were read so far: a large branch is read whole before its first element is given.
    std::function<void(std::size_t elements)> onProgress = {};
    // A branch below the start that the server refuses to browse; without a handler it ends the browsing with OpcError.
    std::function<void(const std::string& itemId, HResult result)> onRefused = {};
};

struct BrowsedElement {
    std::string name = {};
    std::string itemId = {};
    unsigned level = 0;  // 0: directly below the start
    bool isItem = false;
    bool hasChildren = false;
};

struct ItemProperties {
    std::string itemId;
    HResult result{};  // a failure: the item is not known
    std::vector<Property> properties;
};

class OpcSession {
 public:
    struct Options {
        // Told which interface serves what, a line each time.
        std::function<void(const std::string&)> note;
        // For the server's books, by IOPCCommon where it has that; empty: none.
        std::string clientName;
    };
    // What the server object offers.
    struct Offers {
        bool common = false;
        bool browse2 = false;         // IOPCBrowseServerAddressSpace
        bool itemProperties = false;  // IOPCItemProperties
        bool browse3 = false;         // IOPCBrowse
        bool itemIo = false;          // IOPCItemIO
        bool connectionPoints = false;
        // "OPC DA 3.0", "OPC DA 2.0", "OPC DA 1.0".
        std::string_view version() const;
    };
    // False: enough.
    using OnElement = std::function<bool(const BrowsedElement&)>;

    // Makes a server object of the class. The session outlives it.
    OpcSession(dcom::client::Session& session, const Uuid& classId, Options options = {});
    // Over a server object that is there already, by any interface of it.
    OpcSession(const Interface& server, std::unique_ptr<ICallbackHost> callbacks, Options options = {});
    ~OpcSession();
    OpcSession(const OpcSession&) = delete;
    OpcSession& operator=(const OpcSession&) = delete;

    const IOPCServer& server() const { return server_; }
    const Offers& offers() const { return offers_; }
    ICallbackHost& callbacks() const { return *callbacks_; }
    void note(const std::string& line) const;

    ServerStatus status() const;
    // The server's own text of a result, in its language; ours where it has none.
    std::string errorText(HResult result) const;

    // Each element once, a branch before what is in it. At most 10,000,000 elements and 64 levels; more, and a server
    // that leads in circles, end with OpcError.
    void browse(const BrowseOptions& options, const OnElement& onElement) const;
    // All properties of each item, in their order.
    std::vector<ItemProperties> properties(std::span<const std::string> itemIds) const;

    // The items in their order. maxAge: milliseconds; fromDevice asks the plant, fromCache takes what the server has.
    // A server of before 3.0 reads from the device for every other age too.
    std::vector<ItemValue> read(std::span<const std::string> itemIds, std::uint32_t maxAge = fromDevice) const;

    // Calls the handler when the server says good-bye. False: the server has no such thing, or refused.
    bool onShutdown(std::function<void(const std::string& reason)> handler);

 private:
    struct GoodBye;

    void lookAround();
    void readItems(const IOPCItemIO& itemIo, std::span<const std::string> itemIds, std::uint32_t maxAge,
                   std::vector<ItemValue>& values) const;

    IOPCServer server_;
    std::unique_ptr<ICallbackHost> callbacks_;
    Options options_;
    Offers offers_;
    // What the server object offers, held as long as it is.
    Maybe<IOPCCommon> common_;
    Maybe<IOPCBrowseServerAddressSpace> browse2_;
    Maybe<IOPCItemProperties> itemProperties_;
    Maybe<IOPCBrowse> browse3_;
    Maybe<IOPCItemIO> itemIo_;
    Maybe<IConnectionPointContainer> connectionPoints_;
    std::unique_ptr<GoodBye> goodBye_;
};

}  // namespace quelm::opcda::client
