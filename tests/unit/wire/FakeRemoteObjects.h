#pragma once

// Clients' objects as the server calls them: what is sent to them is kept, and answered when a test says so.

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "dcom/orpc/RemoteObjects.h"

namespace quelm::opcda::wire::test {

class FakeRemoteObjects final : public dcom::orpc::IRemoteObjects {
 public:
    struct Call {
        std::uint16_t opnum;
        std::vector<std::uint8_t> parameters;
        std::function<void()> answered;
    };
    struct Object {
        dcom::orpc::RemoteObjectRequest request;
        std::vector<Call> calls;
        bool released = false;
    };

    // Each object that was ever connected, in their order.
    std::vector<std::shared_ptr<Object>> objects;
    bool isFull = false;

    std::unique_ptr<dcom::orpc::IRemoteObject> connect(dcom::orpc::RemoteObjectRequest request) override {
        if (isFull) {
            return nullptr;
        }
        objects.push_back(std::make_shared<Object>(Object{std::move(request), {}, false}));
        return std::make_unique<Reached>(objects.back());
    }

    // Answers the oldest call and gives it.
    static Call answer(Object& object) {
        Call call = std::move(object.calls.front());
        object.calls.erase(object.calls.begin());
        call.answered();
        return call;
    }
    static void giveUp(Object& object) { std::exchange(object.request.givenUp, nullptr)(); }

 private:
    class Reached final : public dcom::orpc::IRemoteObject {
     public:
        explicit Reached(std::shared_ptr<Object> object) : object_(std::move(object)) {}
        Reached(const Reached&) = delete;
        Reached& operator=(const Reached&) = delete;
        ~Reached() override {
            object_->released = true;
            object_->calls.clear();
        }
        void call(std::uint16_t opnum, std::shared_ptr<const std::vector<std::uint8_t>> parameters,
                  std::function<void()> answered) override {
            object_->calls.push_back({opnum, *parameters, std::move(answered)});
        }

     private:
        std::shared_ptr<Object> object_;
    };
};

}  // namespace quelm::opcda::wire::test
