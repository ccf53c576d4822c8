#include "bridge/metrics.h"

#include <algorithm>
#include <optional>
#include <sstream>
#include <string_view>

namespace kesto::bridge {
namespace {

class Text {
 public:
    Text() { out_.precision(12); }  // so that even large sums show what a short scan adds

    // Values of this name follow.
    void Name(std::string_view name, std::string_view type, std::string_view help) {
        name_ = "kestoav_" + std::string(name);
        out_ << "# HELP " << name_ << ' ' << help << "\n# TYPE " << name_ << ' ' << type << '\n';
    }

    template <typename Number>
    void Value(Number number, const std::string& labels = "", std::string_view suffix = "") {
        out_ << name_ << suffix << labels << ' ' << number << '\n';
    }

    template <typename Number>
    void Single(std::string_view name, std::string_view type, std::string_view help, Number number) {
        Name(name, type, help);
        Value(number);
    }

    std::string Take() { return out_.str(); }

 private:
    std::string name_;
    std::ostringstream out_;
};

template <typename Number>
std::string Label(std::string_view name, const Number& value) {
    std::ostringstream label;
    label << '{' << name << "=\"" << value << "\"}";
    return label.str();
}

}  // namespace

void CountScan(Metrics& metrics, const Outcome& outcome, double seconds) {
    ++metrics.scans[static_cast<size_t>(outcome.kind)];
    ++metrics.losses[static_cast<size_t>(outcome.loss)];
    if (outcome.kind <= Outcome::Kind::kNoVerdict) {
        const auto* bound = std::lower_bound(kSecondsBounds.begin(), kSecondsBounds.end(), seconds);
        ++metrics.seconds[static_cast<size_t>(bound - kSecondsBounds.begin())];
        metrics.seconds_sum += seconds;
    }
}

std::string MetricsText(const Metrics& metrics, const Gauges& gauges, const Fleet& fleet, Time now) {
    Text text;
    text.Single("uptime_seconds", "gauge", "Time since the start.",
                std::chrono::duration_cast<std::chrono::seconds>(now - metrics.started).count());
    text.Single("worker_starts_total", "counter", "Starts of kestobridge.exe.", metrics.worker_starts);
    text.Name("scans_total", "counter", "Scans that have ended, by outcome.");
    for (size_t i = 0; i < kOutcomes; ++i) {
        constexpr std::array kNames{"clean", "infected", "no_verdict", "no_reply", "left"};
        static_assert(kNames.size() == kOutcomes);
        text.Value(metrics.scans[i], Label("outcome", kNames[i]));
    }
    text.Name("scans_lost_total", "counter", "Scans that nobody gave a verdict, by the reason.");
    for (size_t i = 1; i < kLosses; ++i) {
        constexpr std::array kNames{"",           "over_time", "not_repeatable", "used_up",
                                    "no_verdict", "sick",      "unreached"};
        static_assert(kNames.size() == kLosses);
        text.Value(metrics.losses[i], Label("reason", kNames[i]));
    }
    text.Name("scan_seconds", "histogram", "Time from a scan's command to its reply.");
    uint64_t count = 0;
    for (size_t i = 0; i < kSecondsBounds.size(); ++i) {
        text.Value(count += metrics.seconds[i], Label("le", kSecondsBounds[i]), "_bucket");
    }
    text.Value(count += metrics.seconds.back(), Label("le", "+Inf"), "_bucket");
    text.Value(metrics.seconds_sum, "", "_sum");
    text.Value(count, "", "_count");
    text.Single("bytes_total", "counter", "File data received.", metrics.bytes);
    text.Single("repeats_total", "counter", "Attempts at a scan after its first one.", metrics.repeats);
    text.Single("refused_total", "counter", "Clients that broke the rules.", metrics.refused);
    text.Single("scans_waiting", "gauge", "Scans that wait for a server.", gauges.scans_waiting);
    text.Single("kept_bytes", "gauge", "Memory taken of the setting keep.", gauges.kept_bytes);
    text.Single("keep_bytes", "gauge", "The setting keep.", gauges.keep_bytes);
    text.Single("clients", "gauge", "Clients connected.", gauges.clients);
    text.Single("clients_limit", "gauge", "The setting clients.", gauges.clients_limit);
    // What is unknown of one is left out.
    const auto of_each = [&](std::string_view name, std::string_view type, std::string_view help,
                             auto value) {
        text.Name(name, type, help);
        for (const ServerPtr& server : fleet.servers) {
            if (const std::optional number = value(*server)) {
                text.Value(*number, Label("upstream", AddressText(server->name)));
            }
        }
    };
    of_each("upstream_up", "gauge", "1: it takes scans.", [](const Server& s) { return IsUp(s) ? 1 : 0; });
    of_each("upstream_scans", "gauge", "Scans under way there.", [](const Server& s) { return s.open; });
    of_each("upstream_replies_total", "counter", "Its replies to scans.",
            [](const Server& s) { return s.numbers.replies; });
    of_each("upstream_failures_total", "counter", "Scans and probes that it failed.",
            [](const Server& s) { return s.numbers.failures; });
    of_each("upstream_seconds_total", "counter", "Time that its replies took.",
            [](const Server& s) { return s.numbers.seconds; });
    of_each("upstream_signatures_version", "gauge", "Version of its signatures.", [](const Server& s) {
        return s.numbers.signatures ? std::optional(s.numbers.signatures->version) : std::nullopt;
    });
    of_each("upstream_signatures_timestamp_seconds", "gauge", "When its signatures were made.",
            [](const Server& s) {
                const auto& signatures = s.numbers.signatures;
                return signatures ? std::optional(signatures->written.time_since_epoch().count())
                                  : std::nullopt;
            });
    return text.Take();
}

}  // namespace kesto::bridge
