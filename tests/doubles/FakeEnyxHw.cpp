#include "tests/doubles/FakeEnyxHw.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <memory>

#include "enyx-hw-c/enyx_hw.h"
#include "tests/doubles/FakeEnyxHwCall.h"

namespace test_support {

using namespace fake_hw;

namespace {

struct Found {
    std::uint32_t index;
    std::string name;
};

bool Matches(const Handle& filter, const Found& object) {
    return (!filter.index || *filter.index == object.index) && (filter.name.empty() || filter.name == object.name);
}

std::vector<Found> Numbered(unsigned count) {
    std::vector<Found> objects;
    for (std::uint32_t i = 0; i < count; ++i) objects.push_back({i, {}});
    return objects;
}

std::vector<Found> Named(const std::vector<std::string>& names) {
    std::vector<Found> objects;
    for (const std::string& name : names) objects.push_back({static_cast<std::uint32_t>(objects.size()), name});
    return objects;
}

// Fills up to `room` entries of an array of handles and ends the call; `make` builds the i-th object that was found.
template <typename T, typename MakeOne>
ssize_t ReturnCount(Call& call, T** out, std::size_t room, std::size_t found, MakeOne make) {
    long result = static_cast<long>(found);
    std::size_t toFill = std::min(found, room);
    const auto* answered = call.Fixed();
    if (answered != nullptr) {
        result = answered->result;
        toFill = answered->filled ? std::min<std::size_t>(1, room) : 0;
        if (answered->error != 0) errno = answered->error;
    }
    std::string text;
    for (std::size_t i = 0; i < toFill; ++i) {
        const void* made = make(i);
        out[i] = As<T>(made);
        text += (i == 0 ? "" : " ") + S().handles.at(made).label;
    }
    call.Status(static_cast<int>(result), text);
    return result;
}

template <typename T>
ssize_t Enumerate(Call& call, std::uint32_t bus, const enyx_hw_filter* filter, const std::vector<Found>& objects,
                  Kind kind, T** out, std::size_t room) {
    const Handle* wanted = call.Use(filter, Kind::kFilter);
    call.Arg(room);
    if (call.Fails()) return call.Failure();
    std::vector<Found> found;
    for (const Found& object : objects)
        if (Matches(*wanted, object)) found.push_back(object);
    return ReturnCount(call, out, room, found.size(), [&](std::size_t i) {
        // An answer may want a descriptor filled in although nothing matched.
        const Found object = i < found.size() ? found[i] : Found{bus, wanted->name};
        return Make(Handle(kind, kind == Kind::kAccDesc ? object.index : bus, object.name));
    });
}

template <typename T>
void FreeDescriptors(const char* name, T** descriptors, std::size_t count, Kind kind) {
    Call call(name);
    for (std::size_t i = 0; i < count; ++i) {
        Handle* handle = call.Use(descriptors[i], kind);
        if (handle != nullptr) handle->live = false;
    }
    call.Arg(count);
    call.Released(nullptr);
}

void Release(const char* name, const void* address, Kind kind) {
    Call call(name);
    Handle* handle = call.Use(address, kind);
    for (auto& [other, dependent] : S().handles)
        if (handle != nullptr && dependent.mmio == handle) dependent.live = false;
    call.Released(handle);
}

// Opens what a descriptor describes.
const void* OpenFrom(const Handle& descriptor, Kind kind) {
    return Make(Handle(kind, descriptor.bus, descriptor.name));
}

bool IsHeld(const Handle& stream) {
    for (const auto& [address, other] : S().handles)
        if (other.live && other.kind == Kind::kA2c && other.bus == stream.bus && other.name == stream.name) return true;
    return false;
}

template <typename Get>
int GetNumber(const char* name, const void* stream, Kind kind, std::uint32_t* value, Get get) {
    Call call(name);
    const Handle* handle = call.Use(stream, kind);
    if (call.Fails()) return call.Failure();
    if (call.IsAnswered()) return call.Answered();
    *value = get(*handle);
    return call.Done(std::to_string(*value));
}

int GetCounter(const char* name, const void* stream, std::uint32_t* value, std::uint32_t FakeEnyxHw::Counters::*which) {
    return GetNumber(name, stream, Kind::kA2c, value,
                     [&](const Handle& handle) { return S().fake->counters[handle.name].*which; });
}

void CheckLocked(Call& call, const Handle* core) {
    if (core == nullptr) return;
    const CoreLockState& lock = S().locks[{core->bus, core->hardwareId}];
    if (lock.held && lock.owner == std::this_thread::get_id()) return;
    call.Misuse("without the lock of the core");
}

void NoteField(Call& call, const enyx_hw_register_description& reg) {
    call.Arg(Hex(reg.address)).Arg(reg.bit_offset).Arg(reg.bit_width);
    if (reg.address % 4 != 0 || reg.bit_width == 0 || reg.bit_width > 64 || reg.bit_width % 8 != 0)
        call.Misuse("of a field that is no register");
}

std::uint64_t WidthMask(unsigned bits) { return bits >= 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << bits) - 1; }

int ReadWord(unsigned long word, unsigned int& value) {
    FakeEnyxHw& fake = *S().fake;
    if (fake.onReadWord) return fake.onReadWord(word, value);
    const auto found = fake.registers.find(word);
    value = found == fake.registers.end() ? 0 : found->second;
    return 0;
}

int WriteWord(unsigned long word, unsigned int value) {
    FakeEnyxHw& fake = *S().fake;
    if (fake.onWriteWord) return fake.onWriteWord(word, value);
    fake.registers[word] = value;
    return 0;
}

int ReadField(const enyx_hw_register_description& reg, std::uint64_t& value) {
    const unsigned long word = reg.address / 4;
    auto& scripted = S().fake->scripted[word];
    if (!scripted.empty()) {
        value = scripted.front();
        scripted.pop_front();
        return 0;
    }
    value = 0;
    for (unsigned bit = 0; bit < reg.bit_width; bit += 32) {
        unsigned int part = 0;
        if (ReadWord(word + bit / 32, part) < 0) return -1;
        value |= std::uint64_t{part} << bit;
    }
    value &= WidthMask(reg.bit_width);
    return 0;
}

int WriteField(const enyx_hw_register_description& reg, std::uint64_t value) {
    for (unsigned bit = 0; bit < reg.bit_width; bit += 32) {
        const unsigned long word = reg.address / 4 + bit / 32;
        const auto mask = static_cast<unsigned int>(WidthMask(std::min(reg.bit_width - bit, 32U)));
        unsigned int merged = static_cast<unsigned int>(value >> bit) & mask;
        unsigned int old = 0;
        if (mask != ~0U && ReadWord(word, old) < 0) return -1;
        merged |= old & ~mask;
        if (WriteWord(word, merged) < 0) return -1;
    }
    return 0;
}

}  // namespace

FakeEnyxHw::FakeEnyxHw() {
    for (int channel = 0; channel < 16; ++channel)
        a2cStreams.push_back("CUSTOM_CHAN" + std::to_string(channel) + "_DATA");
    c2aStreams = a2cStreams;
    const std::lock_guard<std::mutex> guard(S().mutex);
    if (S().fake != nullptr) ADD_FAILURE() << "two FakeEnyxHw at a time";
    S().fake = this;
}

FakeEnyxHw::~FakeEnyxHw() {
    const std::lock_guard<std::mutex> guard(S().mutex);
    State& s = S();
    for (const Script& script : s.scripts)
        if (!script.met) ADD_FAILURE() << "no call met the scripted failure of " << script.call;
    for (const auto& [call, answer] : s.answers)
        if (s.counts.count(call) == 0) ADD_FAILURE() << "no call met the answer of " << call;
    for (const auto& [core, lock] : s.locks)
        if (lock.held) ADD_FAILURE() << "a core is still locked";
    s.fake = nullptr;
    s.handles.clear();
    s.order.clear();
    std::fill(std::begin(s.made), std::end(s.made), 0U);
    s.locks.clear();
    s.scripts.clear();
    s.answers.clear();
    s.counts.clear();
    s.lines.clear();
}

void FakeEnyxHw::Fail(const std::string& call, int error, unsigned nth, unsigned times) {
    const std::lock_guard<std::mutex> guard(S().mutex);
    S().scripts.push_back({call, error, nth - 1, times});
}

void FakeEnyxHw::Answer(const std::string& call, long result, int error) {
    const std::lock_guard<std::mutex> guard(S().mutex);
    S().answers[call] = {result, false, error};
}

void FakeEnyxHw::AnswerCount(const std::string& call, long result, bool filled, int error) {
    const std::lock_guard<std::mutex> guard(S().mutex);
    S().answers[call] = {result, filled, error};
}

std::vector<std::string> FakeEnyxHw::TakeCalls() {
    const std::lock_guard<std::mutex> guard(S().mutex);
    std::vector<std::string> lines;
    lines.swap(S().lines);
    return lines;
}

std::size_t FakeEnyxHw::Count(const std::string& call) const {
    const std::lock_guard<std::mutex> guard(S().mutex);
    const auto found = S().counts.find(call);
    return found == S().counts.end() ? 0 : found->second;
}

std::vector<std::string> FakeEnyxHw::Live() const {
    const std::lock_guard<std::mutex> guard(S().mutex);
    std::vector<std::string> labels;
    for (const void* address : S().order) {
        const Handle& handle = S().handles.at(address);
        if (handle.live && IsReleasable(handle.kind)) labels.push_back(handle.label);
    }
    return labels;
}

bool FakeEnyxHw::Locked() const {
    const std::lock_guard<std::mutex> guard(S().mutex);
    for (const auto& [core, lock] : S().locks)
        if (lock.held) return true;
    return false;
}

}  // namespace test_support

using namespace test_support;
using namespace test_support::fake_hw;

extern "C" {

// ---- filters ----

enyx_hw_filter* enyx_hw_filter_create(void) {
    Call call("filter_create");
    if (call.Fails()) return call.Null();
    return call.Object<enyx_hw_filter>(Make(Handle(Kind::kFilter)));
}

int enyx_hw_filter_set_index(enyx_hw_filter* filter, uint32_t index) {
    Call call("filter_set_index");
    Handle* handle = call.Use(filter, Kind::kFilter);
    call.Arg(index);
    if (call.Fails()) return call.Failure();
    handle->index = index;
    return call.Done();
}

int enyx_hw_filter_set_name(enyx_hw_filter* filter, const char* name) {
    Call call("filter_set_name");
    Handle* handle = call.Use(filter, Kind::kFilter);
    call.Arg(name);
    if (call.Fails()) return call.Failure();
    handle->name = name;
    return call.Done();
}

void enyx_hw_filter_destroy(enyx_hw_filter* filter) { Release("filter_destroy", filter, Kind::kFilter); }

// ---- accelerators ----

ssize_t enyx_hw_enumerate_accelerators(const enyx_hw_filter* filter, enyx_hw_accelerator_descriptor** descriptors,
                                       size_t count) {
    Call call("enumerate_accelerators");
    const unsigned cards = call.Fails() ? 0 : S().fake->cards;
    return Enumerate(call, 0, filter, Numbered(cards), Kind::kAccDesc, descriptors, count);
}

enyx_hw_accelerator* enyx_hw_accelerator_get(const enyx_hw_accelerator_descriptor* descriptor) {
    Call call("accelerator_get");
    const Handle* handle = call.Use(descriptor, Kind::kAccDesc);
    if (call.Fails()) return call.Null();
    const std::string label = "acc" + std::to_string(handle->bus);
    for (const auto& [address, other] : S().handles)
        if (other.label == label) return call.Object<enyx_hw_accelerator>(address);
    return call.Object<enyx_hw_accelerator>(Make(Handle(Kind::kAcc, handle->bus), label));
}

void enyx_hw_free_accelerator_descriptors(enyx_hw_accelerator_descriptor** descriptors, size_t count) {
    FreeDescriptors("free_accelerator_descriptors", descriptors, count, Kind::kAccDesc);
}

// ---- register space and cores ----

ssize_t enyx_hw_accelerator_enumerate_mmios(const enyx_hw_accelerator* accelerator, const enyx_hw_filter* filter,
                                            enyx_hw_mmio_descriptor** descriptors, size_t count) {
    Call call("accelerator_enumerate_mmios");
    const Handle* acc = call.Use(accelerator, Kind::kAcc);
    const unsigned mmios = call.Fails() ? 0 : S().fake->mmios;
    return Enumerate(call, acc != nullptr ? acc->bus : 0, filter, Numbered(mmios), Kind::kMmioDesc, descriptors, count);
}

enyx_hw_mmio* enyx_hw_mmio_create(const enyx_hw_mmio_descriptor* descriptor) {
    Call call("mmio_create");
    const Handle* handle = call.Use(descriptor, Kind::kMmioDesc);
    if (call.Fails()) return call.Null();
    return call.Object<enyx_hw_mmio>(OpenFrom(*handle, Kind::kMmio));
}

void enyx_hw_mmio_destroy(enyx_hw_mmio* mmio) { Release("mmio_destroy", mmio, Kind::kMmio); }

void enyx_hw_free_mmio_descriptors(enyx_hw_mmio_descriptor** descriptors, size_t count) {
    FreeDescriptors("free_mmio_descriptors", descriptors, count, Kind::kMmioDesc);
}

enyx_hw_core_tree* enyx_hw_enumerate_cores(enyx_hw_mmio* mmio) {
    Call call("enumerate_cores");
    const Handle* handle = call.Use(mmio, Kind::kMmio);
    if (call.Fails()) return call.Null();
    return call.Object<enyx_hw_core_tree>(Make(Handle(Kind::kTree, *handle)));
}

enyx_hw_core* enyx_hw_core_tree_get_root(enyx_hw_core_tree* tree) {
    Call call("core_tree_get_root");
    const Handle* handle = call.Use(tree, Kind::kTree);
    if (call.Fails()) return call.Null();
    return call.Object<enyx_hw_core>(Make(Handle(Kind::kRoot, *handle->mmio)));
}

int enyx_hw_core_reset(enyx_hw_core* core) {
    Call call("core_reset");
    call.Use(core, Kind::kRoot);
    return call.Fails() ? call.Failure() : call.Done();
}

ssize_t enyx_hw_core_enumerate(enyx_hw_core* root, uint16_t hardware_id, enyx_hw_core** cores, size_t count) {
    Call call("core_enumerate");
    const Handle* handle = call.Use(root, Kind::kRoot);
    call.Arg(hardware_id).Arg(count);
    if (call.Fails()) return call.Failure();
    const auto found = S().fake->cores.find(hardware_id);
    return ReturnCount(call, cores, count, found == S().fake->cores.end() ? 0 : found->second, [&](std::size_t) {
        Handle core(Kind::kCore, *handle->mmio);
        core.hardwareId = hardware_id;
        return Make(core);
    });
}

int enyx_hw_core_lock(enyx_hw_core* core) {
    Call call("core_lock", true);
    const Handle* handle = call.Use(core, Kind::kCore);
    if (call.Fails()) return call.Failure();
    CoreLockState& lock = S().locks[{handle->bus, handle->hardwareId}];
    if (lock.held && lock.owner == std::this_thread::get_id()) {
        call.Misuse("by the thread that holds the lock");
        call.FailWith(EDEADLK);
        return call.Failure();
    }
    S().unlocked.wait(call.Lock(), [&] { return !lock.held; });
    lock = {true, std::this_thread::get_id()};
    return call.Done();
}

int enyx_hw_core_unlock(enyx_hw_core* core) {
    Call call("core_unlock", true);
    const Handle* handle = call.Use(core, Kind::kCore);
    CheckLocked(call, handle);
    if (call.Fails()) return call.Failure();
    S().locks[{handle->bus, handle->hardwareId}].held = false;
    S().unlocked.notify_all();
    return call.Done();
}

// ---- registers ----

int enyx_hw_read(enyx_hw_core* core, const enyx_hw_register_description* reg, uint64_t* value) {
    Call call("read", true);
    CheckLocked(call, call.Use(core, Kind::kCore));
    NoteField(call, *reg);
    if (call.Fails()) return call.Failure();
    if (call.IsAnswered()) return call.Answered();
    if (call.Outside([&] { return ReadField(*reg, *value); }) < 0) {
        call.FailWith(EIO);
        return call.Failure();
    }
    return call.Done(Hex(*value));
}

int enyx_hw_write(enyx_hw_core* core, const enyx_hw_register_description* reg, uint64_t value) {
    Call call("write", true);
    CheckLocked(call, call.Use(core, Kind::kCore));
    NoteField(call, *reg);
    call.Arg(Hex(value));
    if (call.Fails()) return call.Failure();
    if (call.IsAnswered()) return call.Answered();
    if (call.Outside([&] { return WriteField(*reg, value); }) < 0) {
        call.FailWith(EIO);
        return call.Failure();
    }
    return call.Done();
}

// ---- card-to-host streams ----

ssize_t enyx_hw_accelerator_enumerate_a2c_streams(const enyx_hw_accelerator* accelerator, const enyx_hw_filter* filter,
                                                  enyx_hw_a2c_stream_descriptor** descriptors, size_t count) {
    Call call("accelerator_enumerate_a2c_streams");
    const Handle* acc = call.Use(accelerator, Kind::kAcc);
    const auto streams = call.Fails() ? std::vector<Found>() : Named(S().fake->a2cStreams);
    return Enumerate(call, acc != nullptr ? acc->bus : 0, filter, streams, Kind::kA2cDesc, descriptors, count);
}

enyx_hw_a2c_stream* enyx_hw_a2c_stream_create(const enyx_hw_a2c_stream_descriptor* descriptor,
                                              const void* configuration) {
    Call call("a2c_stream_create");
    const Handle* handle = call.Use(descriptor, Kind::kA2cDesc);
    call.Arg(configuration == nullptr ? "null" : "configuration");
    if (!call.Fails() && IsHeld(*handle)) call.FailWith(EBUSY);
    if (call.Fails()) return call.Null();
    return call.Object<enyx_hw_a2c_stream>(OpenFrom(*handle, Kind::kA2c));
}

void enyx_hw_free_a2c_stream_descriptors(enyx_hw_a2c_stream_descriptor** descriptors, size_t count) {
    FreeDescriptors("free_a2c_stream_descriptors", descriptors, count, Kind::kA2cDesc);
}

int enyx_hw_a2c_stream_get_mtu(const enyx_hw_a2c_stream* stream, uint32_t* mtu) {
    return GetNumber("a2c_stream_get_mtu", stream, Kind::kA2c, mtu, [](const Handle&) { return S().fake->a2cMtu; });
}

int enyx_hw_a2c_stream_poll_once(enyx_hw_a2c_stream* stream, enyx_hw_a2c_stream_handler handler, void* context) {
    Call call("a2c_stream_poll_once");
    const Handle* handle = call.Use(stream, Kind::kA2c);
    if (call.Fails()) return call.Failure();
    if (call.IsAnswered()) return call.Answered();
    auto& waiting = S().fake->packets[handle->name];
    if (waiting.empty()) return call.Done();
    const FakeEnyxHw::Bytes packet = std::move(waiting.front());
    waiting.pop_front();
    // A buffer without spare room, so that the sanitizer sees a read past the packet.
    const std::unique_ptr<std::uint8_t[]> exact(new std::uint8_t[packet.size()]);
    std::copy(packet.begin(), packet.end(), exact.get());
    call.Outside([&] { handler(exact.get(), static_cast<std::uint32_t>(packet.size()), context); });
    return call.Status(1);
}

int enyx_hw_a2c_stream_stats_get_backpressure(const enyx_hw_a2c_stream* stream, uint32_t* value) {
    return GetCounter("a2c_stream_stats_get_backpressure", stream, value, &FakeEnyxHw::Counters::backpressure);
}

int enyx_hw_a2c_stream_stats_get_packet_count(const enyx_hw_a2c_stream* stream, uint32_t* value) {
    return GetCounter("a2c_stream_stats_get_packet_count", stream, value, &FakeEnyxHw::Counters::packets);
}

int enyx_hw_a2c_stream_stats_get_fifo_errors(const enyx_hw_a2c_stream* stream, uint32_t* value) {
    return GetCounter("a2c_stream_stats_get_fifo_errors", stream, value, &FakeEnyxHw::Counters::fifoErrors);
}

int enyx_hw_a2c_stream_stats_get_errors(const enyx_hw_a2c_stream* stream, uint32_t* value) {
    return GetCounter("a2c_stream_stats_get_errors", stream, value, &FakeEnyxHw::Counters::errors);
}

void enyx_hw_a2c_stream_destroy(enyx_hw_a2c_stream* stream) { Release("a2c_stream_destroy", stream, Kind::kA2c); }

// ---- host-to-card streams ----

ssize_t enyx_hw_accelerator_enumerate_c2a_streams(const enyx_hw_accelerator* accelerator, const enyx_hw_filter* filter,
                                                  enyx_hw_c2a_stream_descriptor** descriptors, size_t count) {
    Call call("accelerator_enumerate_c2a_streams");
    const Handle* acc = call.Use(accelerator, Kind::kAcc);
    const auto streams = call.Fails() ? std::vector<Found>() : Named(S().fake->c2aStreams);
    return Enumerate(call, acc != nullptr ? acc->bus : 0, filter, streams, Kind::kC2aDesc, descriptors, count);
}

enyx_hw_c2a_stream* enyx_hw_c2a_stream_create(const enyx_hw_c2a_stream_descriptor* descriptor,
                                              const void* configuration) {
    Call call("c2a_stream_create");
    const Handle* handle = call.Use(descriptor, Kind::kC2aDesc);
    call.Arg(configuration == nullptr ? "null" : "configuration");
    if (call.Fails()) return call.Null();
    return call.Object<enyx_hw_c2a_stream>(OpenFrom(*handle, Kind::kC2a));
}

void enyx_hw_free_c2a_stream_descriptors(enyx_hw_c2a_stream_descriptor** descriptors, size_t count) {
    FreeDescriptors("free_c2a_stream_descriptors", descriptors, count, Kind::kC2aDesc);
}

int enyx_hw_c2a_stream_get_mtu(const enyx_hw_c2a_stream* stream, uint32_t* mtu) {
    return GetNumber("c2a_stream_get_mtu", stream, Kind::kC2a, mtu, [](const Handle&) { return S().fake->c2aMtu; });
}

int enyx_hw_c2a_stream_send(enyx_hw_c2a_stream* stream, const void* data, uint32_t size) {
    Call call("c2a_stream_send");
    const Handle* handle = call.Use(stream, Kind::kC2a);
    call.Arg(size);
    if (!call.Fails()) {
        FakeEnyxHw& fake = *S().fake;
        const auto* bytes = static_cast<const std::uint8_t*>(data);
        fake.sent.emplace_back(handle->name, FakeEnyxHw::Bytes(bytes, bytes + size));
        int result = fake.sendResult;
        if (!fake.sendResults.empty()) {
            result = fake.sendResults.front();
            fake.sendResults.pop_front();
        }
        if (result == 0) return call.Done();
        call.FailWith(result);
    }
    return call.FailureAsResult();
}

void enyx_hw_c2a_stream_destroy(enyx_hw_c2a_stream* stream) { Release("c2a_stream_destroy", stream, Kind::kC2a); }

}  // extern "C"
