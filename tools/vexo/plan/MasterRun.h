#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "src/card/FpgaServ.h"
#include "src/instruments/SubsInfo.h"
#include "tools/vexo/plan/Instruments.h"

namespace vexo::plan {

using Rules = Vexo2_U50::ZceSubsInfo_t;

/// The start of a program as far as it decides about instruments, by the library's own code and without a card.
class MasterRun {
public:
    /// Loads the configuration and its rules. Throws std::runtime_error when the library does not start with it.
    explicit MasterRun(const std::string& ini);
    ~MasterRun();
    MasterRun(const MasterRun&) = delete;
    MasterRun& operator=(const MasterRun&) = delete;

    unsigned int card() const;
    unsigned int channel() const;
    unsigned int minutesOfDelay() const;
    const Rules& rulesOf(unsigned int channel) const;
    bool rulesAreComplete() const { return m_rulesAreComplete; }  ///< false: the library stopped in the middle of them

    /// Loads or learns the instruments, and subscribes what the rules ask for. Once only.
    void take(const Instruments& instruments);
    /// What it then wrote: the mask of each row of a table, and the row's name in the log.
    const Vexo2_U50::IndexToChanBit& masks(std::size_t table) const;
    const Vexo2_U50::IndexToInstId& names(std::size_t table) const;
    /// The channels that got an instrument, bit n for channel n. One entry for each instrument of the list.
    const std::vector<std::uint16_t>& channelsOf() const { return m_channels; }
    /// Whether learning would end with these rules alone, once the card has announced everything several times.
    bool learningEndsWith(const Rules& only);
    /// The same with all rules of the configuration.
    bool learningEnds();

private:
    struct Library;
    void load(const Instruments& instruments);
    void learn(const Instruments& instruments);

    std::unique_ptr<Library> m_library;
    bool m_rulesAreComplete = false;
    std::vector<std::uint16_t> m_channels;
};

/// Which instruments each rule alone would select, as positions in the list.
std::vector<std::vector<std::size_t>> selectedByEach(const std::vector<Rules>& rules,
                                                     const std::vector<Instrument>& instruments);

}  // namespace vexo::plan
