#include "opcda/client/OpcSession.h"

#include <algorithm>
#include <array>

#include "opcda/client/Browsing.h"
#include "opcda/client/ItemGroup.h"
#include "opcda/client/Readings.h"
#include "opcda/client/Sinks.h"

namespace quelm::opcda::client {

namespace {

// An item has dozens of properties with texts.
constexpr std::size_t itemsPerPropertyCall = 100;

constexpr std::uint32_t systemLocale = 0x0800;

Interface serverObject(dcom::client::Session& session, const Uuid& classId) {
    auto made = session.activate(classId, std::array{IOPCServer::iid});
    if (made.interfaces.empty() || !made.interfaces.front().second) {
        const HResult result = made.interfaces.empty() ? made.result : made.interfaces.front().first;
        throw OpcError("the request for a server object", failed(result) ? result : E_NOINTERFACE);
    }
    return *std::move(made.interfaces.front().second);
}

Interface asServer(const Interface& object) {
    if (object.iid() == IOPCServer::iid) {
        return object;
    }
    auto queried = object.query(IOPCServer::iid);
    if (!queried.interface) {
        throw OpcError("the question for IOPCServer", failed(queried.result) ? queried.result : E_NOINTERFACE);
    }
    return *std::move(queried.interface);
}

}  // namespace

// The client's object that is told of the server's end, from Advise to Unadvise.
struct OpcSession::GoodBye {
    explicit GoodBye(ICallbackHost& itsCallbacks) : callbacks(itsCallbacks) {}
    GoodBye(const GoodBye&) = delete;
    GoodBye& operator=(const GoodBye&) = delete;
    ~GoodBye() {
        try {
            if (point && cookie != 0) {
                point->Unadvise(cookie);
            }
        } catch (const std::exception&) {
            // A server that is gone needn't be told.
        }
        callbacks.withdraw(sink);
    }

    ICallbackHost& callbacks;
    ShutdownSink sink;
    Maybe<IConnectionPoint> point;
    std::uint32_t cookie = 0;
};

std::string_view OpcSession::Offers::version() const {
    return browse3 && itemIo ? "OPC DA 3.0" : connectionPoints ? "OPC DA 2.0" : "OPC DA 1.0";
}

OpcSession::OpcSession(dcom::client::Session& session, const Uuid& classId, Options options)
    : OpcSession(serverObject(session, classId), callbacksOf(session), std::move(options)) {}

OpcSession::OpcSession(const Interface& server, std::unique_ptr<ICallbackHost> callbacks, Options options)
    : server_(asServer(server)), callbacks_(std::move(callbacks)), options_(std::move(options)) {
    lookAround();
    note("The server speaks " + std::string(offers_.version()));
    if (common_ && !options_.clientName.empty()) {
        common_->SetClientName(options_.clientName);
    }
}

OpcSession::~OpcSession() = default;

void OpcSession::lookAround() {
    const Interface& object = server_.target();
    common_ = client::ask<IOPCCommon>(object).out;
    browse2_ = client::ask<IOPCBrowseServerAddressSpace>(object).out;
    itemProperties_ = client::ask<IOPCItemProperties>(object).out;
    browse3_ = client::ask<IOPCBrowse>(object).out;
    itemIo_ = client::ask<IOPCItemIO>(object).out;
    connectionPoints_ = client::ask<IConnectionPointContainer>(object).out;
    offers_ = {.common = common_.has_value(),
               .browse2 = browse2_.has_value(),
               .itemProperties = itemProperties_.has_value(),
               .browse3 = browse3_.has_value(),
               .itemIo = itemIo_.has_value(),
               .connectionPoints = connectionPoints_.has_value()};
}

void OpcSession::note(const std::string& line) const {
    if (options_.note) {
        options_.note(line);
    }
}

ServerStatus OpcSession::status() const {
    auto status = need(server_.GetStatus(), "the question for its status");
    if (!status) {
        throw OpcError("The server gave no status, and no reason for that");
    }
    return *std::move(status);
}

std::string OpcSession::errorText(HResult result) const {
    auto reply = server_.GetErrorString(result, systemLocale);
    const bool isThere = !failed(reply.result) && reply.out && !reply.out->empty();
    return isThere ? *std::move(reply.out) : resultText(result);
}

void OpcSession::browse(const BrowseOptions& options, const OnElement& onElement) const {
    if (browse3_ && !(options.avoidBrowse3 && browse2_)) {
        note("Browsing by IOPCBrowse (OPC DA 3.0)");
        browseBy(*browse3_, options, onElement);
    } else if (browse2_) {
        note("Browsing by IOPCBrowseServerAddressSpace (OPC DA 2.0)");
        browseBy(*browse2_, options, onElement);
    } else {
        throw OpcError(
            "The server cannot be browsed: it has neither IOPCBrowse nor IOPCBrowseServerAddressSpace. Its "
            "items can be read by their names");
    }
}

namespace {

ItemProperties propertiesOf(const IOPCItemProperties& stub, const std::string& itemId) {
    ItemProperties item{itemId, {}, {}};
    const auto available = stub.QueryAvailableProperties(itemId);
    item.result = available.result;
    if (failed(available.result) || !available.out.ids) {
        return item;
    }
    const std::vector<std::uint32_t>& ids = *available.out.ids;
    const auto values = stub.GetItemProperties(itemId, ids);
    for (std::size_t i = 0; i < ids.size(); ++i) {
        Property property;
        property.id = ids[i];
        property.type = available.out.types ? (*available.out.types)[i] : VT_EMPTY;
        if (available.out.descriptions) {
            property.description = (*available.out.descriptions)[i];
        }
        property.error = values.out.errors ? (*values.out.errors)[i] : values.result;
        if (values.out.values) {
            property.value = (*values.out.values)[i];
        }
        item.properties.push_back(std::move(property));
    }
    return item;
}

void readProperties(const IOPCBrowse& stub, std::span<const std::string> itemIds, std::vector<ItemProperties>& items) {
    auto lists = need(stub.GetProperties(itemIds, true, {}), "the question for properties");
    if (!lists) {
        throw OpcError("The server gave no properties, and no reason for that");
    }
    for (std::size_t i = 0; i < itemIds.size(); ++i) {
        ItemPropertyList& list = (*lists)[i];
        items.push_back({itemIds[i], list.error, std::move(list.properties).value_or(std::vector<Property>())});
    }
}

// calls(part): for one part of the items after the other.
template <class Calls>
void inParts(std::span<const std::string> itemIds, std::size_t size, Calls calls) {
    for (std::size_t first = 0; first < itemIds.size(); first += size) {
        calls(itemIds.subspan(first, std::min(size, itemIds.size() - first)));
    }
}

}  // namespace

std::vector<ItemProperties> OpcSession::properties(std::span<const std::string> itemIds) const {
    std::vector<ItemProperties> items;
    if (browse3_) {
        note("Properties by IOPCBrowse (OPC DA 3.0)");
        inParts(itemIds, itemsPerPropertyCall, [&](auto part) { readProperties(*browse3_, part, items); });
    } else if (itemProperties_) {
        note("Properties by IOPCItemProperties (OPC DA 2.0)");
        for (const std::string& itemId : itemIds) {
            items.push_back(propertiesOf(*itemProperties_, itemId));
        }
    } else {
        throw OpcError("The server tells no properties: it has neither IOPCBrowse nor IOPCItemProperties");
    }
    return items;
}

void OpcSession::readItems(const IOPCItemIO& itemIo, std::span<const std::string> itemIds, std::uint32_t maxAge,
                           std::vector<ItemValue>& values) const {
    const std::vector<std::uint32_t> ages(itemIds.size(), maxAge);
    auto readings = readingsOf(need(itemIo.Read(itemIds, ages), "the read of items"));
    for (std::size_t i = 0; i < itemIds.size(); ++i) {
        readings[i].itemId = itemIds[i];
        values.push_back(std::move(readings[i]));
    }
}

std::vector<ItemValue> OpcSession::read(std::span<const std::string> itemIds, std::uint32_t maxAge) const {
    std::vector<ItemValue> values;
    values.reserve(itemIds.size());
    if (itemIo_) {
        note("Reading by IOPCItemIO (OPC DA 3.0)");
        inParts(itemIds, itemsPerCall, [&](auto part) { readItems(*itemIo_, part, maxAge, values); });
        return values;
    }
    const ItemGroup group(*this, {itemIds.begin(), itemIds.end()}, 1000, maxAge == fromCache);
    return group.read(maxAge);
}

bool OpcSession::onShutdown(std::function<void(const std::string& reason)> handler) {
    goodBye_.reset();
    auto point = connectionPoints_ ? connectionPoints_->FindConnectionPoint(ShutdownSink::iid).out : std::nullopt;
    if (!point) {
        return false;
    }
    auto goodBye = std::make_unique<GoodBye>(*callbacks_);
    goodBye->sink.onShutdownRequest = std::move(handler);
    goodBye->point.emplace(*std::move(point));
    const auto advised = goodBye->point->Advise(callbacks_->exportObject(ShutdownSink::iid, goodBye->sink));
    if (failed(advised.result)) {
        return false;
    }
    goodBye->cookie = advised.out;
    goodBye_ = std::move(goodBye);
    return true;
}

}  // namespace quelm::opcda::client
