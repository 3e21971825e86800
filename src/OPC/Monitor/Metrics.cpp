#include "OPC/Monitor/Metrics.h"

#include <prometheus/metric_family.h>
#include <prometheus/text_serializer.h>

#include <algorithm>
#include <sstream>
#include <vector>

#include "OPC/Monitor/Fields.h"

namespace quelm::monitor {
namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;
using Labels = std::vector<ClientMetric::Label>;

// How a member of the answer becomes a metric's value.
enum class Form { Plain, Seconds /* from milliseconds */, Moment /* a time, as Unix seconds */, Age /* up to "now" */ };

struct Row {
    const char* name;
    const char* help;
    MetricType type;
    const char* member;
    Form form = Form::Plain;
};

constexpr auto counter = MetricType::Counter;
constexpr auto gauge = MetricType::Gauge;

constexpr Row serverRows[] = {
    {"quelm_start_time_seconds", "When the server's process started, in Unix seconds", gauge, "started", Form::Moment},
    {"quelm_resident_memory_bytes", "Resident memory of the server's process", gauge, "memoryBytes"},
    {"quelm_passes_total", "Update passes since the start", counter, "passes"},
    {"quelm_clients", "Server objects that clients hold", gauge, "clients"},
    {"quelm_groups", "Groups of all clients", gauge, "groups"},
    {"quelm_connections", "Open connections of clients", gauge, "connections"},
    {"quelm_calls_total", "Calls of clients", counter, "calls"},
    {"quelm_refusals_total", "Clients, connections and log-ons that were refused", counter, "refusals"},
    {"quelm_callbacks_total", "Calls to clients that subscribe", counter, "callbacks"},
    {"quelm_callbacks_failed_total", "Calls to clients that failed", counter, "callbacksFailed"},
    {"quelm_device_read_waits", "Device reads that wait for the plant", gauge, "deviceReadWaits"},
    {"quelm_longest_turn_seconds", "Longest turn of the network's loop in the last minute or so", gauge,
     "longestTurnMilliseconds", Form::Seconds},
};

constexpr Row siteRows[] = {
    {"quelm_site_passes_total", "Update passes of the site", counter, "passes"},
    {"quelm_site_last_pass_duration_seconds", "How long the site's last update pass took", gauge, "passMilliseconds",
     Form::Seconds},
    {"quelm_site_last_pass_age_seconds", "Time since the site's last update pass", gauge, "lastPass", Form::Age},
    {"quelm_site_snapshots_total", "Reads of the site's realtime database", counter, "snapshots"},
    {"quelm_site_snapshots_failed_total", "Reads of the site's realtime database that failed", counter,
     "snapshotsFailed"},
    {"quelm_site_last_snapshot_duration_seconds", "How long the last read of the site's realtime database took", gauge,
     "snapshotMilliseconds", Form::Seconds},
    {"quelm_site_last_snapshot_age_seconds", "Time since the last read of the site's realtime database", gauge,
     "lastSnapshot", Form::Age},
};

std::optional<double> valueOf(const Row& row, const Json& object, const Json& status) {
    switch (row.form) {
        case Form::Plain:
            return numberIn(object, row.member);
        case Form::Seconds: {
            const auto milliseconds = numberIn(object, row.member);
            return milliseconds ? std::optional(*milliseconds / 1000) : std::nullopt;
        }
        case Form::Moment:
            return timeIn(object, row.member);
        case Form::Age: {
            const auto then = timeIn(object, row.member);
            const auto now = timeIn(status, "now");
            return then && now ? std::optional(std::max(0.0, *now - *then)) : std::nullopt;
        }
    }
    return std::nullopt;
}

void addSample(MetricFamily& family, double value, Labels labels = {}) {
    ClientMetric sample;
    sample.label = std::move(labels);
    (family.type == counter ? sample.counter.value : sample.gauge.value) = value;
    family.metric.push_back(std::move(sample));
}

MetricFamily familyOf(const char* name, const char* help, MetricType type = gauge) {
    return {name, help, type, {}};
}

// "up" as 1, "down" as 0; a database that nobody has asked yet is neither.
void addDatabases(const Json& sites, std::vector<MetricFamily>& families) {
    MetricFamily family = familyOf("quelm_site_database_up", "Whether the site's databases answer");
    for (const Json& site : sites) {
        const std::string state = textIn(site, "database");
        if (state == "up" || state == "down") {
            addSample(family, state == "up" ? 1 : 0, {{"site", textIn(site, "site")}});
        }
    }
    families.push_back(std::move(family));
}

void addItems(const Json& sites, std::vector<MetricFamily>& families) {
    MetricFamily family = familyOf("quelm_items", "Items of the site by the quality of their value");
    for (const Json& site : sites) {
        for (const char* quality : {"good", "uncertain", "bad"}) {
            if (const auto count = numberIn(site, quality)) {
                addSample(family, *count, {{"site", textIn(site, "site")}, {"quality", quality}});
            }
        }
    }
    families.push_back(std::move(family));
}

}  // namespace

std::string metricsText(const Json* status) {
    std::vector<MetricFamily> families;
    families.push_back(familyOf("quelm_up", "Whether the server runs and answers the monitor"));
    addSample(families.back(), status ? 1 : 0);
    families.push_back(familyOf("quelm_monitor_build_info", "The monitor's version"));
    addSample(families.back(), 1, {{"version", QUELM_VERSION}});
    if (status) {
        families.push_back(familyOf("quelm_build_info", "The server's version"));
        addSample(families.back(), 1, {{"version", textIn(*status, "version")}});
        for (const Row& row : serverRows) {
            if (const auto value = valueOf(row, *status, *status)) {
                families.push_back(familyOf(row.name, row.help, row.type));
                addSample(families.back(), *value);
            }
        }
        const Json& sites = listIn(*status, "sites");
        for (const Row& row : siteRows) {
            families.push_back(familyOf(row.name, row.help, row.type));
            for (const Json& site : sites) {
                if (const auto value = valueOf(row, site, *status)) {
                    addSample(families.back(), *value, {{"site", textIn(site, "site")}});
                }
            }
        }
        addDatabases(sites, families);
        addItems(sites, families);
    }
    std::erase_if(families, [](const MetricFamily& family) { return family.metric.empty(); });
    std::ostringstream text;
    prometheus::TextSerializer().Serialize(text, families);
    return text.str();
}

}  // namespace quelm::monitor
