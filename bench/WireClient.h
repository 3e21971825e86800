#pragma once

// The least that an OPC client needs to read groups over the network and subscribe to them: blocking sockets, a log-on,
// an activation, groups with their items. Requests are made beforehand, so that what is measured is the server and the
// way to it.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "dcom/ndr/Reader.h"
#include "dcom/ndr/Writer.h"
#include "opcda/wire/InterfaceTable.h"
#include "rpc/RpcClient.h"

namespace quelm::bench {

using Bytes = std::vector<std::uint8_t>;
namespace rpc = dcom::rpc;

inline void expect(bool condition, const char* what) {
    if (!condition) {
        throw std::runtime_error(what);
    }
}

class Socket {
 public:
    // from: which of this machine's loopback addresses the client comes from.
    explicit Socket(std::uint16_t port, std::uint32_t from = INADDR_LOOPBACK)
        : descriptor_(::socket(AF_INET, SOCK_STREAM, 0)) {
        const int on = 1;
        ::setsockopt(descriptor_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(from);
        expect(::bind(descriptor_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0, "cannot bind");
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        expect(::connect(descriptor_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0, "cannot connect");
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    ~Socket() { ::close(descriptor_); }

    void send(std::span<const std::uint8_t> data) const {
        while (!data.empty()) {
            const ssize_t count = ::send(descriptor_, data.data(), data.size(), MSG_NOSIGNAL);
            expect(count > 0, "the server went away");
            data = data.subspan(static_cast<std::size_t>(count));
        }
    }
    std::size_t receive(std::span<std::uint8_t> space) const {
        const ssize_t count = ::recv(descriptor_, space.data(), space.size(), 0);
        expect(count > 0, "the server went away");
        return static_cast<std::size_t>(count);
    }

 private:
    int descriptor_;
};

// One connection with one log-on.
class Connection {
 public:
    Connection(std::uint16_t port, unsigned level, std::string_view password, const std::vector<Uuid>& interfaces,
               std::uint32_t from = INADDR_LOOPBACK)
        : socket_(port, from), level_(level), logOn_(rpc::test::NtlmLogOn::Kind::V2, "reader", password) {
        std::vector<rpc::test::Offer> offers;
        for (const Uuid& interface : interfaces) {
            offers.push_back({static_cast<std::uint16_t>(offers.size()), interface});
        }
        socket_.send(rpc::test::pdu(rpc::PduType::Bind, 3, 1, rpc::test::bindBody(offers, fragmentSize),
                                    {level_, contextId, logOn_.negotiate()}));
        const auto answer = rpc::test::splitReplies(receiveReply());
        expect(answer.size() == 1 && answer[0].type() == rpc::PduType::BindAck, "the server refused to bind");
        socket_.send(rpc::test::pdu(rpc::PduType::Auth3, 3, 1, Bytes(4),
                                    {level_, contextId, logOn_.authenticate(answer[0].token())}));
    }

    // The request's PDUs, protected as the level asks for: in this order they must be sent.
    Bytes encode(std::uint16_t interface, std::uint16_t opnum, const Uuid* object, std::span<const std::uint8_t> stub) {
        constexpr std::size_t piece = 5'600;
        Bytes result;
        for (std::size_t at = 0; at == 0 || at < stub.size(); at += piece) {
            const auto part = stub.subspan(at, std::min(piece, stub.size() - at));
            rpc::test::CallParts call{2, interface, opnum, {part.begin(), part.end()}, 0, std::nullopt};
            call.flags = (at == 0 ? rpc::flagFirst : 0U) | (at + piece >= stub.size() ? rpc::flagLast : 0U);
            if (object != nullptr) {
                call.object = *object;
            }
            const Bytes pdu = level_ >= 5 ? rpc::test::protectedRequest(call, level_, contextId, logOn_)
                                          : rpc::test::request(call, level_, contextId);
            result.insert(result.end(), pdu.begin(), pdu.end());
        }
        return result;
    }

    // Sends a request and takes the whole reply, without a look at what is in it. Gives its PDUs.
    std::span<const std::uint8_t> exchange(std::span<const std::uint8_t> request) {
        socket_.send(request);
        return receiveReply();
    }

    // A call before the measurement: the results behind the header that all object calls have.
    Bytes call(std::uint16_t interface, std::uint16_t opnum, const Uuid* object, std::span<const std::uint8_t> stub) {
        const std::size_t size = exchange(encode(interface, opnum, object, stub)).size();
        Bytes results;
        results.reserve(size);
        for (std::size_t at = 0; at < size;) {
            rpc::Header header;
            const auto rest = std::span(reply_).subspan(at, size - at);
            expect(rpc::parseHeader(rest, header) == dcom::RefusalReason::None && header.type == rpc::PduType::Response,
                   "a call failed");
            const auto part = opened(rest.first(header.fragmentLength), header);
            results.insert(results.end(), part.begin(), part.end());
            at += header.fragmentLength;
        }
        return results;
    }

 private:
    static constexpr std::uint32_t contextId = 7;
    static constexpr unsigned fragmentSize = 5'840;

    static std::size_t trailerOf(const rpc::Header& header) {
        return header.authLength == 0 ? 0 : rpc::trailerSize + header.authLength;
    }

    // The stub data of a PDU, in place.
    std::span<const std::uint8_t> opened(std::span<std::uint8_t> pdu, const rpc::Header& header) {
        if (level_ < 5) {
            return pdu.subspan(rpc::callHeaderSize, pdu.size() - rpc::callHeaderSize - trailerOf(header));
        }
        rpc::AuthTrailer trailer;
        expect(rpc::parseTrailer(pdu, header, rpc::callHeaderSize, trailer) && trailer.level == level_,
               "a reply is not protected");
        const auto covered = pdu.first(pdu.size() - header.authLength);
        const auto stub = covered.subspan(rpc::callHeaderSize, trailer.offset - rpc::callHeaderSize);
        expect(level_ == 6 ? logOn_.security().unseal(covered, stub, trailer.token)
                           : logOn_.security().verify(covered, trailer.token),
               "a reply's protection is wrong");
        return stub.first(stub.size() - trailer.padLength);
    }

    std::span<const std::uint8_t> receiveReply() {
        constexpr std::uint8_t last = rpc::flagLast;
        std::size_t filled = 0;
        std::size_t fragment = 0;
        for (;;) {
            if (reply_.size() - filled < (256U << 10U)) {
                reply_.resize(2 * reply_.size() + (1U << 20U));
            }
            filled += socket_.receive(std::span(reply_).subspan(filled));
            while (filled - fragment >= rpc::headerSize) {
                const std::size_t size = reply_[fragment + 8] + 256U * reply_[fragment + 9];
                if (filled - fragment < size) {
                    break;
                }
                const bool isLast = (reply_[fragment + 3] & last) != 0;
                fragment += size;
                if (isLast) {
                    return std::span(reply_).first(fragment);
                }
            }
        }
    }

    Socket socket_;
    unsigned level_;
    rpc::test::NtlmLogOn logOn_;
    Bytes reply_;
};

// The parameters of an object call behind the header that all of them have.
class Call {
 public:
    Call() : out(bytes) {
        out.u16(5);
        out.u16(7);
        out.u32(0);
        out.u32(0);
        out.uuid(Uuid::parse("0A0B0C0D-0102-0304-0506-0708090A0B0C"));
        out.u32(0);
    }
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    Bytes bytes;
    dcom::ndr::Writer out;
};

// A client with its server object, which makes groups.
class OpcClient {
 public:
    // from: as for Socket.
    OpcClient(std::uint16_t activationPort, std::uint16_t objectPort, unsigned level, std::string_view password,
              std::uint32_t from = INADDR_LOOPBACK)
        : connection_(
              objectPort, level, password,
              {opcda::wire::iidOpcServer, opcda::wire::iidOpcItemMgt, opcda::wire::iidOpcSyncIo,
               opcda::wire::iidConnectionPointContainer, opcda::wire::iidConnectionPoint, dcom::orpc::iidRemUnknown,
               opcda::wire::iidOpcBrowse, opcda::wire::iidOpcBrowseServerAddressSpace,
               opcda::wire::iidOpcItemProperties, opcda::wire::iidEnumString, opcda::wire::iidOpcSyncIo2},
              from) {
        activate(activationPort, level, password, from);
    }

    // Lets go of the server, and with it of all groups.
    void leave() {
        Call call;
        call.out.u16(1);
        call.out.u32(1);
        call.out.uuid(server_);
        call.out.u32(5);
        call.out.u32(0);
        connection_.exchange(connection_.encode(remUnknown, 5, &remUnknown_, call.bytes));
    }

    // Gives the items' handles. rate: milliseconds.
    std::vector<std::uint32_t> addGroup(std::string_view name, std::uint32_t rate,
                                        const std::vector<std::string>& itemIds) {
        Call call;
        call.out.wideString(name);
        call.out.u32(1);
        call.out.u32(rate);
        call.out.u32(5);
        call.out.nullPointer();
        call.out.nullPointer();
        call.out.u32(0x409);
        call.out.uuid(opcda::wire::iidOpcItemMgt);
        const Bytes results = connection_.call(opcServer, 3, &server_, call.bytes);
        dcom::ndr::Reader in(results);
        in.bytes(16);  // header, handle, rate
        return addItems(readReference(in), itemIds);
    }

    Uuid groupInterface(std::string_view name, const Uuid& iid) {
        Call call;
        call.out.wideString(name);
        call.out.uuid(iid);
        const Bytes results = connection_.call(opcServer, 5, &server_, call.bytes);
        dcom::ndr::Reader in(results);
        in.bytes(8);
        return readReference(in);
    }

    // sink: the marshalled reference of the client's object.
    void advise(std::string_view group, std::span<const std::uint8_t> sink) {
        const Uuid container = groupInterface(group, opcda::wire::iidConnectionPointContainer);
        Call find;
        find.out.uuid(opcda::wire::iidOpcDataCallback);
        const Bytes found = connection_.call(connectionPoints, 4, &container, find.bytes);
        dcom::ndr::Reader in(found);
        in.bytes(8);
        const Uuid point = readReference(in);
        Call call;
        call.out.pointer();
        call.out.u32(static_cast<std::uint32_t>(sink.size()));
        call.out.u32(static_cast<std::uint32_t>(sink.size()));
        call.out.bytes(sink);
        const Bytes advised = connection_.call(connectionPoint, 5, &point, call.bytes);
        dcom::ndr::Reader end{std::span<const std::uint8_t>(advised).last(4)};
        expect(end.u32() == 0, "the sink was refused");
    }

 protected:
    enum Interface : std::uint16_t {
        opcServer,
        itemMgt,
        syncIo,
        connectionPoints,
        connectionPoint,
        remUnknown,
        browse3,
        browse,
        itemProperties,
        enumString,
        syncIo2
    };

    // Of the server object.
    Uuid serverInterface(const Uuid& iid) {
        Call call;
        call.out.uuid(server_);
        call.out.u32(1);
        call.out.u16(1);
        call.out.u32(1);
        call.out.uuid(iid);
        const Bytes results = connection_.call(remUnknown, 3, &remUnknown_, call.bytes);
        dcom::ndr::Reader in(results);
        in.bytes(16 + 8 + 24);  // header, referent, count; result; flags to object
        const Uuid ipid = in.uuid();
        expect(in.good(), "an interface is missing");
        return ipid;
    }

    // The interface's identifier out of a marshalled pointer.
    static Uuid readReference(dcom::ndr::Reader& in) {
        expect(in.u32() != 0, "an interface pointer is missing");
        in.u32();
        in.u32();
        in.bytes(4 + 4 + 16 + 4 + 4 + 8 + 8);
        const Uuid ipid = in.uuid();
        expect(in.good(), "an interface pointer is malformed");
        return ipid;
    }

    Connection connection_;

 private:
    void activate(std::uint16_t port, unsigned level, std::string_view password, std::uint32_t from) {
        static constexpr Uuid iidActivation = Uuid::parse("4D9F4AB8-7D1C-11CF-861E-0020AF6E7C57");
        static constexpr Uuid classId = Uuid::parse("43FB6634-CC72-4EE9-A292-BEDF9FF018BD");
        Connection connection(port, level, password, {iidActivation}, from);
        Call call;
        call.out.uuid(classId);
        call.out.u32(0);
        call.out.u32(0);
        call.out.u32(3);
        call.out.u32(0);
        call.out.u32(1);
        call.out.pointer();
        call.out.u32(1);
        call.out.uuid(opcda::wire::iidOpcServer);
        call.out.u16(1);
        call.out.u32(1);
        call.out.u16(7);
        const Bytes results = connection.call(0, 0, nullptr, call.bytes);
        dcom::ndr::Reader in(results);
        in.u64();  // extensions
        in.u64();  // exporter
        in.u32();
        in.u32();
        skipBindings(in);
        remUnknown_ = in.uuid();
        in.u32();
        in.u32();
        expect(in.u32() == 0, "the activation failed");
        in.u32();
        server_ = readReference(in);
    }

    static void skipBindings(dcom::ndr::Reader& in) {
        const std::size_t units = in.u16();
        in.u16();
        in.bytes(2 * units);
        in.align(4);
    }

    std::vector<std::uint32_t> addItems(const Uuid& items, const std::vector<std::string>& itemIds) {
        Call call;
        const auto count = static_cast<std::uint32_t>(itemIds.size());
        call.out.u32(count);
        call.out.u32(count);
        for (std::uint32_t i = 0; i < count; ++i) {
            call.out.pointer();
            call.out.pointer();
            call.out.u32(1);
            call.out.u32(i);
            call.out.u32(0);
            call.out.u32(0);
            call.out.u16(0);
            call.out.u16(0);
        }
        for (const std::string& id : itemIds) {
            call.out.wideString("");
            call.out.wideString(id);
        }
        const Bytes results = connection_.call(itemMgt, 3, &items, call.bytes);
        dcom::ndr::Reader in(results);
        in.bytes(12);  // header, referent
        std::vector<std::uint32_t> handles(in.count(20));
        for (std::uint32_t& handle : handles) {
            handle = in.u32();
            in.bytes(16);
            expect(handle != 0, "an item was refused");
        }
        expect(in.good() && handles.size() == itemIds.size(), "the items are missing");
        return handles;
    }

    Uuid server_;
    Uuid remUnknown_;
};

// A client with groups of items, ready to be read.
class GroupReader : private OpcClient {
 public:
    using OpcClient::leave;

    // itemIds: what to put into the first group. from: as for Socket.
    GroupReader(std::uint16_t activationPort, std::uint16_t objectPort, unsigned level, std::string_view password,
                const std::vector<std::string>& itemIds, std::uint32_t from = INADDR_LOOPBACK)
        : OpcClient(activationPort, objectPort, level, password, from) {
        add(itemIds);
    }
    void add(const std::vector<std::string>& itemIds) {
        const std::string name = "Bench" + std::to_string(groups_.size());
        std::vector<std::uint32_t> handles = addGroup(name, 1000, itemIds);
        groups_.push_back({std::move(handles), groupInterface(name, opcda::wire::iidOpcSyncIo),
                           groupInterface(name, opcda::wire::iidOpcSyncIo2)});
    }

    // A cache read of all items of a group. With protection each sending needs a request of its own.
    Bytes encodeRead(std::size_t group = 0) {
        return connection_.encode(syncIo, readOpnum, &groups_[group].syncIo, readParameters(groups_[group]));
    }

    // The same by a maximum age (milliseconds), which every item is to meet.
    Bytes encodeReadMaxAge(std::uint32_t maxAge) {
        Call call;
        writeHandles(call, groups_[0]);
        call.out.u32(static_cast<std::uint32_t>(groups_[0].handles.size()));
        for (std::size_t i = 0; i < groups_[0].handles.size(); ++i) {
            call.out.u32(maxAge);
        }
        return connection_.encode(syncIo2, readMaxAgeOpnum, &groups_[0].syncIo2, call.bytes);
    }

    std::span<const std::uint8_t> exchange(std::span<const std::uint8_t> request) {
        return connection_.exchange(request);
    }

    // A cache read of the first group: the results behind the header that all object calls have.
    Bytes read() { return connection_.call(syncIo, readOpnum, &groups_[0].syncIo, readParameters(groups_[0])); }

    // One read with a look at the result: every item must come without an error.
    void check() {
        const Bytes results = read();
        dcom::ndr::Reader in(results);
        in.bytes(12);  // header, referent
        expect(in.u32() == groups_[0].handles.size(), "items are missing");
        dcom::ndr::Reader end{std::span<const std::uint8_t>(results).last(4)};
        expect(end.u32() == 0, "the read failed");
    }

 private:
    static constexpr std::uint16_t readOpnum = 3;
    static constexpr std::uint16_t readMaxAgeOpnum = 5;

    struct Group {
        std::vector<std::uint32_t> handles;
        Uuid syncIo;
        Uuid syncIo2;
    };

    static Bytes readParameters(const Group& group) {
        Call call;
        call.out.u16(1);  // from the cache
        writeHandles(call, group);
        return call.bytes;
    }
    static void writeHandles(Call& call, const Group& group) {
        call.out.u32(static_cast<std::uint32_t>(group.handles.size()));
        call.out.u32(static_cast<std::uint32_t>(group.handles.size()));
        for (const std::uint32_t handle : group.handles) {
            call.out.u32(handle);
        }
    }

    std::vector<Group> groups_;
};

}  // namespace quelm::bench
