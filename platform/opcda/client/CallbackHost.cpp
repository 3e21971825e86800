#include "opcda/client/CallbackHost.h"

namespace quelm::opcda::client {

namespace {

class SessionCallbacks final : public ICallbackHost {
 public:
    explicit SessionCallbacks(dcom::client::Session& session) : session_(session) {}

    std::vector<std::uint8_t> exportObject(const Uuid& iid, dcom::client::ICallback& callback) override {
        return session_.exportObject(iid, callback);
    }
    void withdraw(dcom::client::ICallback& callback) override { session_.withdraw(callback); }
    bool runUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit) override {
        return session_.runUntil(condition, limit);
    }
    std::string callbackAddress() const override { return session_.callbackAddress(); }

 private:
    dcom::client::Session& session_;
};

}  // namespace

std::unique_ptr<ICallbackHost> callbacksOf(dcom::client::Session& session) {
    return std::make_unique<SessionCallbacks>(session);
}

}  // namespace quelm::opcda::client
