#pragma once

// What all classes have in common that stand for an interface of the server: a method of theirs makes one call and
// gives everything that came back. A result code is never an exception, whatever it says; only a call that was not
// answered, or with bytes that are no answer, throws dcom::client::Trouble.

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "dcom/client/Session.h"
#include "dcom/ndr/Reader.h"
#include "dcom/ndr/Writer.h"
#include "dcom/orpc/OrpcTypes.h"
#include "opcda/client/Marshalling.h"

namespace quelm::opcda::client {

using dcom::client::Interface;

// The result of a call and what came with it, out parameters after a failure included.
template <class Out>
struct Reply {
    HResult result{};
    Out out{};
};

// An [out] pointer that the server may leave null: nothing then.
template <class T>
using Maybe = std::optional<T>;
// One result for each item; nothing where the server sent no array, as it does when the whole call failed.
using Errors = Maybe<std::vector<HResult>>;

class Stub {
 public:
    explicit Stub(Interface target) : target_(std::move(target)) {}

    // For calls that no method makes, such as those with counts that are wrong on purpose.
    const Interface& target() const { return target_; }

 protected:
    using Write = std::function<void(dcom::ndr::Writer&)>;

    // What is in a call's answer, read in order. Anything that is not there, or contradicts itself, throws at done().
    class Answer {
     public:
        Answer(const Interface& target, std::string_view method, std::vector<std::uint8_t> bytes)
            : target_(target), method_(method), bytes_(std::move(bytes)), in_(bytes_) {}
        Answer(const Answer&) = delete;
        Answer& operator=(const Answer&) = delete;

        dcom::ndr::Reader& in() { return in_; }
        // An [out] interface pointer. Unlike all else it is looked at when done() has found the whole answer good.
        std::span<const std::uint8_t> pointer();
        // The HRESULT at the end. Throws Trouble when what was read was not all there.
        HResult done();
        // The object behind a pointer(); nothing for a null one.
        Maybe<Interface> object(std::span<const std::uint8_t> reference) const;

     private:
        const Interface& target_;
        std::string_view method_;
        std::vector<std::uint8_t> bytes_;
        dcom::ndr::Reader in_;
    };

    // method: its name, for what is said when the answer is none.
    template <class Opnum>
    Answer ask(Opnum opnum, std::string_view method, const Write& parameters = nothing) const {
        return Answer(target_, method, target_.call(dcom::orpc::opnumOf(opnum), parameters));
    }
    // A call that gives nothing but its result.
    template <class Opnum>
    HResult tell(Opnum opnum, std::string_view method, const Write& parameters = nothing) const {
        return ask(opnum, method, parameters).done();
    }
    // A call that gives an object.
    template <class Opnum>
    Reply<Maybe<Interface>> fetch(Opnum opnum, std::string_view method, const Write& parameters = nothing) const {
        Answer answer = ask(opnum, method, parameters);
        const auto reference = answer.pointer();
        const HResult result = answer.done();
        return {result, answer.object(reference)};
    }
    // A call that gives a number.
    template <class Opnum>
    Reply<std::uint32_t> number(Opnum opnum, std::string_view method, const Write& parameters = nothing) const {
        Answer answer = ask(opnum, method, parameters);
        const std::uint32_t value = answer.in().u32();
        return {answer.done(), value};
    }
    // A call that gives a result for each of count items.
    template <class Opnum>
    Reply<Errors> errors(Opnum opnum, std::string_view method, std::size_t count, const Write& parameters) const {
        Answer answer = ask(opnum, method, parameters);
        Errors each = readErrors(answer.in(), count);
        const HResult result = answer.done();
        return {result, std::move(each)};
    }
    // A call that gives a text.
    template <class Opnum>
    Reply<Maybe<std::string>> text(Opnum opnum, std::string_view method, const Write& parameters) const {
        Answer answer = ask(opnum, method, parameters);
        auto its = readText(answer.in());
        const HResult result = answer.done();
        return {result, std::move(its)};
    }

 private:
    static void nothing(dcom::ndr::Writer& /*out*/) {}

    Interface target_;
};

// The stub of another interface of the same object. Typed: a class with a static "iid". The result of the question is
// E_NOINTERFACE where the object has none such.
template <class Typed>
Reply<Maybe<Typed>> ask(const Interface& object) {
    auto queried = object.query(Typed::iid);
    Reply<Maybe<Typed>> reply{queried.result, {}};
    if (queried.interface) {
        reply.out.emplace(std::move(*queried.interface));
    }
    return reply;
}

}  // namespace quelm::opcda::client
