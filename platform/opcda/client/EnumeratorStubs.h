#pragma once

// Enumerators, and the connection points to which a client gives an object of its own to be called back.

#include <iterator>

#include "opcda/client/OpcError.h"
#include "opcda/client/Stub.h"
#include "opcda/client/Value.h"
#include "opcda/wire/ConnectionPointObject.h"
#include "opcda/wire/EnumeratorObjects.h"
#include "opcda/wire/ServerListInterface.h"

namespace quelm::opcda::client {

// Of one list that a server gives, or of one browsing: more of them are taken for a server that leads in circles.
inline constexpr std::size_t mostElements = 10'000'000;

// Skip, Reset and Clone of all of them.
class EnumeratorStub : public Stub {
 public:
    using Stub::Stub;

    HResult Skip(std::uint32_t count) const;
    HResult Reset() const;
    Reply<Maybe<Interface>> Clone() const;
};

class IEnumString : public EnumeratorStub {
 public:
    static constexpr Uuid iid = wire::iidEnumString;
    using EnumeratorStub::EnumeratorStub;
    // As many as there are, at most wanted; a null pointer among them is an empty text.
    Reply<std::vector<std::string>> Next(std::uint32_t wanted) const;
};

template <const Uuid& ownIid>
class EnumGuidStub : public EnumeratorStub {
 public:
    static constexpr Uuid iid = ownIid;
    using EnumeratorStub::EnumeratorStub;
    Reply<std::vector<Uuid>> Next(std::uint32_t wanted) const;
};

extern template class EnumGuidStub<wire::iidEnumGuid>;
extern template class EnumGuidStub<wire::iidOpcEnumGuid>;

using IEnumGUID = EnumGuidStub<wire::iidEnumGuid>;
using IOPCEnumGUID = EnumGuidStub<wire::iidOpcEnumGuid>;

template <const Uuid& ownIid>
class EnumObjectsStub : public EnumeratorStub {
 public:
    static constexpr Uuid iid = ownIid;
    using EnumeratorStub::EnumeratorStub;
    // A null pointer among the objects is nothing.
    Reply<std::vector<Maybe<Interface>>> Next(std::uint32_t wanted) const;
};

extern template class EnumObjectsStub<wire::iidEnumUnknown>;
extern template class EnumObjectsStub<wire::iidEnumConnectionPoints>;

using IEnumUnknown = EnumObjectsStub<wire::iidEnumUnknown>;
using IEnumConnectionPoints = EnumObjectsStub<wire::iidEnumConnectionPoints>;

struct ItemAttributes {
    Maybe<std::string> accessPath;
    Maybe<std::string> itemId;
    bool active = false;
    std::uint32_t clientHandle = 0;
    std::uint32_t serverHandle = 0;
    std::uint32_t accessRights = 0;  // 1 readable, 2 writable
    std::vector<std::uint8_t> blob;
    VarType requestedType = VT_EMPTY;
    VarType canonicalType = VT_EMPTY;
    std::uint16_t unitsType = 0;  // 0 none, 1 analog, 2 enumerated
    Value units;                  // two VT_R8 (low, high), or texts
};

class IEnumOPCItemAttributes : public EnumeratorStub {
 public:
    static constexpr Uuid iid = wire::iidEnumOpcItemAttributes;
    using EnumeratorStub::EnumeratorStub;
    Reply<Maybe<std::vector<ItemAttributes>>> Next(std::uint32_t wanted) const;
};

class IConnectionPointContainer : public Stub {
 public:
    static constexpr Uuid iid = wire::iidConnectionPointContainer;
    using Stub::Stub;

    Reply<Maybe<Interface>> EnumConnectionPoints() const;
    Reply<Maybe<Interface>> FindConnectionPoint(const Uuid& callbackIid) const;
};

class IConnectionPoint : public Stub {
 public:
    static constexpr Uuid iid = wire::iidConnectionPoint;
    using Stub::Stub;

    Reply<Uuid> GetConnectionInterface() const;
    Reply<Maybe<Interface>> GetConnectionPointContainer() const;
    // sink: a marshalled reference as Session::exportObject gives it; an empty one is a null pointer. Gives the cookie.
    Reply<std::uint32_t> Advise(std::span<const std::uint8_t> sink) const;
    HResult Unadvise(std::uint32_t cookie) const;
    Reply<Maybe<Interface>> EnumConnections() const;
};

// All that an enumerator has, portion by portion, until the server says that this was all, or gives a portion without
// elements. Enumerator: a stub with Next. asked: what is enumerated, for messages ("browsing the root"). Throws
// OpcError for a failure, and for more than most elements: such a list has no end; Trouble.
template <class Enumerator>
auto allOf(const Enumerator& enumerator, const std::string& asked, std::size_t most = mostElements) {
    constexpr std::uint32_t portion = 1000;
    std::decay_t<decltype(enumerator.Next(portion).out)> all;
    for (;;) {
        auto reply = enumerator.Next(portion);
        const bool isEnd = reply.result != S_OK;
        auto elements = need(std::move(reply), asked);
        if (elements.size() > most - all.size()) {
            throw OpcError("The server's list for " + asked + " has no end: it is given up after " +
                           std::to_string(all.size()) + " elements");
        }
        const bool isLast = isEnd || elements.empty();
        std::move(elements.begin(), elements.end(), std::back_inserter(all));
        if (isLast) {
            return all;
        }
    }
}

}  // namespace quelm::opcda::client
