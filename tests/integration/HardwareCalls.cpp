#include <enyx-sim/enyx_sim.h>
#include <optional>
#include <regex>
#include <vector>

#include "tests/integration/Scenario.h"

namespace scenario {

namespace {

// "enyx_hw_write core=0x1da address=0x408 offset=0 width=32 value=0x1 result=0" to "write 0x408/32=0x1".
std::string Value(const std::string& line, const char* key) {
    const std::size_t begin = line.find(key);
    if (begin == std::string::npos) return {};
    const std::size_t from = begin + std::string(key).size();
    return line.substr(from, line.find(' ', from) - from);
}

std::string Access(const std::string& line, const char* verb) {
    std::string text = std::string(verb) + ' ' + Value(line, " address=") + '/' + Value(line, " width=") + '=' +
                       Value(line, " value=");
    if (Value(line, " offset=") != "0") text += " offset " + Value(line, " offset=");
    if (Value(line, " result=") != "0") text += " result " + Value(line, " result=");
    return text;
}

bool BeginsWith(const std::string& text, const char* start) { return text.rfind(start, 0) == 0; }

}  // namespace

// Folds as the lines come: a start-up makes millions of them.
struct HardwareCalls::Fold {
    // Two lines that repeat, the second with a value that rises by the same step each time.
    struct Run {
        std::string first;
        std::string secondStem;
        unsigned long from;
        unsigned long last;
        unsigned long step;
        unsigned long count;
    };

    std::string text;
    std::string locked;
    bool inLock = false;
    std::vector<std::string> pending;  // at most one line that may begin the next pair of a run
    std::optional<Run> run;

    void Take(const std::string& line) {
        if (BeginsWith(line, "enyx_hw_core_lock ")) {
            inLock = true;
            locked.clear();
        } else if (BeginsWith(line, "enyx_hw_core_unlock ")) {
            inLock = false;
            Emit("[" + locked + "]");
        } else if (inLock) {
            if (!locked.empty()) locked += "; ";
            if (BeginsWith(line, "enyx_hw_write "))
                locked += Access(line, "write");
            else if (BeginsWith(line, "enyx_hw_read "))
                locked += Access(line, "read");
            else
                locked += line;
        } else {
            Emit(line);
        }
    }

    void Emit(const std::string& line) {
        pending.push_back(line);
        if (pending.size() < 2) return;
        const std::string first = pending[0];
        const std::string second = pending[1];
        const std::size_t mark = second.rfind("=0x");
        const bool single = BeginsWith(second, "[write ") && second.find(';') == std::string::npos;
        if (BeginsWith(first, "[write ") && single && mark != std::string::npos &&
            first.find(';') == std::string::npos) {
            const std::string stem = second.substr(0, mark + 1);
            const unsigned long value = std::stoul(second.substr(mark + 3), nullptr, 16);
            pending.clear();
            if (Continues(first, stem, value)) return;
            EndRun();
            run = Run{first, stem, value, value, 0, 1};
            return;
        }
        EndRun();
        text += first + '\n';
        pending.erase(pending.begin());
    }

    bool Continues(const std::string& first, const std::string& stem, unsigned long value) {
        if (!run || run->first != first || run->secondStem != stem || value <= run->last) return false;
        const unsigned long step = value - run->last;
        if (run->count > 1 && step != run->step) return false;
        run->step = step;
        run->last = value;
        ++run->count;
        return true;
    }

    static std::string Hex(unsigned long value) {
        char digits[24];
        std::snprintf(digits, sizeof digits, "0x%lx", value);
        return digits;
    }

    void EndRun() {
        if (!run) return;
        if (run->count == 1) {
            text += run->first + '\n' + run->secondStem + Hex(run->from) + "]\n";
        } else {
            text += std::to_string(run->count) + " times " + run->first + ' ' + run->secondStem + Hex(run->from) +
                    ".." + Hex(run->last) + " step " + Hex(run->step) + "]\n";
        }
        run.reset();
    }

    std::string Finish() {
        EndRun();
        for (const std::string& line : pending) text += line + '\n';
        pending.clear();
        return text;
    }
};

HardwareCalls::HardwareCalls() : m_fold(new Fold) {
    enyx_sim_set_trace([](const char* line, void* context) { static_cast<Fold*>(context)->Take(line); }, m_fold);
}

HardwareCalls::~HardwareCalls() {
    enyx_sim_set_trace(nullptr, nullptr);
    delete m_fold;
}

std::string HardwareCalls::Text() { return m_fold->Finish(); }

}  // namespace scenario
