#pragma once

#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

/// What `promtool check metrics` complains of in a text of metrics.
namespace prometheus {

struct Metric {
    std::string type;
    bool hasHelp = false;
    std::map<std::string, std::vector<double>> buckets;  // by the other labels, in order
    std::map<std::string, double> counts;
};

class Check {
public:
    std::vector<std::string> run(const std::string& text) {
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) take(line);
        if (!text.empty() && text.back() != '\n') fault("the last line does not end");
        for (const auto& [name, metric] : m_metrics) judge(name, metric);
        return m_faults;
    }

private:
    void fault(const std::string& text) { m_faults.push_back(text); }

    void take(const std::string& line) {
        static const std::regex comment("# (HELP|TYPE) ([a-zA-Z_:][a-zA-Z0-9_:]*) (.+)");
        static const std::regex sample(
            R"re(([a-zA-Z_:][a-zA-Z0-9_:]*)(\{((?:[a-zA-Z_]\w*="(?:[^"\\]|\\["\\n])*",?)*)\})? (\S+))re");
        std::smatch found;
        if (std::regex_match(line, found, comment)) return takeComment(found[1], found[2], found[3]);
        if (!std::regex_match(line, found, sample)) return fault("no metric: " + line);
        takeSample(found[1], found[3], found[4], line);
    }

    void takeComment(const std::string& kind, const std::string& name, const std::string& rest) {
        if (m_closed.count(name) != 0) fault(name + " is spread over the text");
        if (kind == "HELP") m_metrics[name].hasHelp = true;
        if (kind == "TYPE") m_metrics[name].type = rest;
        if (!m_current.empty() && m_current != name) m_closed.insert(m_current);
        m_current = name;
    }

    void takeSample(const std::string& name, const std::string& labels, const std::string& value,
                    const std::string& line) {
        const std::string family = familyOf(name);
        if (family != m_current) return fault("outside of its HELP and TYPE: " + line);
        if (!m_series.insert(name + "{" + labels).second) fault("twice: " + line);
        std::size_t used = 0;
        double number = 0;
        try {
            number = std::stod(value, &used);
        } catch (const std::exception&) {
        }
        if (used != value.size()) return fault("no number: " + line);
        Metric& metric = m_metrics[family];
        if (metric.type == "counter" && number < 0) fault("below zero: " + line);
        if (metric.type != "histogram") return;
        static const std::regex bound(",?le=\"[^\"]*\"");
        if (name == family + "_bucket") metric.buckets[std::regex_replace(labels, bound, "")].push_back(number);
        if (name == family + "_count") metric.counts[labels] = number;
    }

    std::string familyOf(const std::string& name) const {
        for (const char* suffix : {"_bucket", "_sum", "_count"}) {
            const std::string end = suffix;
            if (name.size() <= end.size() || name.compare(name.size() - end.size(), end.size(), end) != 0) continue;
            const std::string family = name.substr(0, name.size() - end.size());
            const auto found = m_metrics.find(family);
            if (found != m_metrics.end() && found->second.type == "histogram") return family;
        }
        return name;
    }

    void judge(const std::string& name, const Metric& metric) {
        if (!metric.hasHelp) fault(name + " has no HELP");
        static const std::set<std::string> types = {"counter", "gauge", "histogram"};
        if (types.count(metric.type) == 0) fault(name + " has no TYPE");
        const bool isTotal = name.size() > 6 && name.compare(name.size() - 6, 6, "_total") == 0;
        if (isTotal != (metric.type == "counter")) fault(name + ": _total is for counters alone");
        static const std::regex odd(
            "[A-Z]|_(ns|us|ms|s|sec|minutes|hours|milliseconds|nanoseconds|kb|mb|counter|gauge)(_|$)");
        if (std::regex_search(name, odd)) fault(name + ": no base unit, or capitals, or its type in its name");
        for (const auto& [labels, counts] : metric.buckets) {
            if (!std::is_sorted(counts.begin(), counts.end())) fault(name + ": buckets that fall");
            const auto count = metric.counts.find(labels);
            if (count == metric.counts.end() || count->second != counts.back()) fault(name + ": a count of its own");
        }
    }

    std::map<std::string, Metric> m_metrics;
    std::set<std::string> m_series;
    std::set<std::string> m_closed;
    std::string m_current;
    std::vector<std::string> m_faults;
};

inline std::vector<std::string> Faults(const std::string& text) { return Check().run(text); }

}  // namespace prometheus
