#include "opcda/wire/Browse3Interface.h"

#include "opcda/ItemLookup.h"
#include "opcda/wire/Parameters.h"
#include "opcda/wire/WireVariant.h"

namespace quelm::opcda::wire {

using dcom::Fault;
using dcom::ndr::Reader;
using dcom::ndr::Writer;

namespace {

// Bytes of one reply: what is made and sealed for one client in 50 ms, while all others wait.
constexpr std::size_t largestPortion = std::size_t{8} << 20U;
// Bytes of a reply behind what is counted.
constexpr std::size_t endSize = 64;

std::size_t portionRoom(const Server& server) {
    return std::min(server.budget()->memory.room(), largestPortion);
}

// Which properties of each item are wanted.
struct PropertyChoice {
    bool all = false;
    bool withValues = false;
    std::vector<std::uint32_t> ids;
    bool tooMany = false;  // to be answered; the ids are not read then

    bool none() const { return !all && ids.empty(); }
    std::span<const std::uint32_t> wanted() const { return all ? std::span<const std::uint32_t>() : ids; }
};

void readIds(Reader& in, PropertyChoice& choice) {
    const std::uint32_t count = in.u32();
    choice.tooMany = count > mostPropertyIds;
    if (!choice.tooMany) {
        readU32Array(in, count, choice.ids);
    }
}

// Writes OPCITEMPROPERTIES structures and, apart from them, what they point to.
class PropertiesWriter {
 public:
    static constexpr std::size_t headSize = 16;

    explicit PropertiesWriter(const PropertyChoice& choice) : choice_(choice) {}

    // Properties of an item; nullptr: none because of the error. at: place for the structure; gives the place behind.
    std::uint8_t* write(std::uint8_t* at, Writer& bodies, const SLIKTag* tag, HResult error) {
        found_.clear();
        if (tag != nullptr && !choice_.none()) {
            error = Properties::ofItem(*tag, choice_.wanted(), choice_.withValues, found_);
            writeBodies(bodies);
        }
        result_ = error == S_OK ? result_ : S_FALSE;
        at = put(at, error);
        at = put(at, static_cast<std::uint32_t>(found_.size()));
        at = put(at, found_.empty() ? 0 : nextReferent());
        return put(at, std::uint32_t{0});
    }
    // Apart from those that the writer itself gives, so that no two pointers of the reply look alike.
    std::uint32_t nextReferent() { return referent_ += 4; }
    // S_FALSE when any of them had an error.
    HResult result() const { return result_; }

 private:
    static constexpr std::size_t propertySize = 28;

    void writeBodies(Writer& bodies) {
        bodies.u32(static_cast<std::uint32_t>(found_.size()));
        std::uint8_t* at = bodies.extend(propertySize * found_.size());
        for (const ItemProperty& property : found_) {
            at = put(at, std::uint32_t{property.description.type});  // and a reserved half
            at = put(at, property.description.id);
            for (int pointer = 0; pointer < 3; ++pointer) {
                at = put(at, nextReferent());
            }
            at = put(at, property.error);
            at = put(at, std::uint32_t{0});
        }
        OpcValue value;
        for (std::size_t i = 0; i < found_.size(); ++i) {
            const ItemProperty& property = found_[i];
            bodies.align(4);
            bodies.bytes(textsOf(i, property.description.text));
            value.type = VT_EMPTY;
            if (property.error == S_OK) {
                convert(property.value, property.description.type, value);
            }
            writeVariant(bodies, value);
        }
        bodies.align(4);
    }

    // The texts in front of a property's value, in their wire form: the empty name of an item of its own, as none is
    // one, and what it is called. Items have much the same properties in the same order.
    std::span<const std::uint8_t> textsOf(std::size_t place, std::string_view called) {
        if (place >= texts_.size()) {
            texts_.resize(place + 1);
        }
        Texts& its = texts_[place];
        if (its.bytes.empty() || its.called.data() != called.data() || its.called.size() != called.size()) {
            its.called = called;
            its.bytes.clear();
            Writer out(its.bytes);
            out.wideString({});
            out.wideString(called);
        }
        return its.bytes;
    }

    struct Texts {
        std::string_view called;  // which lives as long as the item
        std::vector<std::uint8_t> bytes;
    };

    const PropertyChoice& choice_;
    std::vector<ItemProperty> found_;
    std::vector<Texts> texts_;
    std::uint32_t referent_ = 0x40000000;
    HResult result_ = S_OK;
};

// Where the elements stand in a reply behind a continuation point of so many characters.
constexpr std::size_t placeBehindPoint(std::size_t length) {
    constexpr std::size_t fixed = 4 + 12 + 2;  // pointer, counts, NUL
    return (fixed + 2 * length + 3) / 4 * 4 + 16;
}

// The elements of one portion. They are gathered apart from the reply, because how many of them have room decides what
// stands before them.
class ElementArray {
 public:
    // buffers: a loan, in which they are.
    ElementArray(const PropertyChoice& choice, std::size_t memoryLeft, CallBuffers& buffers)
        : properties_(choice),
          heads_(emptied(buffers.heads)),
          bodies_(emptied(buffers.bodies)),
          writer_(bodies_),
          room_(writer_, memoryLeft) {
        for (std::size_t i = 0; i < lead / sizeof(std::uint32_t); ++i) {
            writer_.pointer();
        }
    }

    // False: it has no room.
    bool add(const BrowseElement& element) {
        const std::size_t before = bodies_.size();
        std::array<std::uint8_t, headSize> head{};
        writer_.wideString(element.name);
        writer_.wideString(element.itemId);
        writer_.align(4);
        std::uint8_t* at = put(head.data(), properties_.nextReferent());
        at = put(at, properties_.nextReferent());
        at = put(at, (element.hasChildren ? hasChildren : 0U) | (element.tag != nullptr ? isItem : 0U));
        at = put(at, std::uint32_t{0});
        properties_.write(at, writer_, element.tag, S_OK);
        if (!room_.has(heads_.size() + headSize + endSize)) {
            bodies_.resize(before);
            return false;
        }
        heads_.insert(heads_.end(), head.begin(), head.end());
        return true;
    }

    Fault write(Writer& out, std::string_view continuationPoint) const {
        const std::size_t count = heads_.size() / headSize;
        writeString(out, continuationPoint);
        out.u32(0);  // what more there is, the point stands for
        out.u32(static_cast<std::uint32_t>(count));
        if (count == 0) {
            out.nullPointer();
        } else {
            // With what a reply grows by when it is cut up and protected.
            const std::size_t size = out.buffer().size() + heads_.size() + bodies_.size() + endSize;
            out.buffer().reserve(size + size / 50);
            writeArrayHead(out, count);
            out.bytes(heads_);
            out.bytes(std::span(bodies_).subspan(lead));
        }
        out.hresult(properties_.result());
        return Fault::None;
    }

 private:
    static std::vector<std::uint8_t>& emptied(std::vector<std::uint8_t>& buffer) {
        buffer.clear();
        return buffer;
    }

    enum Flag : std::uint32_t { hasChildren = 1, isItem = 2 };
    static constexpr std::size_t headSize = 16 + PropertiesWriter::headSize;
    // Stands for what comes before the elements in the reply: as many pointers or more, and for the sake of what is
    // aligned to 8 as far behind a multiple of it, with a continuation point and without.
    static constexpr std::size_t lead = 12;
    static_assert(placeBehindPoint(0) % 8 == lead % 8 &&
                  placeBehindPoint(ElementBrowser::pointLength) % 8 == lead % 8 && headSize % 8 == 0);

    PropertiesWriter properties_;
    std::vector<std::uint8_t>& heads_;
    std::vector<std::uint8_t>& bodies_;
    Writer writer_;
    ReplyRoom room_;
};

Fault refuseBrowse(Writer& out, HResult result) {
    out.nullPointer();
    out.u32(0);
    out.u32(0);
    out.nullPointer();
    out.hresult(result);
    return Fault::None;
}

Fault refuseProperties(Writer& out, HResult result) {
    out.nullPointer();
    out.hresult(result);
    return Fault::None;
}

}  // namespace

Fault Browse3Interface::getProperties(Server& server, Reader& in, Writer& out, dcom::orpc::CallContext& /*context*/) {
    const CallBuffers::Loan buffers(server.application().callBuffers());
    const std::uint32_t count = in.u32();
    if (count > server.application().itemsPerCall()) {
        return refuseProperties(out, E_OUTOFMEMORY);
    }
    readStringArray(in, count, buffers->itemIds);
    PropertyChoice choice;
    choice.withValues = in.u32() != 0;
    readIds(in, choice);
    choice.all = choice.ids.empty();
    if (!in.good()) {
        return Fault::BadStubData;
    }
    ReplyRoom room(out, portionRoom(server));
    const std::size_t headsSize = count * PropertiesWriter::headSize;
    if (count == 0 || choice.tooMany || !room.has(headsSize + endSize)) {
        return refuseProperties(out, count == 0 ? E_INVALIDARG : E_OUTOFMEMORY);
    }
    writeArrayHead(out, count);
    std::size_t head = out.buffer().size();
    out.extend(headsSize);
    PropertiesWriter properties(choice);
    for (const std::string& itemId : buffers->itemIds) {
        const SLIKTag* tag = nullptr;
        const HResult error = findItem(server.application().items(), itemId, tag);
        std::array<std::uint8_t, PropertiesWriter::headSize> its{};
        properties.write(its.data(), out, tag, error);
        std::copy(its.begin(), its.end(), out.buffer().begin() + static_cast<std::ptrdiff_t>(head));
        head += its.size();
        if (!room.has(endSize)) {
            room.clear();
            return refuseProperties(out, E_OUTOFMEMORY);
        }
    }
    out.hresult(properties.result());
    return Fault::None;
}

Fault Browse3Interface::browse(Server& server, Reader& in, Writer& out, dcom::orpc::CallContext& /*context*/) {
    const std::string itemId = in.wideString();
    const std::string continuationPoint = in.pointer() ? in.wideString() : std::string();
    ElementRequest request{itemId, continuationPoint, in.u32(), in.u16(), {}, {}};
    const std::string nameFilter = in.wideString();
    const std::string vendorFilter = in.wideString();
    request.nameFilter = nameFilter;
    request.vendorFilter = vendorFilter;
    PropertyChoice choice;
    choice.all = in.u32() != 0;
    choice.withValues = in.u32() != 0;
    readIds(in, choice);
    if (!in.good()) {
        return Fault::BadStubData;
    }
    if (choice.tooMany) {
        return refuseBrowse(out, E_OUTOFMEMORY);
    }
    const CallBuffers::Loan buffers(server.application().callBuffers());
    ElementArray elements(choice, portionRoom(server), *buffers);
    std::string next;
    const auto take = [&elements](const BrowseElement& element) { return elements.add(element); };
    const HResult result = server.elementBrowser().browse(request, take, next);
    return failed(result) ? refuseBrowse(out, result) : elements.write(out, next);
}

}  // namespace quelm::opcda::wire
