// Contract-map packets: the map from instrument id to the card's index is learned, kept in the day file, and each new
// instrument subscribed.

#include <algorithm>
#include <cstring>
#include <ctime>
#include <exception>
#include <utility>

#include "src/channel/DmaChannel.h"
#include "src/instruments/InstId.h"
#include "src/log/log.h"
#include "src/util/TentativeEntry.h"

namespace {

constexpr char kLogFile[] = "VexoZceUpdmaImpl";

// Contract-map packet: behind the head the length of the message area, then the messages, all numbers big-endian.
constexpr unsigned int kMapPacketMinSize = 15;
constexpr unsigned int kMapAreaLength = 12;
constexpr unsigned int kMapArea = 14;

// A message begins with its own length; the first of a packet has four bytes more in its header than the others.
struct MessageHeader {
    unsigned int flag;
    unsigned int index;
    unsigned int id;  // and so the size of the header
};
constexpr MessageHeader kFirstHeader = {6, 7, 9};
constexpr MessageHeader kLaterHeader = {2, 3, 5};

constexpr unsigned int kMessageLengthSize = 2;
constexpr std::size_t kMaxIdLength = 63;
constexpr std::size_t kMinSubscribedId = 5;
constexpr std::uint64_t kProgressStep = 8192;
constexpr std::uint64_t kAllReceivedCount = 24576;

unsigned int bigEndian16(const unsigned char* p) { return static_cast<unsigned int>(p[0] << 8 | p[1]); }

// An exception that ends a contract-map packet early leaves instruments out of the day file.
class IncompleteUnlessRead {
public:
    explicit IncompleteUnlessRead(CBrixBinFile& file) : m_file(file) {}
    ~IncompleteUnlessRead() {
        if (std::uncaught_exceptions() > m_before) m_file.markIncomplete("its packet could not be read to the end");
    }
    IncompleteUnlessRead(const IncompleteUnlessRead&) = delete;
    IncompleteUnlessRead& operator=(const IncompleteUnlessRead&) = delete;

private:
    CBrixBinFile& m_file;
    const int m_before = std::uncaught_exceptions();
};

std::chrono::system_clock::time_point systemNow() {
    std::timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    const auto sinceEpoch = std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
    return std::chrono::system_clock::time_point(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(sinceEpoch));
}

}  // namespace

int CZceDmaChanImpl::HandleContMapPkt(const unsigned char* pkt, unsigned int len, void* /*ctx*/) {
    if (len < kMapPacketMinSize) return rejectShortPacket(len, "HandleContMapPkt");
    if (m_pContractServ == nullptr) {
        ignoreContractMap();
        return 0;
    }
    const IncompleteUnlessRead incomplete(*m_pBinFile);
    GetConfig();
    LoadtoMapFromMac(pkt, len);
    if (!m_bCfgInsSuccess && CheckConfigInst() == 0) {
        m_bCfgInsSuccess = true;
        m_tCfgSuccTime = systemNow();
        LOG_INFO("check config is success. m_bCfgInsSuccess is %d.", 1);
    }
    if (!m_bCfgInsSuccess) return 0;

    const auto elapsed = std::chrono::duration_cast<std::chrono::seconds>(systemNow() - m_tCfgSuccTime).count();
    if (elapsed > static_cast<long>(m_pCfgFile->m_binDelayTime) * 60) {
        m_pFpgaServ->FpgaCloseTrans();
        m_pBinFile->WriteBinFileEnd();
        LOG_INFO("write bin file is success, snapInitIntervelSeconds is %d.", static_cast<int>(elapsed));
    }
    return 0;
}

void CZceDmaChanImpl::ignoreContractMap() {
    if (m_bMapIgnoredLogged) return;
    m_bMapIgnoredLogged = true;
    LOG_WARN("[channel:%d] Contract map packets are ignored, only channel 0 learns the map!",
             static_cast<int>(m_pCfgFile->m_uiChannelId));
}

void CZceDmaChanImpl::LoadtoMapFromMac(const unsigned char* pkt, unsigned int len) {
    if (len < kMapArea) return;
    const unsigned int end = kMapArea + bigEndian16(pkt + kMapAreaLength) - 1;
    unsigned int pos = kMapArea;
    for (unsigned int msgNo = 0; pos < end; ++msgNo) {
        unsigned int msgLen = 0;
        if (LoadtoMapFromEachMsg(pkt + pos, len - pos, msgNo, msgLen) != 0) {
            LOG_WARN(
                "Bad contract map message, number:%u, offset:%u, packet size:%u! The rest of the packet is dropped.",
                msgNo, pos, len);
            return;
        }
        pos += msgLen;
    }
}

int CZceDmaChanImpl::LoadtoMapFromEachMsg(const unsigned char* msg, unsigned int room, unsigned int msgNo,
                                          unsigned int& msgLen) {
    const MessageHeader& header = msgNo == 0 ? kFirstHeader : kLaterHeader;
    if (room < kMessageLengthSize) return -1;
    msgLen = bigEndian16(msg);
    if (msgLen < header.id || msgLen > room) return -1;

    const auto* text = reinterpret_cast<const char*>(msg + header.id);
    const std::string instId(text, ::strnlen(text, std::min<std::size_t>(msgLen - header.id, kMaxIdLength)));
    LoadtomapFrmParsedMsg(instId, msg[header.flag], static_cast<unsigned short>(bigEndian16(msg + header.index)),
                          msgNo);
    return 0;
}

void CZceDmaChanImpl::LoadtomapFrmParsedMsg(const std::string& instId, unsigned char /*flag*/, unsigned short index,
                                            unsigned int /*msgNo*/) {
    ++m_ulParsedCnt;
    if (m_ulParsedCnt % kProgressStep == 0) {
        LOG_INFO("Have parsed %u instrument id already, instnum:%u.", static_cast<unsigned int>(m_ulParsedCnt),
                 static_cast<unsigned int>(m_mapInstIdx.size()));
    }
    const auto [place, isNew] = m_mapInstIdx.try_emplace(instId, index);
    if (!isNew) return;  // the first index of an id wins

    // All that needs memory comes first: an instrument is learned as a whole or, when an exception ends this, not at
    // all.
    TentativeEntry<Vexo2_U50::InstIdToIndex> entry(m_mapInstIdx, place, isNew);
    std::string lineId = instId;
    std::string instClass = instId.substr(0, 2);
    const bool newClass = !contains(m_vecRecvClass, instClass);
    if (newClass) m_vecRecvClass.reserve(m_vecRecvClass.size() + 1);
    const Vexo2_U50::StoredRow row = storeQuoteSub(instId, index);
    entry.keep();

    m_pBinFile->WriteBinFileInst(std::move(lineId), index);
    if (newClass) m_vecRecvClass.push_back(std::move(instClass));
    m_pFpgaServ->subscribeRow(row);
}

void CZceDmaChanImpl::IncreQuoteSub(const std::string& instId, unsigned short index) {
    m_pFpgaServ->subscribeRow(storeQuoteSub(instId, index));
}

// Stores the instrument for the channels that want it. Without one nothing is stored, and there is no row to write.
Vexo2_U50::StoredRow CZceDmaChanImpl::storeQuoteSub(const std::string& instId, unsigned short index) {
    const bool subscribable = instId.size() >= kMinSubscribedId;
    const unsigned int channels = subscribable ? m_pContractServ->wantedBy(instId) : 0;
    if (channels == 0) return {};
    return m_pFpgaServ->storeForChannels(tableOf(instId), index, instId, channels);
}

int CZceDmaChanImpl::CheckConfigInst() {
    for (std::uint32_t chan = 0; chan < card_reg::kChannels; ++chan) {
        bool allReceived = false;
        const int result = checkConfigOfChannel(chan, allReceived);
        if (result != 0 || allReceived) return result;
    }
    return 0;
}

// 0 when the channel's classes and ids have all been announced. @p allReceived: the whole exchange has been, which
// settles the channels behind this one too.
int CZceDmaChanImpl::checkConfigOfChannel(std::uint32_t chan, bool& allReceived) {
    const Vexo2_U50::ZceSubsInfo_t& rules = m_pCfgFile->getArrayReference()[chan];
    LOG_INFO_IN("CheckConfigInst", "channel is %d, m_SubsContractClass size is %d, m_SubsContractId is %d.",
                static_cast<int>(chan), static_cast<int>(rules.m_SubsContractClass.size()),
                static_cast<int>(rules.m_SubsContractId.size()));
    for (const std::string& cls : rules.m_SubsContractClass) {
        if (cls == "all") {
            allReceived = m_ulParsedCnt > kAllReceivedCount;
            if (allReceived) return 0;
            LOG_INFO_IN("CheckConfigInst", "all inst not recv success, inst type is %s.", cls.c_str());
            return -2;
        }
        if (!contains(m_vecRecvClass, cls)) {
            LOG_INFO_IN("CheckConfigInst", "Prefix is %s.", cls.c_str());
            return -1;
        }
    }
    for (const std::string& id : rules.m_SubsContractId) {
        if (m_mapInstIdx.find(id) != m_mapInstIdx.end()) continue;
        LOG_INFO_IN("CheckConfigInst", "instId is %s .", id.c_str());
        return -2;
    }
    return 0;
}
