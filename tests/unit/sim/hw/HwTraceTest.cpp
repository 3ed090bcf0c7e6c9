#include "tests/unit/sim/hw/HwFixture.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class Trace : public HwTest {
protected:
    static void record(const char* line, void* context) {
        static_cast<std::vector<std::string>*>(context)->emplace_back(line);
    }
    void start() { enyx_sim_set_trace(record, &lines); }
    std::vector<std::string> stop() {
        enyx_sim_set_trace(nullptr, nullptr);
        return std::move(lines);
    }
    std::vector<std::string> lines;
};

}  // namespace

TEST_F(Trace, NamesEveryCallItsArgumentsAndItsResult) {
    advanceMs(500);
    start();
    {
        enyx_hw_accelerator* accelerator = openAccelerator();
        const Mmio mmio = openMmio(accelerator);
        enyx_hw_core* core = registersOf(mmio);
        enyx_hw_core_reset(rootOf(mmio));
        enyx_hw_core_lock(core);
        writeRegister(core, 0x102, 0x01010213);
        readRegister(core, 0x103);
        enyx_hw_core_unlock(core);
        const UpStream up = openUp(accelerator, 12);
        const DownStream down = openDown(accelerator, 12);
        std::uint32_t value;
        enyx_hw_a2c_stream_get_mtu(up.get(), &value);
        enyx_hw_c2a_stream_get_mtu(down.get(), &value);
        enyx_hw_c2a_stream_send(down.get(), "hello", 5);
        enyx_hw_a2c_stream_stats_get_backpressure(up.get(), &value);
        enyx_hw_a2c_stream_stats_get_packet_count(up.get(), &value);
        enyx_hw_a2c_stream_stats_get_fifo_errors(up.get(), &value);
        enyx_hw_a2c_stream_stats_get_errors(up.get(), &value);
        takeAll(up);
    }
    EXPECT_THAT(
        stop(),
        ElementsAre("enyx_hw_filter_create result=ok",                                                       //
                    "enyx_hw_filter_set_index index=0 result=0",                                             //
                    "enyx_hw_enumerate_accelerators filter_index=0 room=1 result=1",                         //
                    "enyx_hw_filter_destroy filter_index=0",                                                 //
                    "enyx_hw_accelerator_get descriptor=card0 result=ok",                                    //
                    "enyx_hw_free_accelerator_descriptors count=1",                                          //
                    "enyx_hw_filter_create result=ok",                                                       //
                    "enyx_hw_filter_set_index index=0 result=0",                                             //
                    "enyx_hw_accelerator_enumerate_mmios accelerator=card0 filter_index=0 room=1 result=1",  //
                    "enyx_hw_filter_destroy filter_index=0",                                                 //
                    "enyx_hw_mmio_create descriptor=card0 result=ok",                                        //
                    "enyx_hw_free_mmio_descriptors count=1",                                                 //
                    "enyx_hw_enumerate_cores mmio=card0 result=ok",                                          //
                    "enyx_hw_core_tree_get_root tree=card0 result=ok",                                       //
                    "enyx_hw_core_enumerate core=0x0 hardware_id=0x1da room=1 result=1",                     //
                    "enyx_hw_enumerate_cores mmio=card0 result=ok",                                          //
                    "enyx_hw_core_tree_get_root tree=card0 result=ok",                                       //
                    "enyx_hw_core_reset core=0x0 result=0",                                                  //
                    "enyx_hw_core_lock core=0x1da result=0",                                                 //
                    "enyx_hw_write core=0x1da address=0x408 offset=0 width=32 value=0x1010213 result=0",     //
                    "enyx_hw_read core=0x1da address=0x40c offset=0 width=32 value=0x1 result=0",            //
                    "enyx_hw_core_unlock core=0x1da result=0",                                               //
                    "enyx_hw_filter_create result=ok",                                                       //
                    "enyx_hw_filter_set_name name=CUSTOM_CHAN12_DATA result=0",                              //
                    "enyx_hw_accelerator_enumerate_a2c_streams accelerator=card0 "
                    "filter_name=CUSTOM_CHAN12_DATA room=1 result=1",                           //
                    "enyx_hw_a2c_stream_create descriptor=card0/CUSTOM_CHAN12_DATA result=ok",  //
                    "enyx_hw_free_a2c_stream_descriptors count=1",                              //
                    "enyx_hw_filter_destroy filter_name=CUSTOM_CHAN12_DATA",                    //
                    "enyx_hw_filter_create result=ok",                                          //
                    "enyx_hw_filter_set_name name=CUSTOM_CHAN12_DATA result=0",                 //
                    "enyx_hw_accelerator_enumerate_c2a_streams accelerator=card0 "
                    "filter_name=CUSTOM_CHAN12_DATA room=1 result=1",                                  //
                    "enyx_hw_c2a_stream_create descriptor=card0/CUSTOM_CHAN12_DATA result=ok",         //
                    "enyx_hw_free_c2a_stream_descriptors count=1",                                     //
                    "enyx_hw_filter_destroy filter_name=CUSTOM_CHAN12_DATA",                           //
                    "enyx_hw_a2c_stream_get_mtu stream=card0/CUSTOM_CHAN12_DATA value=4096 result=0",  //
                    "enyx_hw_c2a_stream_get_mtu stream=card0/CUSTOM_CHAN12_DATA value=4096 result=0",  //
                    "enyx_hw_c2a_stream_send stream=card0/CUSTOM_CHAN12_DATA size=5 result=0",         //
                    "enyx_hw_a2c_stream_stats_get_backpressure stream=card0/CUSTOM_CHAN12_DATA value=0 result=0",
                    "enyx_hw_a2c_stream_stats_get_packet_count stream=card0/CUSTOM_CHAN12_DATA value=0 result=0",
                    "enyx_hw_a2c_stream_stats_get_fifo_errors stream=card0/CUSTOM_CHAN12_DATA value=0 result=0",
                    "enyx_hw_a2c_stream_stats_get_errors stream=card0/CUSTOM_CHAN12_DATA value=0 result=0",  //
                    "enyx_hw_a2c_stream_poll_once stream=card0/CUSTOM_CHAN12_DATA result=0",                 //
                    "enyx_hw_c2a_stream_destroy stream=card0/CUSTOM_CHAN12_DATA",                            //
                    "enyx_hw_a2c_stream_destroy stream=card0/CUSTOM_CHAN12_DATA",                            //
                    "enyx_hw_mmio_destroy mmio=card0"));
}

TEST_F(Trace, ShowsNullArgumentsAndErrors) {
    start();
    enyx_hw_filter_set_name(nullptr, nullptr);
    enyx_hw_enumerate_accelerators(nullptr, nullptr, 1);
    enyx_hw_accelerator_get(nullptr);
    enyx_hw_accelerator_enumerate_mmios(nullptr, nullptr, nullptr, 0);
    enyx_hw_mmio_create(nullptr);
    enyx_hw_mmio_destroy(nullptr);
    enyx_hw_enumerate_cores(nullptr);
    enyx_hw_core_tree_get_root(nullptr);
    enyx_hw_read(nullptr, nullptr, nullptr);
    enyx_hw_a2c_stream_create(nullptr, nullptr);
    enyx_hw_a2c_stream_get_mtu(nullptr, nullptr);
    enyx_hw_c2a_stream_create(nullptr, nullptr);
    enyx_hw_c2a_stream_send(nullptr, nullptr, 0);
    EXPECT_THAT(stop(),
                ElementsAre("enyx_hw_filter_set_name name=null result=-1 errno=22",
                            "enyx_hw_enumerate_accelerators filter=null room=1 result=-1 errno=22",
                            "enyx_hw_accelerator_get descriptor=null result=null errno=22",
                            "enyx_hw_accelerator_enumerate_mmios accelerator=null filter=null room=0 "
                            "result=-1 errno=22",
                            "enyx_hw_mmio_create descriptor=null result=null errno=22",
                            "enyx_hw_mmio_destroy mmio=null", "enyx_hw_enumerate_cores mmio=null result=null errno=22",
                            "enyx_hw_core_tree_get_root tree=null result=null errno=22",
                            "enyx_hw_read core=null register=null value=0x0 result=-1 errno=22",
                            "enyx_hw_a2c_stream_create descriptor=null result=null errno=22",
                            "enyx_hw_a2c_stream_get_mtu stream=null value=0 result=-1 errno=22",
                            "enyx_hw_c2a_stream_create descriptor=null result=null errno=22",
                            "enyx_hw_c2a_stream_send stream=null size=0 result=22"));
}

TEST_F(Trace, RecognisesDestroyedHandles) {
    enyx_hw_accelerator* accelerator = openAccelerator();
    Mmio mmio = openMmio(accelerator);
    Filter filter(enyx_hw_filter_create());
    enyx_hw_filter* deadFilter = filter.get();
    enyx_hw_core* core = registersOf(mmio);
    filter.reset();
    mmio.reset();
    start();
    enyx_hw_filter_destroy(deadFilter);
    enyx_hw_core_lock(core);
    EXPECT_THAT(stop(),
                ElementsAre("enyx_hw_filter_destroy filter=dead", "enyx_hw_core_lock core=dead result=-1 errno=22"));
}

TEST_F(Trace, AFilterThatLetsEverythingThroughIsCalledAll) {
    const Filter filter(enyx_hw_filter_create());
    start();
    enyx_hw_enumerate_accelerators(filter.get(), nullptr, 0);
    EXPECT_THAT(stop(), ElementsAre("enyx_hw_enumerate_accelerators filter=all room=0 result=1"));
}

TEST_F(Trace, ShowsScriptedResults) {
    const Mmio mmio = openMmio(openAccelerator());
    enyx_hw_core* core = registersOf(mmio);
    enyx_sim_fail_call("enyx_hw_write", 1, EIO, 0);
    start();
    errno = 0;
    writeRegister(core, 0x11, 3);
    EXPECT_EQ(errno, EIO);
    EXPECT_THAT(stop(), ElementsAre("enyx_hw_write core=0x1da address=0x44 offset=0 width=32 value=0x3 "
                                    "result=-1 errno=5"));
}

TEST_F(Trace, LeavesErrnoAsTheCallLeftIt) {
    enyx_sim_set_trace([](const char*, void*) { errno = ERANGE; }, nullptr);
    EXPECT_FAILS(enyx_hw_filter_set_index(nullptr, 0), EINVAL);
}

TEST_F(Trace, CallsInsideAHandlerComeBeforeTheirPoll) {
    const Mmio mmio = openMmio(openAccelerator());
    enyx_hw_core* core = registersOf(mmio);
    const UpStream stream = openUp(openAccelerator(), 0);
    enyx_sim_push(0, 0, "x", 1, 0);
    start();
    const auto writer = [](const std::uint8_t*, std::uint32_t, void* context) {
        writeRegister(static_cast<enyx_hw_core*>(context), 0x106, 1);
    };
    enyx_hw_a2c_stream_poll_once(stream.get(), writer, core);
    EXPECT_THAT(stop(), ElementsAre("enyx_hw_write core=0x1da address=0x418 offset=0 width=32 value=0x1 result=0",
                                    "enyx_hw_a2c_stream_poll_once stream=card0/CUSTOM_CHAN0_DATA result=1"));
}

TEST_F(Trace, EndsWhenTold) {
    start();
    stop();
    openAccelerator();
    EXPECT_THAT(lines, IsEmpty());
}

TEST_F(Trace, SurvivesAPowerCycle) {
    start();
    enyx_sim_power_cycle(nullptr);
    const Filter filter(enyx_hw_filter_create());
    EXPECT_THAT(stop(), ElementsAre("enyx_hw_filter_create result=ok"));
}
