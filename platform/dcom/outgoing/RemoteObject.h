#pragma once

// One object of a remote process: what was handed over of it, what it is called by, and the calls that wait for it.

#include <memory>
#include <utility>
#include <vector>

#include "dcom/outgoing/RemoteProcess.h"

namespace quelm::dcom::outgoing {

class RemoteProcess::Object final : public orpc::IRemoteObject {
 public:
    struct Call {
        std::uint16_t opnum = 0;
        std::shared_ptr<const std::vector<std::uint8_t>> parameters;
        std::function<void()> answered;
    };

    Object(std::shared_ptr<RemoteProcess> process, orpc::RemoteObjectRequest handedOver)
        : request(std::move(handedOver)), process_(std::move(process)) {}
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;
    ~Object() override {
        if (const auto process = std::exchange(process_, nullptr)) {
            process->remove(*this);
        }
    }

    void call(std::uint16_t opnum, std::shared_ptr<const std::vector<std::uint8_t>> parameters,
              std::function<void()> answered) override {
        if (process_ != nullptr) {
            calls.push_back({opnum, std::move(parameters), std::move(answered)});
            process_->onCallWaiting(*this);
        }
    }

    Call takeCall() {
        Call first = std::move(calls.front());
        calls.erase(calls.begin());
        return first;
    }
    // It can be called no more.
    void detach() {
        calls.clear();
        process_.reset();
    }

    orpc::RemoteObjectRequest request;
    orpc::HeldReferences asked;  // the interface that it is called by; a null IPID before it was asked for
    std::vector<Call> calls;     // hardly ever more than one
    bool isFaultSaid = false;
    // Where the process keeps it.
    Objects* list = nullptr;
    Objects::iterator place;

 private:
    std::shared_ptr<RemoteProcess> process_;  // none: given up
};

}  // namespace quelm::dcom::outgoing
