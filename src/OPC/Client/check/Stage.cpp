#include "OPC/Client/check/Stage.h"

#include <algorithm>
#include <array>

#include "base/TimeSource.h"

namespace quelm::opcclient::check {

using namespace opcda::client;
using dcom::client::Trouble;

namespace {

// More items than any case uses, so that some of each type are among them; few enough for a slow line.
constexpr std::size_t mostItems = 300;

struct Named {
    const Uuid& iid;
    const char* name;
};

const std::array<Named, 22> named{{{IOPCServer::iid, "IOPCServer"},
                                   {IOPCCommon::iid, "IOPCCommon"},
                                   {IOPCBrowseServerAddressSpace::iid, "IOPCBrowseServerAddressSpace"},
                                   {IOPCItemProperties::iid, "IOPCItemProperties"},
                                   {IOPCBrowse::iid, "IOPCBrowse"},
                                   {IOPCItemIO::iid, "IOPCItemIO"},
                                   {IConnectionPointContainer::iid, "IConnectionPointContainer"},
                                   {IConnectionPoint::iid, "IConnectionPoint"},
                                   {IOPCGroupStateMgt::iid, "IOPCGroupStateMgt"},
                                   {IOPCGroupStateMgt2::iid, "IOPCGroupStateMgt2"},
                                   {IOPCItemMgt::iid, "IOPCItemMgt"},
                                   {IOPCSyncIO::iid, "IOPCSyncIO"},
                                   {IOPCSyncIO2::iid, "IOPCSyncIO2"},
                                   {IOPCAsyncIO2::iid, "IOPCAsyncIO2"},
                                   {IOPCAsyncIO3::iid, "IOPCAsyncIO3"},
                                   {IOPCItemDeadbandMgt::iid, "IOPCItemDeadbandMgt"},
                                   {IOPCItemSamplingMgt::iid, "IOPCItemSamplingMgt"},
                                   {IOPCServerList::iid, "IOPCServerList"},
                                   {IOPCServerList2::iid, "IOPCServerList2"},
                                   {IEnumString::iid, "IEnumString"},
                                   {IEnumUnknown::iid, "IEnumUnknown"},
                                   {IEnumOPCItemAttributes::iid, "IEnumOPCItemAttributes"}}};

// Items by full ids, from either way of browsing.
std::vector<std::string> flatItems(const Interface& server) {
    std::vector<std::string> ids;
    if (const auto browse = ask<IOPCBrowseServerAddressSpace>(server).out) {
        const auto reply = browse->BrowseOPCItemIDs(BrowseType::Flat, "", VT_EMPTY, 0);
        if (reply.result == S_OK && reply.out) {
            ids = IEnumString(*reply.out).Next(mostItems).out;
        }
    }
    return ids;
}

std::vector<std::string> itemsBelow(const Interface& server) {
    std::vector<std::string> ids;
    const auto browse = ask<IOPCBrowse>(server).out;
    std::vector<std::string> branches{""};
    for (std::size_t next = 0; browse && next < branches.size() && next < mostItems && ids.size() < mostItems; ++next) {
        BrowseRequest request;
        request.itemId = branches[next];
        request.maxElements = mostItems;
        const auto reply = browse->Browse(request);
        if (reply.result != S_OK || !reply.out.elements) {
            continue;
        }
        for (const BrowseElement& element : *reply.out.elements) {
            if ((element.flags & BrowseElement::isItem) != 0) {
                ids.push_back(element.itemId.value_or(""));
            }
            if ((element.flags & BrowseElement::hasChildren) != 0) {
                branches.push_back(element.itemId.value_or(""));
            }
        }
    }
    return ids;
}

}  // namespace

std::string interfaceName(const Uuid& iid) {
    const auto row = std::find_if(named.begin(), named.end(), [&iid](const Named& each) { return each.iid == iid; });
    return row == named.end() ? iid.toText() : row->name;
}

Sink::Sink(Session& session, const Interface& group) : session_(session) {
    sink_.onDataChange = [this](const DataEvent& event) { take(Called::Kind::DataChange, event); };
    sink_.onReadComplete = [this](const DataEvent& event) { take(Called::Kind::ReadComplete, event); };
    sink_.onWriteComplete = [this](const WriteEvent& event) {
        DataEvent data{event.transaction, event.clientGroup, S_OK, event.masterError, {}};
        for (const WriteEvent::Item& item : event.items) {
            data.items.push_back({item.clientHandle, {}, 0, 0, item.error});
        }
        take(Called::Kind::WriteComplete, data);
    };
    sink_.onCancelComplete = [this](const CancelEvent& event) {
        take(Called::Kind::Cancel, DataEvent{event.transaction, event.clientGroup, S_OK, S_OK, {}});
    };
    const auto container = ask<IConnectionPointContainer>(group);
    result_ = container.result;
    if (!container.out) {
        return;
    }
    const auto found = container.out->FindConnectionPoint(DataSink::iid);
    result_ = found.result;
    if (found.out) {
        point_.emplace(*found.out);
        const auto reply = point_->Advise(session.exportObject(DataSink::iid, sink_));
        result_ = reply.result;
        cookie_ = reply.out;
    }
}

Sink::~Sink() {
    session_.withdraw(sink_);
}

void Sink::take(Called::Kind kind, const DataEvent& event) {
    calls_.push_back({kind, event, timeSource().monotonicMilliseconds()});
}

HResult Sink::unadvise() {
    return point_ ? point_->Unadvise(cookie_) : result_;
}

Stage::Stage(AsioLoop& loop, Target target) : loop_(loop), target_(std::move(target)) {
    timer_ = loop_.makeTimer([this] {
        timeIsUp_ = true;
        interrupt();
    });
    findItems();
}

Stage::~Stage() = default;

Session& Stage::session() {
    if (!session_) {
        session_ = target_.connect();
    }
    return *session_;
}

Session& Stage::otherSession() {
    if (!other_) {
        other_ = target_.connect();
    }
    return *other_;
}

void Stage::killOther() {
    otherSession().abandon();
}

void Stage::begin(std::chrono::milliseconds limit) {
    timeIsUp_ = false;
    timer_->start(limit);
}

void Stage::end() noexcept {
    timer_->stop();
    server_.reset();
    other_.reset();
}

void Stage::interrupt() {
    for (Session* each : {session_.get(), other_.get()}) {
        if (each != nullptr) {
            each->interrupt();
        }
    }
}

void Stage::reconnect() {
    session_.reset();
}

const Interface& Stage::server() {
    if (!server_) {
        server_ = newServer(session());
    }
    return *server_;
}

Interface Stage::newServer(Session& session) {
    const std::array wanted{IOPCServer::iid};
    const auto made = session.activate(target_.classId, wanted);
    if (made.interfaces.empty() || !made.interfaces.front().second) {
        throw Trouble(Trouble::Kind::Fault, session.serverAddress(), "the server made no object with IOPCServer",
                      static_cast<std::uint32_t>(made.result));
    }
    return *made.interfaces.front().second;
}

Group Stage::groupOn(const Interface& server, const GroupRequest& request) {
    auto reply = as<IOPCServer>(server).AddGroup(request, IOPCItemMgt::iid);
    need(!failed(reply.result) && reply.out.group, "AddGroup: " + resultName(reply.result));
    return {std::move(*reply.out.group), reply.out.serverHandle, reply.out.revisedUpdateRate, {}};
}

Group Stage::group(const GroupRequest& request) {
    return groupOn(server(), request);
}

Group Stage::groupOf(std::size_t items, const GroupRequest& request) {
    std::vector<std::string> ids;
    ids.reserve(items);
    for (std::size_t i = 0; i < items; ++i) {
        ids.push_back(item(i).id);
    }
    return groupWith(ids, request);
}

Group Stage::groupWith(const std::vector<std::string>& ids, const GroupRequest& request, VarType type) {
    Group made = group(request);
    std::vector<ItemDefinition> definitions;
    definitions.reserve(ids.size());
    for (const std::string& id : ids) {
        definitions.push_back({id, "", true, 100 + static_cast<std::uint32_t>(definitions.size()), type, {}});
    }
    const auto reply = as<IOPCItemMgt>(made.state).AddItems(definitions);
    need(reply.result == S_OK && reply.out.items && reply.out.items->size() == ids.size(),
         "AddItems: " + resultName(reply.result));
    for (const ItemResult& result : *reply.out.items) {
        made.items.push_back(result.serverHandle);
    }
    return made;
}

const KnownItem& Stage::item(std::size_t index) {
    if (index >= items_.size()) {
        findings_->skip(fmt::format("the server has fewer than {} items that can be read", index + 1));
    }
    return items_[index];
}

const KnownItem& Stage::itemWhere(const std::function<bool(const KnownItem&)>& fits, std::string_view what) {
    const auto found = std::find_if(items_.begin(), items_.end(), fits);
    if (found == items_.end()) {
        findings_->skip(fmt::format("no item was found that is {}", what));
    }
    return *found;
}

void Stage::wait(std::chrono::milliseconds time) {
    session().run(time);
}

bool Stage::waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    return session().runUntil(condition, limit);
}

void Stage::findItems() {
    const Interface server = newServer(session());
    std::vector<std::string> ids = flatItems(server);
    if (ids.empty()) {
        ids = itemsBelow(server);
    }
    // Those that the user has named come first, and once.
    const auto isNamed = [this](const std::string& id) {
        return std::find(target_.items.begin(), target_.items.end(), id) != target_.items.end();
    };
    std::erase_if(ids, isNamed);
    ids.insert(ids.begin(), target_.items.begin(), target_.items.end());
    server_ = server;
    describe(std::move(ids));
    server_.reset();
}

void Stage::describe(std::vector<std::string> ids) {
    Findings findings;  // a server that cannot even do this has no known items, which the cases say then
    use(findings);
    try {
        const Group made = group();
        std::vector<ItemDefinition> definitions;
        definitions.reserve(ids.size());
        for (std::string& id : ids) {
            definitions.push_back({std::move(id), "", true, 0, VT_EMPTY, {}});
        }
        const auto added = as<IOPCItemMgt>(made.state).AddItems(definitions);
        const std::size_t known = added.out.items && added.out.errors ? definitions.size() : 0;
        std::vector<std::uint32_t> handles;
        for (std::size_t i = 0; i < known; ++i) {
            const ItemResult& item = (*added.out.items)[i];
            if ((*added.out.errors)[i] == S_OK && (item.accessRights & 1U) != 0) {
                handles.push_back(item.serverHandle);
                items_.push_back({definitions[i].itemId, item.canonicalType, item.accessRights, {}, 0});
            }
        }
        const auto read = as<IOPCSyncIO>(made.state).Read(Source::Device, handles);
        need(read.out.items && read.out.items->size() == handles.size(), "Read: " + resultName(read.result));
        for (std::size_t i = 0; i < handles.size(); ++i) {
            items_[i].value = (*read.out.items)[i].value;
            items_[i].quality = (*read.out.items)[i].quality;
        }
    } catch (const Findings::Stop&) {
        items_.clear();
    }
    findings_ = nullptr;
}

}  // namespace quelm::opcclient::check
