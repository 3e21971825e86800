#include "OPC/Monitor/Web.h"

#include <fmt/format.h>
#include <httplib.h>

#include <atomic>
#include <future>
#include <string_view>

#include "OPC/Monitor/Page.h"

namespace quelm::monitor {
namespace {

constexpr std::size_t takers = 16;       // requests at a time
constexpr std::size_t mostWaiting = 64;  // connections; the next ones are not taken meanwhile
constexpr int transferSeconds = 3;       // for a request to come, and for a reply to be taken
constexpr auto loopTime = std::chrono::seconds(10);

// The page has all that it needs from here, and nobody may put it into a frame of theirs.
const httplib::Headers everyReply = {
    {"Content-Security-Policy",
     "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; img-src 'self'; base-uri 'none'; "
     "form-action 'none'; frame-ancestors 'none'"},
    {"X-Content-Type-Options", "nosniff"},
    {"Referrer-Policy", "no-referrer"},
    {"Cross-Origin-Resource-Policy", "same-origin"},
    {"Cross-Origin-Opener-Policy", "same-origin"},
    {"Cache-Control", "no-store"},
};

// Threads of a fixed number, and a bounded number of connections that wait for one.
class BoundedPool final : public httplib::TaskQueue {
 public:
    BoundedPool() : pool_(takers) {}
    void enqueue(std::function<void()> task) override {
        // Nobody else is taken until there is room again: a connection is closed by its task alone.
        if (waiting_.fetch_add(1) >= mostWaiting) {
            task();
            waiting_.fetch_sub(1);
            return;
        }
        pool_.enqueue([this, task = std::move(task)] {
            task();
            waiting_.fetch_sub(1);
        });
    }
    void shutdown() override { pool_.shutdown(); }

 private:
    httplib::ThreadPool pool_;
    std::atomic<std::size_t> waiting_ = 0;
};

}  // namespace

struct Web::Impl {
    Impl(const Settings& wanted, IMessageLoop& onLoop, Answers& giver)
        : settings(wanted), loop(onLoop), answers(giver) {}

    void prepare();
    void offerPage();
    httplib::Server::HandlerResponse admit(const httplib::Request& request, httplib::Response& response) const;
    void reply(httplib::Response& response, std::function<Reply()> make);

    Settings settings;
    IMessageLoop& loop;
    Answers& answers;
    httplib::Server server;
    std::thread thread;
};

void Web::Impl::prepare() {
    server.new_task_queue = [] { return new BoundedPool; };
    server.set_keep_alive_max_count(1);
    server.set_read_timeout(transferSeconds);
    server.set_write_timeout(transferSeconds);
    server.set_payload_max_length(0);
    server.set_default_headers(everyReply);
    server.set_tcp_nodelay(true);
    server.set_pre_routing_handler(
        [this](const httplib::Request& request, httplib::Response& response) { return admit(request, response); });
    server.Get("/metrics", [this](const httplib::Request&, httplib::Response& response) {
        reply(response, [this] { return answers.metrics(); });
    });
    server.Get("/api/([a-z]+)", [this](const httplib::Request& request, httplib::Response& response) {
        const std::string what = request.matches[1];
        const Parameters parameters(request.params.begin(), request.params.end());
        reply(response, [this, what, parameters] { return answers.api(what, parameters); });
    });
    offerPage();
}

void Web::Impl::offerPage() {
    struct Part {
        const char* path;
        const char* type;
        std::string_view text;
    };
    for (const Part& part :
         {Part{"/", "text/html; charset=utf-8", page::html}, Part{"/page.css", "text/css; charset=utf-8", page::style},
          Part{"/page.js", "text/javascript; charset=utf-8", page::script},
          Part{"/items.js", "text/javascript; charset=utf-8", page::items},
          Part{"/icon.svg", "image/svg+xml", page::icon}}) {
        server.Get(part.path, [part](const httplib::Request&, httplib::Response& response) {
            response.set_content(part.text.data(), part.text.size(), part.type);
        });
    }
}

httplib::Server::HandlerResponse Web::Impl::admit(const httplib::Request& request, httplib::Response& response) const {
    if (request.method != "GET") {
        response.status = 405;
        response.set_header("Allow", "GET");
        response.set_content("This page only shows\n", "text/plain");
        return httplib::Server::HandlerResponse::Handled;
    }
    if (request.get_header_value_count("Host") != 1 || !isOwnHost(request.get_header_value("Host"), settings.names)) {
        response.status = 421;
        response.set_content(
            "This machine is not known by that name: use its address, or add the name to Names in monitor.conf\n",
            "text/plain");
        return httplib::Server::HandlerResponse::Handled;
    }
    return httplib::Server::HandlerResponse::Unhandled;
}

void Web::Impl::reply(httplib::Response& response, std::function<Reply()> make) {
    auto promise = std::make_shared<std::promise<Reply>>();
    std::future<Reply> coming = promise->get_future();
    loop.post([promise, make = std::move(make)] {
        try {
            promise->set_value(make());
        } catch (...) {
            promise->set_exception(std::current_exception());
        }
    });
    if (coming.wait_for(loopTime) != std::future_status::ready) {
        response.status = 503;
        response.set_content("{\"state\":\"failed\",\"error\":\"the monitor is busy\"}", "application/json");
        return;
    }
    const Reply made = coming.get();
    response.status = made.status;
    response.set_content(made.body, made.type);
}

Web::Web(const Settings& settings, IMessageLoop& loop, Answers& answers)
    : impl_(std::make_unique<Impl>(settings, loop, answers)) {
    impl_->prepare();
}

Web::~Web() {
    stop();
    if (impl_->thread.joinable()) {
        impl_->thread.join();
    }
}

int Web::listen() {
    if (impl_->settings.port == 0) {
        return impl_->server.bind_to_any_port(impl_->settings.address);
    }
    return impl_->server.bind_to_port(impl_->settings.address, impl_->settings.port) ? impl_->settings.port : -1;
}

void Web::start(std::function<void()> onEnd) {
    impl_->thread = std::thread([impl = impl_.get(), onEnd = std::move(onEnd)] {
        impl->server.listen_after_bind();
        impl->loop.post(onEnd);
    });
}

void Web::stop() {
    impl_->server.stop();
}

}  // namespace quelm::monitor
