#pragma once

#include <sys/types.h>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace test_support {

/// The card's C library, scripted: every function of enyx_hw.h is defined in the test binary and answers from the one
/// FakeEnyxHw that lives. It starts as a healthy card at bus 0 with one register core (474) and 16 streams each way;
/// a test takes away, breaks or scripts what it wants to see fail.
///
/// What no caller may do fails the running test at once: a handle that is null, of another kind or destroyed already
/// (so a double destroy too), a register access without the core's lock, a lock taken twice by one thread, an unlock
/// without a lock. So does a scripted failure that was never met.
///
/// Functions are named here without the prefix "enyx_hw_". They may be called from any thread; the members below
/// belong to the test and are set while no call runs. Handles that outlive the object are not usable with the next.
class FakeEnyxHw {
public:
    static constexpr unsigned kForGood = ~0U;

    FakeEnyxHw();
    ~FakeEnyxHw();
    FakeEnyxHw(const FakeEnyxHw&) = delete;
    FakeEnyxHw& operator=(const FakeEnyxHw&) = delete;

    // ---- what there is ----

    unsigned cards = 1;                                                 ///< at bus 0, 1, ...
    unsigned mmios = 1;                                                 ///< register spaces of a card
    std::map<std::uint16_t, unsigned> cores{{std::uint16_t{474}, 1U}};  ///< hardware id to number of cores
    std::vector<std::string> a2cStreams;                                ///< CUSTOM_CHAN0_DATA to CUSTOM_CHAN15_DATA
    std::vector<std::string> c2aStreams;                                ///< the same
    std::uint32_t a2cMtu = 4096;
    std::uint32_t c2aMtu = 2048;

    struct Counters {
        std::uint32_t backpressure = 0, packets = 0, fifoErrors = 0, errors = 0;
    };
    std::map<std::string, Counters> counters;  ///< by stream name

    // ---- streams ----

    using Bytes = std::vector<std::uint8_t>;
    /// By stream name: each poll hands over the first one, from a buffer of exactly its size.
    std::map<std::string, std::deque<Bytes>> packets;
    std::deque<int> sendResults;  ///< of the next sends, first to last; a result other than 0 is the errno too
    int sendResult = 0;           ///< of every send after those
    /// What was given to sends, with the stream's name, whatever their result.
    std::vector<std::pair<std::string, Bytes>> sent;

    // ---- registers, by word index ----

    std::map<unsigned long, unsigned int> registers;  ///< hold what was last written
    /// What the next reads that begin at a register give, as it stands, first to last; then `registers` again.
    std::map<unsigned long, std::deque<std::uint64_t>> scripted;
    /// When set, 32-bit words go here and not to `registers`. A negative result fails the access with EIO.
    std::function<int(unsigned long word, unsigned int& value)> onReadWord;
    std::function<int(unsigned long word, unsigned int value)> onWriteWord;
    /// Lets a register model answer, such as a FakeDrv with its instrument tables and its own call list. @p drv must
    /// outlive this object's use. A WriteInt32_LogWithRead of the library arrives as one write and one read.
    template <typename Drv>
    void ForwardRegistersTo(Drv& drv) {
        onReadWord = [&drv](unsigned long word, unsigned int& value) { return drv.ReadInt32(word, value); };
        onWriteWord = [&drv](unsigned long word, unsigned int value) { return drv.WriteInt32(word, value); };
    }

    // ---- failures ----

    /// The @p nth call from now on (1 = the next one) and those after it, @p times in all, fail with @p error and do
    /// nothing else: null, -1, or @p error itself from c2a_stream_send.
    void Fail(const std::string& call, int error, unsigned nth = 1, unsigned times = 1);
    /// Every call from now on gives @p result and sets errno when @p error is not 0. A negative result does nothing
    /// else; an accessor with another result still does its work. Not for enumerations, nor for calls that return a
    /// pointer.
    void Answer(const std::string& call, long result, int error = 0);
    /// The same for an enumeration, with one descriptor or core filled in or none, whatever there is.
    void AnswerCount(const std::string& call, long result, bool filled, int error = 0);
    /// Releasing calls leave this errno behind, as they may; 0 = they leave it alone.
    int errnoOfReleases = 0;
    /// Called at the begin of every call, in its thread, the calls of a driver's end included: what it refers to must
    /// live as long as the drivers do. For changes in the midst of an operation.
    std::function<void(const char* call)> onCall;

    // ---- watching ----

    /// The calls since the last TakeCalls, arguments and result as in
    ///     filter_set_index filter1 0 -> 0
    ///     filter_destroy filter1
    ///     enumerate_accelerators filter1 1 -> 1 acc_descriptor1
    ///     a2c_stream_create a2c_descriptor1 null -> null errno=16
    ///     read core1 0x408 0 32 -> 0 0x1010213      (byte address, bit offset, bit width; result, value)
    ///     write core1 0x40 0 32 0x1 -> 0
    ///     c2a_stream_send c2a1 4 -> 0               (stream, size)
    ///     a2c_stream_get_mtu a2c1 -> 0 4096
    /// Objects are numbered by kind from 1 in the order made; accelerators are acc0, acc1 by bus. Calls made by a
    /// packet handler come before the poll that called it. A call that an exception left ends in "-> threw".
    std::vector<std::string> TakeCalls();
    bool record = true;           ///< off: TakeCalls is empty
    bool recordRegisters = true;  ///< off: no lines of core_lock, core_unlock, read and write

    std::size_t Count(const std::string& call) const;  ///< calls of that name so far, recorded or not
    /// What was made and not released: filters, descriptors, register spaces and streams, in the order made.
    std::vector<std::string> Live() const;
    bool Locked() const;  ///< some core is locked at this moment
};

}  // namespace test_support
