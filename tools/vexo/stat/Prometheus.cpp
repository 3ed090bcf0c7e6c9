#include <cstdio>
#include <functional>

#include "tools/vexo/show/Harmless.h"
#include "tools/vexo/stat/Views.h"

namespace vexo::stat {
namespace {

using vexo_stats::kUnknown;
using vexo_stats::Stream;

std::string number(double n) {
    char text[64];
    std::snprintf(text, sizeof text, "%.17g", n);
    return text;
}

std::string moment(double seconds) {
    char text[64];
    std::snprintf(text, sizeof text, "%.6f", seconds);
    return text;
}

// Bounds are labels, and the same at every scrape: the rate of the page's clock is.
std::string bound(double seconds) {
    char text[64];
    std::snprintf(text, sizeof text, "%.3g", seconds);
    return text;
}

// Inside the quotes of a label.
std::string escaped(const std::string& value) {
    std::string text;
    for (const char c : harmless(value)) {
        if (c == '\\' || c == '"') text += '\\';
        text += c;
    }
    return text;
}

std::string label(const char* name, const std::string& value) {
    return std::string(name) + "=\"" + escaped(value) + "\"";
}

std::string processLabels(const Page& page) {
    return label("program", page.program()) + "," + label("pid", std::to_string(page.process.pid)) + "," +
           label("writer", writerOf(page)) + "," + label("user", std::to_string(page.owner));
}

// The names of pages make a process, its writer and its user unique; the place of a stream in its page is the rest.
std::string streamLabels(const Page& page, const Stream& stream, std::size_t place) {
    return processLabels(page) + "," + label("stream", std::to_string(place)) + "," +
           label("card", numberOrNone(stream.card)) + "," + label("channel", numberOrNone(stream.channel));
}

// Collects the series of one metric after the other, as the format wants them.
class Metrics {
public:
    explicit Metrics(const std::vector<Page>& pages) : m_pages(pages) {}

    void begin(const char* name, const char* type, const char* help) {
        m_name = name;
        m_head = std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
    }
    void add(const std::string& labels, const std::string& value, const char* suffix = "") {
        m_text += m_head + m_name + suffix + "{" + labels + "} " + value + "\n";
        m_head.clear();
    }

    using OfStream = std::function<void(const Page&, const Stream&, const std::string& labels)>;
    void eachStream(const OfStream& what) {
        for (const Page& page : m_pages) {
            if (page.life != Life::kRunning) continue;
            for (std::size_t i = 0; i < page.streams.size(); ++i) {
                what(page, page.streams[i], streamLabels(page, page.streams[i], page.places[i]));
            }
        }
    }
    /// A counter that may not be known.
    void counter(const char* name, const char* help, std::uint64_t (*of)(const Stream&)) {
        begin(name, "counter", help);
        eachStream([&](const Page&, const Stream& stream, const std::string& labels) {
            if (of(stream) != kUnknown) add(labels, std::to_string(of(stream)));
        });
    }
    const std::string& text() const { return m_text; }

private:
    const std::vector<Page>& m_pages;
    std::string m_name;
    std::string m_head;  // goes before the first series, so that a metric without any has none
    std::string m_text;
};

void packets(Metrics& metrics) {
    metrics.begin("vexo_packets_total", "counter", "Packets received, by the type in their head.");
    metrics.eachStream([&](const Page&, const Stream& stream, const std::string& labels) {
        for (std::size_t slot = 0; slot < vexo_stats::kTypeSlots; ++slot) {
            if (stream.packets[slot] == 0) continue;
            metrics.add(labels + "," + label("type", typeName(slot)), std::to_string(stream.packets[slot]));
        }
    });
    metrics.begin("vexo_received_bytes_total", "counter", "Bytes received with their heads, by packet type.");
    metrics.eachStream([&](const Page&, const Stream& stream, const std::string& labels) {
        for (std::size_t slot = 0; slot < vexo_stats::kTypeSlots; ++slot) {
            if (stream.bytes[slot] == 0) continue;
            metrics.add(labels + "," + label("type", typeName(slot)), std::to_string(stream.bytes[slot]));
        }
    });
    metrics.begin("vexo_polls_total", "counter", "Polls of the stream, by what came of them.");
    metrics.eachStream([&](const Page&, const Stream& stream, const std::string& labels) {
        if (stream.pollsKnown == 0) return;
        metrics.add(labels + "," + label("result", "packet"), std::to_string(packetsOf(stream)));
        metrics.add(labels + "," + label("result", "idle"), std::to_string(stream.idlePolls));
        metrics.add(labels + "," + label("result", "failed"), std::to_string(stream.failedPolls));
    });
}

// "before_card", "ring": the key without "by_".
std::string causeLabel(data::LossCause cause) {
    const std::string key = data::keyOf(cause);
    return key.rfind("by_", 0) == 0 ? key.substr(3) : key;
}

void losses(Metrics& metrics) {
    metrics.begin("vexo_lost_packets_total", "counter", "Packets lost, by cause.");
    metrics.eachStream([&](const Page&, const Stream& stream, const std::string& labels) {
        const data::Losses losses = lossOf(stream);
        for (const data::LossCause cause : data::kAllLossCauses) {
            if (cause == data::LossCause::kByCard || !losses[cause]) continue;  // errors are no packets
            metrics.add(labels + "," + label("cause", causeLabel(cause)), std::to_string(*losses[cause]));
        }
    });
    metrics.begin("vexo_card_errors_total", "counter", "Errors that the card counts for the stream.");
    metrics.eachStream([&](const Page&, const Stream& stream, const std::string& labels) {
        if (stream.fifoErrors != kUnknown)
            metrics.add(labels + "," + label("kind", "fifo"), std::to_string(stream.fifoErrors));
        if (stream.errors != kUnknown)
            metrics.add(labels + "," + label("kind", "stream"), std::to_string(stream.errors));
    });
    const auto known = [](const Stream& stream, std::uint64_t n) { return stream.sequenceKnown != 0 ? n : kUnknown; };
    static const auto ifKnown = known;
    metrics.counter("vexo_sequence_gaps_total", "Gaps in the sequence numbers of packets.",
                    [](const Stream& s) { return ifKnown(s, s.sequenceGaps); });
    metrics.counter("vexo_sequence_lost_packets_total", "Packets missing in those gaps.",
                    [](const Stream& s) { return ifKnown(s, s.sequenceLost); });
    metrics.counter("vexo_sequence_late_packets_total", "Packets that came again, or late.",
                    [](const Stream& s) { return ifKnown(s, s.sequenceLate); });
    metrics.counter("vexo_sequence_restarts_total", "Jumps of the sequence numbers that are no loss.",
                    [](const Stream& s) { return ifKnown(s, s.sequenceRestarts); });
}

// Divided by the page's own rate, as the bounds are. The rate of Page::seconds() is worked out at each look, and a sum
// that falls by a digit of it would look like a process that started again.
std::string sumOf(const Page& page, std::uint64_t clock) {
    return number(static_cast<double>(clock) / static_cast<double>(page.process.clockPerSecond));
}

// Every second bucket: a factor of four from bound to bound, from some nanoseconds to some ten seconds.
void histogram(Metrics& metrics, const Page& page, const std::string& labels,
               const std::uint64_t (&buckets)[vexo_stats::kBuckets], std::size_t used, std::uint64_t clock) {
    constexpr std::size_t kFirst = 5;
    constexpr std::size_t kLast = 37;
    std::uint64_t below = 0;
    for (std::size_t b = 0; b < used; ++b) {
        below += buckets[b];
        if (b < kFirst || b > kLast || (b - kFirst) % 2 != 0) continue;
        metrics.add(labels + ",le=\"" + bound(page.endOfBucket(b)) + "\"", std::to_string(below), "_bucket");
    }
    metrics.add(labels + ",le=\"+Inf\"", std::to_string(below), "_bucket");
    metrics.add(labels, sumOf(page, clock), "_sum");
    metrics.add(labels, std::to_string(below), "_count");
}

void times(Metrics& metrics) {
    metrics.begin("vexo_callback_seconds", "histogram",
                  "Time from a packet's arrival until its callback has returned.");
    metrics.eachStream([&](const Page& page, const Stream& stream, const std::string& labels) {
        if (!knowsCallbacks(stream)) return;
        histogram(metrics, page, labels, stream.callbacks, vexo_stats::kBuckets, stream.callbackClock);
    });
    metrics.begin("vexo_packet_gap_seconds", "histogram", "Time from one packet to the next.");
    metrics.eachStream([&](const Page& page, const Stream& stream, const std::string& labels) {
        histogram(metrics, page, labels, stream.gaps, kGapBuckets, gapsOf(stream));
    });
    metrics.begin("vexo_last_packet_timestamp_seconds", "gauge", "When the last packet came, since 1970.");
    metrics.eachStream([&](const Page& page, const Stream& stream, const std::string& labels) {
        if (stream.firstPacket != 0) metrics.add(labels, moment(page.timeOfDay(lastPacketOf(stream))));
    });
}

void steps(Metrics& metrics, const std::vector<Page>& pages) {
    metrics.begin("vexo_start_up_timestamp_seconds", "gauge", "When a step of the start-up was reached, since 1970.");
    for (const Page& page : pages) {
        if (page.life != Life::kRunning) continue;
        for (int step = 0; step < vexo_stats::kEnded; ++step) {
            const std::uint64_t at = page.process.steps[step];
            if (at == 0) continue;
            metrics.add(processLabels(page) + "," + label("step", nameOf(static_cast<vexo_stats::Step>(step))),
                        moment(page.timeOfDay(at)));
        }
    }
}

}  // namespace

std::string asPrometheus(const std::vector<Page>& pages) {
    Metrics metrics(pages);
    packets(metrics);
    losses(metrics);
    times(metrics);
    steps(metrics, pages);
    return metrics.text();
}

}  // namespace vexo::stat
