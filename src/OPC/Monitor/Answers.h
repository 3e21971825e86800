#pragma once

// What the monitor answers to each address below its own: metrics, and the page's questions passed on to the server.
// One thread's.

#include <map>
#include <string>
#include <string_view>

#include "OPC/Monitor/ControlLink.h"
#include "OPC/Monitor/Trends.h"

namespace quelm::monitor {

struct Reply {
    int status = 200;
    std::string type;
    std::string body;
};

// Of an address, behind its "?", decoded.
using Parameters = std::multimap<std::string, std::string>;

class Answers {
 public:
    explicit Answers(Asking ask) : ask_(std::move(ask)) {}

    // For Prometheus: always 200, also while the server does not run.
    Reply metrics();
    // what: "status", "clients", "items", "messages" or "trend". JSON: 200 with the server's answer as it is; 400 for
    // parameters that are out of range, 404 for what there is not, 503 with "state" (stopped, forbidden, failed) and
    // "error" where the server gives no answer, 502 where it refuses.
    Reply api(std::string_view what, const Parameters& parameters);

    // Samples one item more, all of them in turn. To be called again after pauseBetweenSamples().
    void sampleNext();
    // Milliseconds; each item comes every 15 seconds, so that no pass is missed.
    int pauseBetweenSamples() const;

 private:
    Json answerTo(std::string_view what, const Parameters& parameters);
    Json trend(const std::string& item);
    Json readingOf(const std::string& item);

    Asking ask_;
    Trends trends_;
};

}  // namespace quelm::monitor
