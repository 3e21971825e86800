#pragma once

// A server that answers what a test, or the fuzzer, has written down.

#include <algorithm>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "dcom/client/Interface.h"

namespace quelm::opcda::client::test {

using dcom::client::Interface;
using Answers = std::vector<std::vector<std::uint8_t>>;

// One answer after the other, the last one for ever.
class ScriptedRemote final : public dcom::client::IRemote {
 public:
    ScriptedRemote(const Uuid& iid, Answers answers) : iid_(iid), answers_(std::move(answers)) {}

    const Uuid& iid() const override { return iid_; }
    const Uuid& ipid() const override { return iid_; }
    std::uint64_t oid() const override { return 0; }
    std::uint64_t oxid() const override { return 0; }
    std::vector<std::uint8_t> call(std::uint16_t /*opnum*/, const Interface::Parameters& parameters) override {
        std::vector<std::uint8_t> stub;
        dcom::ndr::Writer writer(stub);
        parameters(writer);
        return answers_[std::min(next_++, answers_.size() - 1)];
    }
    Interface::Queried query(const Uuid& /*iid*/) override { return {E_NOINTERFACE, std::nullopt}; }
    std::optional<Interface> adopt(std::span<const std::uint8_t> /*reference*/) override {
        return Interface(std::make_shared<ScriptedRemote>(iid_, answers_));
    }

 private:
    Uuid iid_;
    Answers answers_;
    std::size_t next_ = 0;
};

inline Interface scripted(const Uuid& iid, Answers answers) {
    return Interface(std::make_shared<ScriptedRemote>(iid, std::move(answers)));
}

}  // namespace quelm::opcda::client::test
