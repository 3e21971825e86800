#include "dcom/client/Process.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>

#include "dcom/client/Explain.h"

namespace quelm::dcom::client {

namespace {

// References that one call gives back.
constexpr std::size_t mostAtOnce = 1'000;

template <class Write>
Line::Stub stubOf(const Write& write) {
    auto stub = std::make_shared<std::vector<std::uint8_t>>();
    ndr::Writer out(*stub);
    write(out);
    return stub;
}

class Handle final : public IRemote {
 public:
    Handle(std::shared_ptr<Process> process, const Uuid& iid, const orpc::ObjectReference& reference)
        : process_(std::move(process)), iid_(iid), reference_(reference) {}
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    ~Handle() override { process_->letGo(reference_.oid, {reference_.ipid, reference_.publicReferences}); }

    const Uuid& iid() const override { return iid_; }
    const Uuid& ipid() const override { return reference_.ipid; }
    std::uint64_t oid() const override { return reference_.oid; }
    std::uint64_t oxid() const override { return process_->oxid(); }
    std::vector<std::uint8_t> call(std::uint16_t opnum, const Interface::Parameters& parameters) override {
        return process_->call(iid_, reference_.ipid, opnum, parameters);
    }
    Interface::Queried query(const Uuid& iid) override { return process_->query(reference_.ipid, iid); }
    std::optional<Interface> adopt(std::span<const std::uint8_t> objectReference) override {
        return process_->adopt(objectReference);
    }

 private:
    std::shared_ptr<Process> process_;
    Uuid iid_;
    orpc::ObjectReference reference_;
};

}  // namespace

Process::Process(Core& core, std::uint64_t oxid, std::vector<outgoing::Address> resolver)
    : core_(&core),
      oxid_(oxid),
      resolver_(std::move(resolver)),
      pinger_(std::make_unique<outgoing::Pinger>(
          core.surroundings, std::string(), tries_, [this](const outgoing::Trouble* trouble) {
              core_->trace(trouble == nullptr ? std::string("pinged the objects held")
                                              : explain(*trouble, Purpose::Resolving, {}).what());
          })) {
    pinger_->pingAt(resolver_);
}

Core& Process::core() const {
    if (core_ == nullptr) {
        throw std::logic_error("a call over a session that has ended");
    }
    return *core_;
}

void Process::learn(const orpc::ResolvedOxid& resolved) {
    if (line_ == nullptr) {
        line_ = std::make_unique<Line>(core(), Purpose::Calling, core().addressesOf(resolved.bindings),
                                       orpc::iidRemUnknown, core().levelFor(resolved.levelHint), true);
    }
    resolved_ = resolved;
}

Interface Process::handle(const Uuid& iid, const orpc::ObjectReference& reference) {
    pinger_->hold(reference.oid);
    return Interface(std::make_shared<Handle>(shared_from_this(), iid, reference));
}

Line& Process::line() {
    if (line_ == nullptr) {
        resolve();
    }
    return *line_;
}

// Asks the machine of a process that was heard of by a reference alone. Some take no log-on there.
void Process::resolve() {
    const auto stub = stubOf([this](ndr::Writer& out) { orpc::writeResolveOxid2(out, oxid_); });
    const rpc::CallTarget target{orpc::iidObjectExporter, orpc::opnumOf(orpc::ObjectExporterCall::ResolveOxid2), {}};
    Line::Result result;
    std::string at;
    const auto ask = [&](bool logsOn) {
        Line line(core(), Purpose::Resolving, resolver_, orpc::iidObjectExporter, core().levelFor(0), logsOn);
        result = line.call(target, stub, core().settings.callLimit);
        at = line.address().text();
    };
    try {
        ask(false);
    } catch (const Trouble& trouble) {
        if (trouble.kind != Trouble::Kind::LogOnRefused && trouble.kind != Trouble::Kind::AccessDenied) {
            throw;
        }
        ask(true);
    }
    if (result.fault != Fault::None) {
        throw explainFault(result.fault, at, "the question where an object is called");
    }
    const auto resolved = orpc::parseResolveOxid2(result.stub);
    if (!resolved || resolved->remUnknownIpid == Uuid{}) {
        throw garbage(at, resolved ? fmt::format("status {} for the process of an object", resolved->status)
                                   : "an answer about the process of an object that cannot be read");
    }
    learn(*resolved);
}

// The whole answer, of which the header is still to be read.
std::vector<std::uint8_t> Process::send(const rpc::CallTarget& target, const Line::Stub& stub,
                                        const std::string& what) {
    Line::Result result = line().call(target, stub, core().settings.callLimit);
    if (result.fault != Fault::None) {
        throw explainFault(result.fault, line().address().text(), what);
    }
    return std::move(result.stub);
}

std::vector<std::uint8_t> Process::call(const Uuid& iid, const Uuid& ipid, std::uint16_t opnum,
                                        const Interface::Parameters& parameters) {
    giveBack(core().settings.callLimit);
    line();
    const auto stub = stubOf([&](ndr::Writer& out) {
        orpc::writeOrpcThis(out, core().nextHeader(resolved_->minorVersion));
        parameters(out);
    });
    const std::string what = fmt::format("method {} of interface {}", opnum, iid.toText());
    std::vector<std::uint8_t> results = send({iid, opnum, ipid}, stub, what);
    ndr::Reader in(results);
    orpc::skipOrpcThat(in);
    constexpr std::size_t alignment = 8;  // of the results, which counts from the header
    if (!in.good() || in.position() % alignment != 0) {
        throw garbage(line().address().text(), "an answer to " + what + " without its header");
    }
    results.erase(results.begin(), results.begin() + static_cast<std::ptrdiff_t>(in.position()));
    return results;
}

Interface::Queried Process::query(const Uuid& ipid, const Uuid& iid) {
    giveBack(core().settings.callLimit);
    line();
    const auto stub = stubOf([&](ndr::Writer& out) {
        orpc::writeRemQueryInterface(out, core().nextHeader(resolved_->minorVersion), ipid, iid,
                                     orpc::referencesPerPointer);
    });
    const std::string what = "the question for interface " + iid.toText();
    const auto opnum = orpc::opnumOf(orpc::RemUnknownCall::QueryInterface);
    const auto answer = send({orpc::iidRemUnknown, opnum, resolved_->remUnknownIpid}, stub, what);
    const auto queried = orpc::parseRemQueryInterface(answer);
    if (!queried || (!failed(queried->result) && queried->reference.ipid == Uuid{})) {
        throw garbage(line().address().text(), "an answer to " + what + " that cannot be read");
    }
    if (failed(queried->result)) {
        return {queried->result, std::nullopt};
    }
    // Whatever it names as its process: an object is called where it was asked.
    return {queried->result, handle(iid, queried->reference)};
}

std::optional<Interface> Process::adopt(std::span<const std::uint8_t> objectReference) {
    if (objectReference.empty()) {
        return std::nullopt;
    }
    const auto reference = orpc::parseRemoteReference(objectReference);
    if (!reference) {
        throw garbage(core().serverAddress, "a reference to an object that cannot be read");
    }
    return core().adopt(*reference);
}

// An object of a process that was never called was never reached: only the pings end.
void Process::letGo(std::uint64_t oid, const orpc::HeldReferences& references) {
    if (core_ == nullptr) {
        return;
    }
    pinger_->letGo(oid);
    if (line_ != nullptr && references.count != 0) {
        releases_.push_back(references);
    }
}

void Process::giveBack(std::chrono::milliseconds limit) {
    while (!releases_.empty()) {
        const std::size_t count = std::min(releases_.size(), mostAtOnce);
        const std::vector<orpc::HeldReferences> some(releases_.end() - static_cast<std::ptrdiff_t>(count),
                                                     releases_.end());
        releases_.resize(releases_.size() - count);
        const auto stub = stubOf(
            [&](ndr::Writer& out) { orpc::writeRemRelease(out, core().nextHeader(resolved_->minorVersion), some); });
        try {
            const auto opnum = orpc::opnumOf(orpc::RemUnknownCall::Release);
            line().call({orpc::iidRemUnknown, opnum, resolved_->remUnknownIpid}, stub, limit);
        } catch (const Trouble& trouble) {
            if (trouble.kind == Trouble::Kind::Interrupted) {  // what tidies up afterwards gives them back
                releases_.insert(releases_.end(), some.begin(), some.end());
                throw;
            }
            core().trace(std::string("references could not be given back: ") + trouble.what());
            releases_.clear();
        }
    }
}

void Process::close() {
    line_.reset();
    pinger_.reset();
    releases_.clear();
    core_ = nullptr;
}

}  // namespace quelm::dcom::client
