#include "tools/vexo/plan/Plan.h"

#include <algorithm>
#include <cctype>
#include <memory>
#include <set>
#include <stdexcept>
#include <utility>

#include "src/instruments/InstId.h"
#include "tools/vexo/Failure.h"
#include "tools/vexo/InputFile.h"
#include "tools/vexo/check/ChannelRules.h"
#include "tools/vexo/check/ConfigCheck.h"
#include "tools/vexo/plan/MasterRun.h"

namespace vexo::plan {

namespace {

using check::Level;

std::string sectionOf(unsigned int channel) { return "channel" + std::to_string(channel); }
std::string counted(std::size_t count, const char* what) {
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

// A configuration with the start that the library would make of it.
struct Start {
    std::string config;
    check::ConfigFacts facts;
    std::unique_ptr<MasterRun> run;

    std::size_t lineOf(const std::string& section, const std::string& key) const {
        const auto found = facts.lines.find(section + ":" + key);
        return found != facts.lines.end() ? found->second : 0;
    }
};

// What ends a start is found by vexo check; the plan repeats it.
Start startOf(const std::string& config, check::Report& report) {
    requireFile(config);
    check::Report all;
    check::Report fatal;
    Start start{config, readable(config, [&] { return check::checkConfig(config, all); }), nullptr};
    for (const check::Finding& finding : all.findings())
        if (finding.level == Level::kFatal) fatal.add(finding);
    try {
        start.run = std::make_unique<MasterRun>(config);
    } catch (const std::runtime_error& error) {
        throw Failure(kFinding, config + ": " + error.what() + "\n" + check::asText(fatal, false) +
                                    "Correct it, then make the plan again: vexo check " + config);
    }
    for (const check::Finding& finding : fatal.findings()) report.add(finding);
    return start;
}

// One rule of a channel, as the library has it.
struct SingleRule {
    unsigned int channel;
    std::string key;
    std::string value;
    Rules record;
};

class RuleList {
public:
    explicit RuleList(const MasterRun& run) {
        for (unsigned int channel = 0; channel < card_reg::kChannels; ++channel) {
            const Rules& rules = run.rulesOf(channel);
            // The letters "all" anywhere in the list ask for everything; the entry that has them is shown for it.
            for (const auto& [name, list] :
                 {std::pair{"insts", &rules.m_SubsContractClass}, std::pair{"insts", &rules.m_SubsContractId}})
                for (const std::string& entry : *list) addEntry(channel, name, entry, rules);
            if (rules.bIpsRecv) add(channel, "ips", "recv").record.bIpsRecv = true;
            if (rules.bSpdRecv) add(channel, "spd", "recv").record.bSpdRecv = true;
        }
    }
    const std::vector<SingleRule>& rules() const { return m_rules; }

private:
    SingleRule& add(unsigned int channel, const char* key, const std::string& value) {
        m_rules.push_back({channel, key, value, {}});
        return m_rules.back();
    }

    void addEntry(unsigned int channel, const char* key, const std::string& entry, const Rules& rules) {
        if (!m_seen.emplace(channel, entry).second) return;
        Rules& record = add(channel, key, entry).record;
        std::string text = entry;
        record.bSubAll = FindAllTag(text);
        record.bOptionsRecv = rules.bOptionsRecv;
        (contains_digit(entry.c_str()) ? record.m_SubsContractId : record.m_SubsContractClass).push_back(entry);
    }

    std::vector<SingleRule> m_rules;
    std::set<std::pair<unsigned int, std::string>> m_seen;
};

class CardPlanner {
public:
    CardPlanner(Start& master, const Instruments& instruments, CardPlan& plan, check::Report& report)
        : m_master(master), m_run(*master.run), m_instruments(instruments), m_plan(plan), m_report(report) {}

    void make() {
        m_run.take(m_instruments);
        m_plan.master = m_master.config;
        m_plan.minutesOfDelay = m_run.minutesOfDelay();
        takeChannels();
        takeRows();
        takeRules();
        m_plan.learningEnds = m_run.learningEnds();
        if (!m_run.rulesAreComplete()) reportCut();
        if (!m_plan.learningEnds && !m_instruments.isLoaded && m_blocking == 0) reportEndlessLearning();
    }

private:
    void add(std::size_t line, Level level, const std::string& what, const std::string& todo) {
        m_report.add({level, m_master.config, line, what, todo});
    }

    void takeChannels() {
        for (std::size_t i = 0; i < m_instruments.list.size(); ++i) {
            const unsigned int channels = m_run.channelsOf()[i];
            if (channels == 0) m_plan.forNobody.push_back(i);
            for (unsigned int n = 0; n < card_reg::kChannels; ++n)
                if ((channels >> n & 1) != 0) m_plan.channels[n].instruments.push_back(i);
        }
    }

    void takeRows() {
        for (std::size_t table = 0; table < 2; ++table) {
            for (const auto& [index, mask] : m_run.masks(table)) {
                const std::string& id = m_run.names(table).at(index);
                if (index < card_reg::kRows) {
                    if (mask != 0) m_plan.rows[table][index] = {mask, id};
                    continue;
                }
                m_report.add({Level::kError, m_instruments.file, 0,
                              "the index " + std::to_string(index) + " of " + id +
                                  " is beyond the card's rows, so nobody gets it",
                              "correct the index"});
            }
        }
    }

    void takeRules() {
        const RuleList list(m_run);
        std::vector<Rules> records;
        for (const SingleRule& rule : list.rules()) records.push_back(rule.record);
        std::vector<std::vector<std::size_t>> selected = selectedByEach(records, m_instruments.list);
        for (std::size_t n = 0; n < list.rules().size(); ++n) {
            const SingleRule& rule = list.rules()[n];
            ChannelPlan& channel = m_plan.channels[rule.channel];
            channel.options = m_run.rulesOf(rule.channel).bOptionsRecv;
            RulePlan planned{rule.key, rule.value, m_master.lineOf(sectionOf(rule.channel), rule.key), {}};
            for (const std::size_t i : selected[n])
                if ((m_run.channelsOf()[i] >> rule.channel & 1) != 0) planned.instruments.push_back(i);
            judge(rule, planned);
            channel.rules.push_back(std::move(planned));
        }
    }

    void judge(const SingleRule& rule, const RulePlan& planned) {
        const bool blocks = !m_instruments.isLoaded && rule.key == "insts" && !m_run.learningEndsWith(rule.record);
        if (blocks) ++m_blocking;
        const std::string where = "[" + sectionOf(rule.channel) + "] " + rule.key + ": ";
        const std::string name = rule.key == "insts" ? rule.value : rule.key + " = recv";
        const std::string endless = "the master learns without end, and the day file never gets its end tag";
        if (planned.instruments.empty()) {
            add(planned.line, Level::kError,
                where + name + " matches none of " + counted(m_instruments.list.size(), "instrument") + why(rule) +
                    (blocks ? "; " + endless : ""),
                "correct or remove it");
        } else if (blocks) {
            add(planned.line, Level::kWarning, where + name + " is never announced under this name: " + endless,
                isAll(rule.value) ? "write all in small letters" : "correct it");
        }
    }

    static bool isAll(const std::string& text) {
        return text.size() == 3 && std::equal(text.begin(), text.end(), "all",
                                              [](unsigned char a, char b) { return std::tolower(a) == b; });
    }

    // Why nothing could match, if the text itself says so.
    std::string why(const SingleRule& rule) const {
        if (rule.key != "insts") return {};
        const Rules& rules = m_run.rulesOf(rule.channel);
        std::vector<std::string> entries = rules.m_SubsContractClass;
        const std::vector<std::string>& ids = rules.m_SubsContractId;
        entries.insert(entries.end(), ids.begin(), ids.end());
        const std::string reason = check::whyNothing(rule.value, entries, rules.bOptionsRecv);
        return reason.empty() ? "" : ": it " + reason;
    }

    void reportCut() {
        for (unsigned int channel = 0; channel < card_reg::kChannels; ++channel) {
            const std::size_t line = m_master.lineOf(sectionOf(channel), "insts");
            if (line == 0 || m_master.lineOf(sectionOf(channel), "options") != 0) continue;
            add(line, Level::kError,
                "[" + sectionOf(channel) +
                    "] options is missing beside insts; the library reads no more of this channel and none of the later "
                    "channels",
                "add options = recv or options = norecv");
            return;
        }
    }

    // Each entry is announced, but not in the way in which the library asks for them together.
    void reportEndlessLearning() {
        add(0, Level::kWarning, "the master learns without end, and the day file never gets its end tag",
            "see the line of the log that begins with \"Prefix is\" or \"instId is\"");
    }

    Start& m_master;
    MasterRun& m_run;
    const Instruments& m_instruments;
    CardPlan& m_plan;
    check::Report& m_report;
    std::size_t m_blocking = 0;
};

bool sameRules(const Rules& a, const Rules& b) {
    return a.strIds == b.strIds && a.strClasses == b.strClasses && a.bSubAll == b.bSubAll &&
           a.bOptionsRecv == b.bOptionsRecv && a.bIpsRecv == b.bIpsRecv && a.bSpdRecv == b.bSpdRecv;
}

// The program of another channel than 0 writes nothing: what it gets stands in the master's configuration.
void takeProgram(const Start& program, const Start* master, CardPlan& card, check::Report& report) {
    const unsigned int number = program.run->channel();
    ChannelPlan& channel = card.channels[number];
    const std::size_t line = program.lineOf("config", "device");
    if (!channel.program.empty())
        report.add({Level::kError, program.config, line,
                    channel.program + " has the same card and channel; the second of the two starts ends",
                    "give each program a channel of its own"});
    else
        channel.program = program.config;
    if (master == nullptr || number == 0) return;
    const Rules& own = program.run->rulesOf(number);
    if (!sameRules(own, Rules{}) && !sameRules(own, master->run->rulesOf(number)))
        report.add({Level::kWarning, program.config, program.lineOf(sectionOf(number), "insts"),
                    "[" + sectionOf(number) + "] differs from the section in " + master->config +
                        "; only the master's file counts",
                    "make the change in " + master->config});
    if (channel.instruments.empty())
        report.add({Level::kError, program.config, line,
                    "its program gets nothing: by " + master->config + ", channel " + std::to_string(number) +
                        " receives no instrument",
                    "add [" + sectionOf(number) + "] with its rules there"});
}

void planCard(unsigned int number, std::vector<Start*> starts, const Instruments& instruments, Plan& plan) {
    CardPlan& card = plan.cards[number];
    Start* master = nullptr;
    for (Start* start : starts) {
        if (start->run->channel() != 0) continue;
        if (master != nullptr)
            throw Failure(kUsage, start->config + " and " + master->config + " are both of channel 0 of card " +
                                      std::to_string(number) +
                                      "; a card has one master\nTo compare the two: vexo plan " + start->config +
                                      " --against " + master->config);
        master = start;
    }
    if (master != nullptr) {
        CardPlanner(*master, instruments, card, plan.report).make();
    } else {
        for (std::size_t i = 0; i < instruments.list.size(); ++i) card.forNobody.push_back(i);
        plan.report.add({Level::kError, starts.front()->config, starts.front()->lineOf("config", "device"),
                         "only a program on channel 0 subscribes, and no configuration here is of channel 0 of card " +
                             std::to_string(number),
                         "name the master's configuration too"});
    }
    for (const Start* start : starts) takeProgram(*start, master, card, plan.report);
}

void reportSharedRows(const Instruments& instruments, check::Report& report) {
    std::map<std::pair<std::size_t, unsigned short>, const Instrument*> rows;
    std::size_t shared = 0;
    std::string example;
    for (const Instrument& one : instruments.list) {
        const auto [place, isFree] = rows.try_emplace({tableOf(one.id), one.index}, &one);
        if (isFree) continue;
        if (++shared == 1) example = place->second->id + " and " + one.id;
    }
    if (shared > 0)
        report.add({Level::kWarning, instruments.file, 0,
                    counted(shared, "instrument") + " shares its row with another one, such as " + example +
                        "; a channel that gets one of them gets both",
                    "give each an index of its own"});
}

}  // namespace

Plan makePlan(const std::vector<std::string>& configs, const Instruments& instruments) {
    Plan plan;
    std::vector<Start> starts;
    starts.reserve(configs.size());
    for (const std::string& config : configs) starts.push_back(startOf(config, plan.report));
    std::map<unsigned int, std::vector<Start*>> cards;
    for (Start& start : starts) cards[start.run->card()].push_back(&start);
    for (const auto& [number, ofCard] : cards) planCard(number, ofCard, instruments, plan);
    reportSharedRows(instruments, plan.report);
    return plan;
}

}  // namespace vexo::plan
