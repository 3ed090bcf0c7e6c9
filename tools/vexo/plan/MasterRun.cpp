#include "tools/vexo/plan/MasterRun.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <utility>

#include "interface/CardRegisters.h"
#include "src/channel/DmaChannel.h"
#include "src/config/ConfigFile.h"
#include "src/dayfile/DayFile.h"
#include "src/driver/IDrv.h"
#include "src/instruments/ContractServ.h"
#include "src/instruments/InstId.h"
#include "tools/vexo/check/Quiet.h"

namespace vexo::plan {

namespace {

using AllRules = std::array<Rules, card_reg::kChannels>;

// Takes every write. The plan is what the library keeps in its own store.
class NoCard : public IDrv {
public:
    int Init(void*) override { return 0; }
    int ReadInt8(unsigned long, unsigned char&) override { return 0; }
    int ReadInt16(unsigned long, unsigned short&) override { return 0; }
    int ReadInt32(unsigned long, unsigned int&) override { return 0; }
    int ReadInt64(unsigned long, unsigned long&) override { return 0; }
    long ReadLess128Bytes(unsigned long, unsigned char*, unsigned long) override { return 0; }
    long ReadBytes(unsigned long, unsigned char*, unsigned long) override { return 0; }
    int WriteInt8(unsigned long, unsigned char) override { return 0; }
    int WriteInt16(unsigned long, unsigned short) override { return 0; }
    int WriteInt32(unsigned long, unsigned int) override { return 0; }
    int WriteInt32_Log(unsigned long, unsigned int) override { return 0; }
    int WriteInt32_LogWithRead(unsigned long, unsigned int) override { return 0; }
    int WriteInt64(unsigned long, unsigned long) override { return 0; }
    long WriteLess128Bytes(unsigned long, unsigned char*, unsigned long) override { return 0; }
    long WriteBytes(unsigned long, unsigned char*, unsigned long) override { return 0; }
};

}  // namespace

// A channel with its services, as a start puts them together.
struct MasterRun::Library {
    explicit Library(const std::string& ini) : config(ini, &card, nullptr) {
        fpga.Init(&card);
        channel.m_pFpgaServ = &fpga;
        channel.m_pContractServ = &contracts;
        channel.m_pBinFile = &file;
        channel.m_bCfgParsed = true;
    }

    NoCard card;
    Vexo2_U50::CZceConfigFile config;
    CZceDmaChanImpl channel{&card, nullptr, &config};
    CBrixBinFile file{channel.m_mapInstIdx, 0};  // never opened: a plan leaves no day file
    Vexo2_U50::CZceFpgaServ fpga{channel.m_mapInstIdx, 0};
    Vexo2_U50::CContractServ contracts{channel.m_mapInstIdx, &config, &file, &fpga, 0, config.getArrayReference()};
};

MasterRun::MasterRun(const std::string& ini) {
    const check::Quiet quiet;
    m_library = std::make_unique<Library>(ini);
    if (m_library->config.Init() != 0) throw std::runtime_error("the library does not start with this file");
    m_library->config.GetBusId();
    m_rulesAreComplete = m_library->config.ParseSubsInst() == 0;
}

MasterRun::~MasterRun() = default;

unsigned int MasterRun::card() const { return m_library->config.m_uiBusId; }
unsigned int MasterRun::channel() const { return m_library->config.m_uiChannelId; }
unsigned int MasterRun::minutesOfDelay() const { return m_library->config.m_binDelayTime; }
const Rules& MasterRun::rulesOf(unsigned int channel) const { return m_library->config.getArrayReference()[channel]; }

void MasterRun::take(const Instruments& instruments) {
    m_channels.reserve(instruments.list.size());
    instruments.isLoaded ? load(instruments) : learn(instruments);
}

void MasterRun::load(const Instruments& instruments) {
    for (const Instrument& one : instruments.list) m_library->channel.m_mapInstIdx.emplace(one.id, one.index);
    m_library->contracts.FilterAndStoreToGlobMap();
    for (const Instrument& one : instruments.list) m_channels.push_back(m_library->contracts.wantedBy(one.id));
}

// The library leaves out some ids. What it has stored last of a row says whether this one is among them.
void MasterRun::learn(const Instruments& instruments) {
    for (const Instrument& one : instruments.list) {
        m_library->channel.LoadtomapFrmParsedMsg(one.id, 0, one.index, 0);
        const Vexo2_U50::IndexToInstId& stored = names(tableOf(one.id));
        const auto row = stored.find(one.index);
        const bool isStored = row != stored.end() && row->second == one.id;
        m_channels.push_back(isStored ? m_library->contracts.wantedBy(one.id) : std::uint16_t{0});
    }
}

const Vexo2_U50::IndexToChanBit& MasterRun::masks(std::size_t table) const {
    return table == card_reg::kSingleLegTable ? m_library->fpga.oneLegChanBits : m_library->fpga.combineChanBits;
}

const Vexo2_U50::IndexToInstId& MasterRun::names(std::size_t table) const {
    return table == card_reg::kSingleLegTable ? m_library->fpga.oneLegNames : m_library->fpga.combineNames;
}

bool MasterRun::learningEnds() {
    // The card repeats its map until it is stopped.
    m_library->channel.m_ulParsedCnt = std::numeric_limits<std::uint32_t>::max();
    return m_library->channel.CheckConfigInst() == 0;
}

bool MasterRun::learningEndsWith(const Rules& only) {
    Rules(&live)[card_reg::kChannels] = m_library->config.getArrayReference();
    AllRules kept;
    std::move(std::begin(live), std::end(live), kept.begin());
    std::fill(std::begin(live), std::end(live), Rules{});
    live[0] = only;
    const bool ends = learningEnds();
    std::move(kept.begin(), kept.end(), std::begin(live));
    return ends;
}

std::vector<std::vector<std::size_t>> selectedByEach(const std::vector<Rules>& rules,
                                                     const std::vector<Instrument>& instruments) {
    std::vector<std::vector<std::size_t>> selected(rules.size());
    for (std::size_t first = 0; first < rules.size(); first += card_reg::kChannels) {
        // One rule for each of the sixteen channels that the filter asks at a time.
        const std::size_t count = std::min<std::size_t>(card_reg::kChannels, rules.size() - first);
        Rules alone[card_reg::kChannels];
        std::copy_n(rules.begin() + static_cast<std::ptrdiff_t>(first), count, std::begin(alone));
        Vexo2_U50::InstIdToIndex none;
        const Vexo2_U50::CContractServ filter(none, nullptr, nullptr, nullptr, 0, alone);
        for (std::size_t i = 0; i < instruments.size(); ++i) {
            const unsigned int wanted = filter.wantedBy(instruments[i].id);
            for (std::size_t n = 0; n < count; ++n)
                if ((wanted >> n & 1) != 0) selected[first + n].push_back(i);
        }
    }
    return selected;
}

}  // namespace vexo::plan
