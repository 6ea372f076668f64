#include "rendezvous/metrics.h"

#include <prometheus/collectable.h>
#include <prometheus/exposer.h>
#include <prometheus/metric_family.h>

#include <utility>
#include <vector>

namespace
{
class CountsShown : public prometheus::Collectable
{
public:
    explicit CountsShown(const Counts &counts) : m_counts(counts) {}

    std::vector<prometheus::MetricFamily> Collect() const override
    {
        return {counter("registrations_total", "Signed registrations of boxes.", m_counts.registrations),
                counter("plain_registrations_total", "Registrations of relays, in plain.", m_counts.plainRegistrations),
                counter("challenges_total", "Datagrams from new addresses.", m_counts.challenges),
                counter("calls_total", "Calls that went on to their box.", m_counts.calls),
                counter("answers_total", "Answers that went on to their peer.", m_counts.answers),
                counter("handed_on_total", "Calls that went on to other nodes.", m_counts.handedOn),
                counter("unknown_boxes_total", "Calls for boxes that are not registered.", m_counts.unknownBoxes),
                counter("bad_tokens_total", "Datagrams signed with a wrong token.", m_counts.badTokens),
                counter("over_limit_total", "Datagrams over a limit.", m_counts.overLimit),
                counter("dropped_total", "Datagrams that are no messages, or out of order.", m_counts.dropped),
                family("boxes", "Boxes that are registered now.", prometheus::MetricType::Gauge, m_counts.boxes)};
    }

private:
    static prometheus::MetricFamily family(const char *name, const char *help, prometheus::MetricType type,
                                           const std::atomic<std::uint64_t> &count)
    {
        prometheus::ClientMetric metric;
        const auto value = static_cast<double>(count.load(std::memory_order_relaxed));
        if (type == prometheus::MetricType::Gauge)
            metric.gauge.value = value;
        else
            metric.counter.value = value;
        return {std::string("nat_rendezvousd_") + name, help, type, {metric}};
    }
    static prometheus::MetricFamily counter(const char *name, const char *help, const std::atomic<std::uint64_t> &count)
    {
        return family(name, help, prometheus::MetricType::Counter, count);
    }

    const Counts &m_counts;
};
} // namespace

std::shared_ptr<void> showMetrics(const std::string &address, const Counts &counts)
{
    struct Shown {
        Shown(const std::string &where, const Counts &what)
            : counts(std::make_shared<CountsShown>(what)), exposer(where, 1)
        {
            exposer.RegisterCollectable(counts);
        }
        std::shared_ptr<CountsShown> counts;
        prometheus::Exposer exposer;
    };
    return std::make_shared<Shown>(address, counts);
}
