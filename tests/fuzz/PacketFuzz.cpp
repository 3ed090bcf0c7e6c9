// Packets of any bytes and any length at every entry of a live channel. What must come of each is told by a model: who
// is called with what, what VexoRecv returns, what the contract map holds afterwards.
//
// An input: a byte of switches, then for each packet a byte that says how it comes in, its length (two bytes, low one
// first) and its bytes.

#include <signal.h>
#include <unistd.h>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "tests/fuzz/Fuzz.h"
#include "tests/fuzz/LiveChannels.h"
#include "tests/fuzz/MapModel.h"
#include "tests/support/TempDir.h"

namespace {

constexpr unsigned int kRunsOfOneStart = 100000;
constexpr unsigned int kRunsOfOneLog = 2000;

enum InputSwitch : std::uint8_t {
    kLearned = 1,      // all that is configured has been announced
    kSignalsDue = 2,   // no market data has come yet
    kManyPackets = 4,  // the 24,576 instrument entries of a whole exchange have been parsed
};

enum PacketSwitch : std::uint8_t {
    kEntry = 3,  // one of Entry
    kThrows = 4,
    kDelayOver = 8,  // the time after which the map is closed has passed
};

enum Entry { kMasterPoll, kOtherPoll, kChannelEntry, kMarketDataHandler };

class Campaign {
public:
    Campaign() {
        fuzz::DropStandardOutput();
        ::sigaction(SIGINT, nullptr, &m_onInt);
        ::sigaction(SIGTERM, nullptr, &m_onTerm);
    }

    void Run(fuzz::Input input) {
        if (m_runs++ % kRunsOfOneStart == 0) {
            m_live.reset();
            m_live = std::make_unique<fuzz::LiveChannels>();
        }
        if (m_runs % kRunsOfOneLog == 0) EmptyLog();
        Prepare(input.Byte());
        while (!input.IsEmpty()) Deliver(input);
        const auto& map = m_live->Master().m_pDmaChan->m_mapInstIdx;
        fuzz::Require(map == m_model.Known(), "the contract map is not what the packets say");
    }

private:
    void Prepare(std::uint8_t switches) {
        m_live->Forget();
        m_model.Clear();
        CZceDmaChanImpl& channel = *m_live->Master().m_pDmaChan;
        channel.m_bCfgInsSuccess = (switches & kLearned) != 0;
        channel.m_tCfgSuccTime = std::chrono::system_clock::now();
        channel.m_ulParsedCnt = (switches & kManyPackets) != 0 ? 24576 : 0;
        if ((switches & kSignalsDue) != 0) CZceDmaChanImpl::m_bSignalRegister = false;
    }

    void Deliver(fuzz::Input& input) {
        const std::uint8_t how = input.Byte();
        std::size_t size = input.Word();
        const std::uint8_t* const data = input.Bytes(size);
        std::uint32_t type = 0;
        if (size >= sizeof type) std::memcpy(&type, data, sizeof type);
        const bool isQuote = size >= 12 && type >= 17 && type <= 20;
        const auto entry = static_cast<Entry>(how & kEntry);
        if (size >= 4 && type == 2 && (entry == kMasterPoll || entry == kChannelEntry)) m_model.Learn(data, size);

        CZceDmaChanImpl& channel = *m_live->Master().m_pDmaChan;
        if ((how & kDelayOver) != 0) channel.m_tCfgSuccTime -= std::chrono::minutes(20);
        m_live->spi.throws = (how & kThrows) != 0;
        m_live->spi.calls = 0;
        fuzz::LiveChannels::Bring(data, size);
        Enter(entry, isQuote, size);
        fuzz::Require(m_live->spi.calls == (isQuote ? 1U : 0U), "the application was not called once a quote");
        if (!isQuote) return;
        fuzz::Require(m_live->spi.type == static_cast<int>(type), "the wrong callback was called");
        fuzz::Require(m_live->spi.data == fuzz::LiveChannels::LastBuffer() + 12, "the payload is not the packet's");
    }

    void Enter(Entry entry, bool isQuote, std::size_t size) {
        CZceDmaChanImpl& channel = *m_live->Master().m_pDmaChan;
        const bool mustThrow = isQuote && m_live->spi.throws;
        bool threw = false;
        try {
            switch (entry) {
                case kMasterPoll: Poll(m_live->Master(), isQuote); break;
                case kOtherPoll: Poll(m_live->Other(), isQuote); break;
                case kChannelEntry:
                    CZceDmaChanImpl::DmaEntrance(fuzz::LiveChannels::LastBuffer(), static_cast<unsigned int>(size),
                                                 &channel);
                    channel.rethrowCallbackError();
                    break;
                case kMarketDataHandler:
                    fuzz::Require(
                        channel.HandleUpSubsResult(fuzz::LiveChannels::LastBuffer(), static_cast<unsigned int>(size),
                                                   &channel) == (isQuote ? 17 : 0),
                        "the handler does not hand back the callback's result");
                    break;
            }
        } catch (const std::runtime_error&) {
            threw = true;
        }
        fuzz::Require(threw == mustThrow, "an exception of the application is lost or made up");
        channel.m_bRecvData = 0;
        RestoreSignals();
    }

    static void Poll(CVexoZceMdApiImpl& api, bool isQuote) {
        fuzz::Require(api.VexoRecv() == (isQuote ? 1 : 0), "VexoRecv returns the wrong number");
        fuzz::Require(api.VexoRecv() == 0, "VexoRecv returns a packet that did not come");
    }

    // The first quote takes over the signals that end a campaign.
    void RestoreSignals() {
        if (!CZceDmaChanImpl::m_bSignalRegister || m_signalsOurs) {
            m_signalsOurs = CZceDmaChanImpl::m_bSignalRegister;
            return;
        }
        m_signalsOurs = true;
        ::sigaction(SIGINT, &m_onInt, nullptr);
        ::sigaction(SIGTERM, &m_onTerm, nullptr);
    }

    static void EmptyLog() {
        for (const auto& entry : std::filesystem::directory_iterator("."))
            fuzz::Require(::truncate(entry.path().c_str(), 0) == 0, "the log cannot be emptied");
    }

    const test_support::TempDir m_dir;
    std::unique_ptr<fuzz::LiveChannels> m_live;
    fuzz::MapModel m_model;
    unsigned int m_runs = 0;
    bool m_signalsOurs = false;
    struct sigaction m_onInt {};  // the fuzzer's own
    struct sigaction m_onTerm {};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Campaign campaign;
    campaign.Run({data, size});
    return 0;
}
