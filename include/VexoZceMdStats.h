/// @file
/// Statistics of an application's market data, for `vexo stat` to show: a wrapper around the callback object.
///
///     class Quotes final : public IVexoZceMdSpi { ... };
///     Quotes quotes;
///     VexoZceMdStats<Quotes> counted(quotes);
///     if (api->VexoStart(counted, "zce.ini") == 0)
///         while (counted.recv(*api) != -1) {}
///
/// A packet costs 25 instructions more, and no lock or system call. Header only, C++11. The page is the
/// file PID.app.page in $VEXO_STATS_DIR, or else in /dev/shm/vexo-stats-UID; it is removed when the process ends. An
/// application that cannot be changed is counted by `vexo tap --stats-only -- ./app`.
#ifndef VEXO_ZCE_MD_STATS_H
#define VEXO_ZCE_MD_STATS_H

#include "VexoZceMdApi.h"
#include "VexoZceMdStatsFile.h"
#include "VexoZceMdStatsPage.h"

#include <pthread.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

namespace vexo_stats {

/// The page that the wrappers of this process share, also those of different libraries. Constructed before anything
/// runs: a child of fork() must not wait for a thread that was about to construct it.
class ApplicationPage {
public:
    constexpr ApplicationPage() = default;
    static ApplicationPage& get() {
        static ApplicationPage page;
        page.begin();
        return page;
    }
    /// A block for a stream: of the page, or of private memory when there is no page or no room in it. A wrapper goes
    /// on in the block that an earlier one of the same channel has left.
    Stream& newStream(std::uint64_t channel) {
        static Stream unseen;
        if (!isThere()) return unseen;
        const Wanted wanted[] = {{kClosed, true}, {kUnused, false}, {kClosed, false}};
        for (const Wanted& one : wanted) {
            for (std::size_t n = 0; n < kStreams; ++n) {
                if (take(stream(n), one, channel)) return stream(n);
            }
        }
        return unseen;
    }
    void noteFirstQuote(std::uint64_t now) {
        if (!isThere()) return;
        std::uint64_t& first = process().steps[kFirstQuote];
        if (first == 0) set(first, now);
    }
    /// Why there is no page; empty when there is one.
    const std::string& error() const {
        static const std::string none;
        static const std::string noMemory = "no memory";
        if (isThere()) return none;
        return m_file != nullptr ? m_file->error() : noMemory;
    }

private:
    struct Wanted {
        StreamState state;
        bool ofThisChannel;
    };

    bool isReady() const { return __atomic_load_n(&m_isReady, __ATOMIC_ACQUIRE); }
    bool isThere() const { return isReady() && m_blocks != nullptr; }
    Process& process() const { return *reinterpret_cast<Process*>(m_blocks); }
    Stream& stream(std::size_t n) const { return *reinterpret_cast<Stream*>(m_blocks + (1 + n) * kBlockBytes); }

    void begin() {
        if (isReady()) return;
        pid_t maker = 0;
        if (__atomic_compare_exchange_n(&m_maker, &maker, ::getpid(), false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE)) {
            make();
            __atomic_store_n(&m_isReady, true, __ATOMIC_RELEASE);
        }
        // Another thread is about it. In a child of fork() there is no such thread, and no page.
        while (!isReady() && __atomic_load_n(&m_maker, __ATOMIC_ACQUIRE) == ::getpid()) {
            const timespec pause = {0, 1000000};
            ::nanosleep(&pause, nullptr);
        }
    }

    void make() {
        ::pthread_atfork(nullptr, nullptr, &leaveToParent);
        m_file = new (std::nothrow) PageFile;
        try {
            // Another library of this process may make a page in the same moment.
            for (int tries = 0; tries < 2 && m_blocks == nullptr && m_file != nullptr; ++tries) {
                m_blocks = m_file->join(kApplication) ? joined() : made();
                m_file->close();
            }
        } catch (const std::bad_alloc&) {
            m_blocks = nullptr;
            m_file = nullptr;
        }
        if (m_blocks != nullptr) std::atexit(&end);
    }
    unsigned char* mapAll() const { return static_cast<unsigned char*>(m_file->map(0, 1 + kStreams)); }
    unsigned char* joined() const {
        unsigned char* const blocks = mapAll();
        if (blocks != nullptr) __atomic_add_fetch(&reinterpret_cast<Process*>(blocks)->users, 1, __ATOMIC_ACQ_REL);
        return blocks;
    }
    unsigned char* made() const {
        unsigned char* const blocks = m_file->make(kApplication) ? mapAll() : nullptr;
        if (blocks == nullptr) return nullptr;
        Process& process = *reinterpret_cast<Process*>(blocks);
        describe(process, kApplication);
        if (m_file->publish(process)) return blocks;
        ::munmap(blocks, kPageBytes);
        return nullptr;
    }

    static bool take(Stream& stream, const Wanted& wanted, std::uint64_t channel) {
        const auto isRight = [&] { return !wanted.ofThisChannel || stream.channel == channel; };
        std::uint64_t state = wanted.state;
        if (!isRight() || !__atomic_compare_exchange_n(&stream.state, &state, kPreparing, false, __ATOMIC_ACQ_REL,
                                                       __ATOMIC_RELAXED)) {
            return false;
        }
        if (!isRight()) {  // another thread took it and left it meanwhile
            set(stream.state, kClosed);
            return false;
        }
        if (!wanted.ofThisChannel) prepare(stream, channel);
        __atomic_store_n(&stream.state, static_cast<std::uint64_t>(kOpen), __ATOMIC_RELEASE);
        return true;
    }
    static void prepare(Stream& stream, std::uint64_t channel) {
        unsigned char* const bytes = reinterpret_cast<unsigned char*>(&stream);
        constexpr std::size_t kState = offsetof(Stream, state);
        constexpr std::size_t kBehind = kState + sizeof stream.state;
        std::memset(bytes, 0, kState);  // the state itself keeps others away
        std::memset(bytes + kBehind, 0, sizeof stream - kBehind);
        describe(stream, kUnknown, channel);
    }

    static void end() {
        ApplicationPage& page = get();
        if (page.isThere()) page.m_file->end(page.process());
    }
    // In a child of fork(): what it counts goes nowhere.
    static void leaveToParent() {
        ApplicationPage& page = get();
        if (page.m_blocks == nullptr) return;
        ::mmap(page.m_blocks, kPageBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
    }

    bool m_isReady = false;
    pid_t m_maker = 0;  // whose thread makes the page, or has made it
    PageFile* m_file = nullptr;
    unsigned char* m_blocks = nullptr;
};

}  // namespace vexo_stats

/// The payload's layout is not known: sequence numbers are not looked at. A class for a known layout has kIsKnown true
/// and an of() that reads the number from the payload; a quote that follows another has the next number.
struct VexoNoSequence {
    static constexpr bool kIsKnown = false;  ///< whether of() tells a number
    /// Reads a payload as a callback gets it. @return the number of its quote; kUnknown is none
    static std::uint64_t of(const unsigned char*) { return 0; }
};

/// Counts what passes to @p Spi. If that class is final, the compiler calls its callbacks directly.
/// @tparam Sequence  tells the sequence number in a payload; see VexoNoSequence
template <class Spi = IVexoZceMdSpi, class Sequence = VexoNoSequence>
class VexoZceMdStats : public IVexoZceMdSpi {
public:
    /// @param inner    must outlive this object
    /// @param channel  to show; the wrapper itself cannot know it
    explicit VexoZceMdStats(Spi& inner, std::uint64_t channel = vexo_stats::kUnknown)
        : m_stream(&vexo_stats::ApplicationPage::get().newStream(channel)), m_inner(inner) {
        if (Sequence::kIsKnown) m_stream->sequenceKnown = 1;
    }
    ~VexoZceMdStats() override {
        __atomic_store_n(&m_stream->state, static_cast<std::uint64_t>(vexo_stats::kClosed), __ATOMIC_RELEASE);
    }
    VexoZceMdStats(const VexoZceMdStats&) = delete;
    VexoZceMdStats& operator=(const VexoZceMdStats&) = delete;

    int OnUpSubsResult17(const unsigned char* data) override { return measured(Type<17>(), data); }
    int OnUpSubsResult18(const unsigned char* data) override { return measured(Type<18>(), data); }
    int OnUpSubsResult19(const unsigned char* data) override { return measured(Type<19>(), data); }
    int OnUpSubsResult20(const unsigned char* data) override { return measured(Type<20>(), data); }

    /// VexoRecv, with its polls counted. Without it the page has no polls.
    /// @param api  the object whose callbacks this one wraps
    /// @return what VexoRecv returns
    int recv(IVexoZceMdApi& api) {
        const int result = api.VexoRecv();
        if (result == 0) {
            vexo_stats::addOne(m_stream->idlePolls);
            m_stream->pollsKnown = 1;
        } else if (result < 0) {
            vexo_stats::addOne(m_stream->failedPolls);
            m_stream->pollsKnown = 1;
        }
        return result;
    }

    /// Asks whether this process has a page. Without one, everything works and nothing is counted.
    /// @return why there is no page; empty when there is one
    static const std::string& error() { return vexo_stats::ApplicationPage::get().error(); }

private:
    template <unsigned kNumber>
    struct Type {
        static constexpr unsigned kType = kNumber;
    };
    void call(Type<17>, const unsigned char* data) { m_inner.OnUpSubsResult17(data); }
    void call(Type<18>, const unsigned char* data) { m_inner.OnUpSubsResult18(data); }
    void call(Type<19>, const unsigned char* data) { m_inner.OnUpSubsResult19(data); }
    void call(Type<20>, const unsigned char* data) { m_inner.OnUpSubsResult20(data); }

    template <class T>
    __attribute__((always_inline)) int measured(T type, const unsigned char* data) {
        const bool isUsual = Sequence::kIsKnown ? Sequence::of(data) == m_next : m_hasBegun;
        if (__builtin_expect(!isUsual, 0)) return measuredSlow(type, data);
        return measureCall(type, data);
    }

    template <class T>
    __attribute__((always_inline)) int measureCall(T type, const unsigned char* data) {
        vexo_stats::Stream& stream = *m_stream;
        const std::uint64_t start = vexo_stats::startNow();
        const std::uint64_t gap = vexo_stats::between(stream.lastPacket, start);
        vexo_stats::set(stream.lastPacket, start);
        vexo_stats::addOne(stream.gaps[vexo_stats::bucketOf(gap)]);
        vexo_stats::addOne(stream.packets[T::kType]);
        if (Sequence::kIsKnown) ++m_next;
        call(type, data);
        const std::uint64_t time = vexo_stats::endNow() - stream.lastPacket;
        vexo_stats::add(stream.callbackClock, time);
        const std::uint64_t bucket = vexo_stats::bucketOf(time);
        vexo_stats::addOne(stream.callbacks[bucket]);
        return static_cast<int>(bucket);  // nobody uses the result, and this one is in its register already
    }

    // The first packet of this wrapper, and one out of turn.
    template <class T>
    __attribute__((noinline, cold)) int measuredSlow(T type, const unsigned char* data) {
        const std::uint64_t sequence = Sequence::of(data);
        bool goesOn = true;
        if (!m_hasBegun) {
            m_hasBegun = true;
            const std::uint64_t now = vexo_stats::startNow();
            vexo_stats::ApplicationPage::get().noteFirstQuote(now);
            vexo_stats::expectFirst(*m_stream, now);
        } else {
            goesOn = vexo_stats::countOutOfTurn(*m_stream, static_cast<std::int64_t>(sequence - m_next));
        }
        m_next = goesOn ? sequence : m_next - 1;  // one is added for this packet
        return measureCall(type, data);
    }

    vexo_stats::Stream* const m_stream;
    Spi& m_inner;
    std::uint64_t m_next = vexo_stats::kUnknown;  // expected sequence number
    bool m_hasBegun = false;
};

#endif
