#include <cerrno>
#include <thread>

#include "src/log/elog.h"
#include "tests/unit/driver/DrvFixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kNoDevice[] = "ERROR Could not find accelerator. ernno:19, msg:No such device, get acc num:0.";

class CoreLookup : public DrvFixture {
protected:
    int GetCore(unsigned short bus = 0, unsigned short coreId = 474) {
        core = nullptr;
        return DrvEnyxGetCore(bus, coreId, &core, 1);
    }
    // The accelerator of bus 0 in the cache, so that the next calls are those of the register space.
    void OpenAcceleratorFirst() {
        EXPECT_NE(DrvEnyxCoreGetAcc(0), nullptr);
        hw.TakeCalls();
    }

    enyx_hw_core* core = nullptr;
};

// ---- accelerator ----

TEST_F(CoreLookup, OpensTheAcceleratorOfTheBusAndReleasesWhatItNeededForThat) {
    EXPECT_NE(DrvEnyxCoreGetAcc(0), nullptr);

    EXPECT_THAT(hw.TakeCalls(), ElementsAre("filter_create -> filter1", "filter_set_index filter1 0 -> 0",
                                            "enumerate_accelerators filter1 1 -> 1 acc_descriptor1",
                                            "filter_destroy filter1", "accelerator_get acc_descriptor1 -> acc0",
                                            "free_accelerator_descriptors acc_descriptor1 1"));
    EXPECT_THAT(hw.Live(), IsEmpty());
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(CoreLookup, KeepsTheAcceleratorOfABus) {
    enyx_hw_accelerator* const first = DrvEnyxCoreGetAcc(0);
    hw.TakeCalls();

    EXPECT_EQ(DrvEnyxCoreGetAcc(0), first);
    EXPECT_THAT(hw.TakeCalls(), IsEmpty());
}

TEST_F(CoreLookup, ServesBusZeroToNineEachWithItsOwnAccelerator) {
    hw.cards = 10;

    for (unsigned short bus = 0; bus < 10; ++bus) {
        EXPECT_NE(DrvEnyxCoreGetAcc(bus), nullptr);
        const Lines calls = hw.TakeCalls();
        ASSERT_EQ(calls.size(), 6u);
        EXPECT_EQ(calls[1], "filter_set_index filter" + std::to_string(bus + 1) + ' ' + std::to_string(bus) + " -> 0");
        EXPECT_THAT(calls[4], testing::EndsWith(" -> acc" + std::to_string(bus)));
    }
}

TEST_F(CoreLookup, RefusesBusTenAndAboveAsNotFoundWithoutAskingTheCard) {
    hw.cards = 70000;

    for (const std::uint16_t bus : std::vector<std::uint16_t>{10, 11, 255, 256, 65535}) {
        EXPECT_EQ(DrvEnyxCoreGetAcc(bus), nullptr) << bus;
        EXPECT_THAT(log.Take(), ElementsAre(kNoDevice)) << bus;
    }
    EXPECT_THAT(hw.TakeCalls(), IsEmpty());
}

TEST_F(CoreLookup, SaysWhyThereIsNoFilterForTheAccelerator) {
    hw.Fail("filter_create", ENOMEM);

    EXPECT_EQ(DrvEnyxCoreGetAcc(0), nullptr);

    EXPECT_THAT(log.Take(), ElementsAre("ERROR Could not create filter for DMA. errno:12"));
    EXPECT_THAT(hw.TakeCalls(), ElementsAre("filter_create -> null errno=12"));
}

TEST_F(CoreLookup, SaysWhyTheFilterTakesNoBusId) {
    hw.Fail("filter_set_index", EINVAL);

    EXPECT_EQ(DrvEnyxCoreGetAcc(0), nullptr);

    EXPECT_THAT(log.Take(), ElementsAre("ERROR Could not set filter id. errno:22, errMsg:Invalid argument."));
    EXPECT_THAT(hw.TakeCalls(), ElementsAre("filter_create -> filter1", "filter_set_index filter1 0 -> -1 errno=22",
                                            "filter_destroy filter1"));
}

TEST_F(CoreLookup, ABusWithoutACardIsNotFound) {
    hw.AnswerCount("enumerate_accelerators", 0, false, ENODEV);

    EXPECT_EQ(DrvEnyxCoreGetAcc(0), nullptr);

    EXPECT_THAT(log.Take(), ElementsAre(kNoDevice));
    EXPECT_THAT(hw.TakeCalls(), ElementsAre("filter_create -> filter1", "filter_set_index filter1 0 -> 0",
                                            "enumerate_accelerators filter1 1 -> 0", "filter_destroy filter1"));
}

TEST_F(CoreLookup, MoreThanOneCardOnABusIsNotFoundAndTheDescriptorIsFreed) {
    hw.AnswerCount("enumerate_accelerators", 2, true, EEXIST);

    EXPECT_EQ(DrvEnyxCoreGetAcc(0), nullptr);

    EXPECT_THAT(log.Take(), ElementsAre("ERROR Could not find accelerator. ernno:17, msg:File exists, get acc num:2."));
    EXPECT_THAT(hw.TakeCalls(),
                ElementsAre("filter_create -> filter1", "filter_set_index filter1 0 -> 0",
                            "enumerate_accelerators filter1 1 -> 2 acc_descriptor1", "filter_destroy filter1",
                            "free_accelerator_descriptors acc_descriptor1 1"));
}

TEST_F(CoreLookup, AFailedEnumerationOfCardsFreesADescriptorThatWasFilledAllTheSame) {
    hw.AnswerCount("enumerate_accelerators", -1, true, EIO);

    EXPECT_EQ(DrvEnyxCoreGetAcc(0), nullptr);

    EXPECT_THAT(log.Take(),
                ElementsAre("ERROR Could not find accelerator. ernno:5, msg:Input/output error, get acc num:-1."));
    EXPECT_THAT(hw.Live(), IsEmpty());
}

TEST_F(CoreLookup, ACardThatCannotBeOpenedKeepsItsDescriptor) {
    hw.Fail("accelerator_get", EACCES);

    EXPECT_EQ(DrvEnyxCoreGetAcc(0), nullptr);

    EXPECT_THAT(log.Take(), ElementsAre("ERROR Could not get accelerator. errno:13"));
    EXPECT_THAT(hw.Live(), ElementsAre("acc_descriptor1"));
    EXPECT_EQ(hw.Count("free_accelerator_descriptors"), 0u);
}

TEST_F(CoreLookup, AFailedLookUpIsTriedAfreshTheNextTime) {
    hw.Fail("accelerator_get", EACCES);
    EXPECT_EQ(DrvEnyxCoreGetAcc(0), nullptr);

    EXPECT_NE(DrvEnyxCoreGetAcc(0), nullptr);
}

TEST_F(CoreLookup, TheCardIsNotLockedForEverByAFailedLookUp) {
    hw.Fail("filter_create", ENOMEM);
    EXPECT_EQ(DrvEnyxCoreGetAcc(0), nullptr);

    enyx_hw_accelerator* found = nullptr;
    std::thread([&found] { found = DrvEnyxCoreGetAcc(0); }).join();

    EXPECT_NE(found, nullptr);
}

TEST_F(CoreLookup, MessagesOfItsStepsNameTheOperation) {
    elog_set_fmt(ELOG_LVL_ERROR, ELOG_FMT_TAG | ELOG_FMT_FUNC);
    hw.Fail("filter_create", ENOMEM);
    DrvEnyxCoreGetAcc(0);
    EXPECT_THAT(log.Take(), ElementsAre("[fpga](DrvEnyxCoreGetAcc)Could not create filter for DMA. errno:12"));

    hw.Fail("mmio_create", EACCES);
    GetCore();
    EXPECT_THAT(log.Take(),
                testing::Contains("[fpga](DrvEnyxGetRoot)Could not create mmio, errmsg:Permission denied."));
}

// ---- root and cores ----

TEST_F(CoreLookup, TheFirstUseOfABusOpensItsRegistersResetsTheCardAndSleepsOneSecond) {
    EXPECT_EQ(GetCore(), 1);

    EXPECT_THAT(
        hw.TakeCalls(),
        ElementsAre("filter_create -> filter1", "filter_set_index filter1 0 -> 0",
                    "enumerate_accelerators filter1 1 -> 1 acc_descriptor1", "filter_destroy filter1",
                    "accelerator_get acc_descriptor1 -> acc0", "free_accelerator_descriptors acc_descriptor1 1",
                    "filter_create -> filter2", "filter_set_index filter2 0 -> 0",
                    "accelerator_enumerate_mmios acc0 filter2 1 -> 1 mmio_descriptor1", "filter_destroy filter2",
                    "mmio_create mmio_descriptor1 -> mmio1", "free_mmio_descriptors mmio_descriptor1 1",
                    "enumerate_cores mmio1 -> tree1", "core_tree_get_root tree1 -> root1", "core_reset root1 -> 0",
                    "core_enumerate root1 474 1 -> 1 core1"));
    EXPECT_NE(core, nullptr);
    EXPECT_THAT(clock.Sleeps(), ElementsAre(1u));
    EXPECT_THAT(hw.Live(), ElementsAre("mmio1"));
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(CoreLookup, SleepsAfterTheReset) {
    std::size_t callsBeforeTheSleep = 0;
    clock.OnSleep([&](unsigned int) { callsBeforeTheSleep = hw.Count("core_reset") + hw.Count("core_enumerate"); });

    GetCore();

    EXPECT_EQ(callsBeforeTheSleep, 1u);
}

TEST_F(CoreLookup, LaterLookUpsUseTheRootAndResetNothing) {
    GetCore();
    hw.TakeCalls();

    EXPECT_EQ(GetCore(0, 474), 1);

    EXPECT_THAT(hw.TakeCalls(), ElementsAre("core_enumerate root1 474 1 -> 1 core2"));
    EXPECT_THAT(clock.Sleeps(), ElementsAre(1u));
}

TEST_F(CoreLookup, EachBusIsResetByItsOwnFirstLookUp) {
    hw.cards = 2;
    GetCore(0);
    hw.TakeCalls();

    EXPECT_EQ(GetCore(1), 1);

    EXPECT_THAT(hw.TakeCalls(),
                testing::IsSupersetOf({"filter_set_index filter3 1 -> 0",
                                       "accelerator_enumerate_mmios acc1 filter4 1 -> 1 mmio_descriptor2",
                                       "core_reset root2 -> 0"}));
    EXPECT_THAT(clock.Sleeps(), ElementsAre(1u, 1u));
}

TEST_F(CoreLookup, UsesTheAcceleratorThatTheStreamsOpened) {
    OpenAcceleratorFirst();

    EXPECT_EQ(GetCore(), 1);

    EXPECT_EQ(hw.Count("accelerator_get"), 1u);
}

TEST_F(CoreLookup, AResetThatFailsIsNotNoticed) {
    hw.Fail("core_reset", EIO);

    EXPECT_EQ(GetCore(), 1);

    EXPECT_THAT(clock.Sleeps(), ElementsAre(1u));
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(CoreLookup, WithoutAnAcceleratorThereIsNoCore) {
    hw.AnswerCount("enumerate_accelerators", 0, false, ENODEV);

    EXPECT_EQ(GetCore(3, 474), -1);

    EXPECT_THAT(log.Take(), ElementsAre(kNoDevice, "ERROR Get core error. busId:3, coreId:474"));
    EXPECT_EQ(hw.Count("mmio_create"), 0u);
}

TEST_F(CoreLookup, ABusOfTenOrMoreHasNoCore) {
    EXPECT_EQ(GetCore(10, 65535), -1);

    EXPECT_THAT(log.Take(), ElementsAre(kNoDevice, "ERROR Get core error. busId:10, coreId:65535"));
    EXPECT_THAT(hw.TakeCalls(), IsEmpty());
}

// What goes wrong between the accelerator and the root, and what is released for it. The first filter and the
// accelerator's descriptor belong to the look-up of the accelerator before.
struct RootFailure {
    const char* name;
    const char* call;
    int error;
    std::vector<std::string> lines;
    std::vector<std::string> calls;
};

class RootFailures : public CoreLookup, public testing::WithParamInterface<RootFailure> {};

TEST_P(RootFailures, AreLoggedAndReleaseWhatWasMade) {
    OpenAcceleratorFirst();
    hw.Fail(GetParam().call, GetParam().error);

    EXPECT_EQ(GetCore(), -1);

    Lines lines = GetParam().lines;
    lines.push_back("ERROR Get core error. busId:0, coreId:474");
    EXPECT_EQ(log.Take(), lines);
    EXPECT_EQ(hw.TakeCalls(), GetParam().calls);
    EXPECT_THAT(hw.Live(), IsEmpty());
    EXPECT_THAT(clock.Sleeps(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    CoreLookup, RootFailures,
    testing::Values(
        RootFailure{"NoFilter",
                    "filter_create",
                    ENOMEM,
                    {"ERROR Could not create mmio filter, errmsg:Cannot allocate memory."},
                    {"filter_create -> null errno=12"}},
        RootFailure{
            "NoFilterIndex",
            "filter_set_index",
            EINVAL,
            {"ERROR Could not set mmio filter index, errmsg:Invalid argument."},
            {"filter_create -> filter2", "filter_set_index filter2 0 -> -1 errno=22", "filter_destroy filter2"}},
        RootFailure{"EnumerationFails",
                    "accelerator_enumerate_mmios",
                    EIO,
                    {"ERROR Could not find mmio, errmsg:Input/output error."},
                    {"filter_create -> filter2", "filter_set_index filter2 0 -> 0",
                     "accelerator_enumerate_mmios acc0 filter2 1 -> -1 errno=5", "filter_destroy filter2"}},
        RootFailure{"MmioDoesNotOpenSaidTwice",
                    "mmio_create",
                    EACCES,
                    {"ERROR Could not create mmio, errmsg:Permission denied.",
                     "ERROR Could not create mmio, errmsg:Permission denied."},
                    {"filter_create -> filter2", "filter_set_index filter2 0 -> 0",
                     "accelerator_enumerate_mmios acc0 filter2 1 -> 1 mmio_descriptor1", "filter_destroy filter2",
                     "mmio_create mmio_descriptor1 -> null errno=13", "free_mmio_descriptors mmio_descriptor1 1"}},
        RootFailure{"NoTree",
                    "enumerate_cores",
                    EIO,
                    {"ERROR Could not find tree, errmsg:Input/output error."},
                    {"filter_create -> filter2", "filter_set_index filter2 0 -> 0",
                     "accelerator_enumerate_mmios acc0 filter2 1 -> 1 mmio_descriptor1", "filter_destroy filter2",
                     "mmio_create mmio_descriptor1 -> mmio1", "free_mmio_descriptors mmio_descriptor1 1",
                     "enumerate_cores mmio1 -> null errno=5", "mmio_destroy mmio1"}},
        RootFailure{
            "NoRoot",
            "core_tree_get_root",
            ENOENT,
            {"ERROR Could not find root, errmsg:No such file or directory."},
            {"filter_create -> filter2", "filter_set_index filter2 0 -> 0",
             "accelerator_enumerate_mmios acc0 filter2 1 -> 1 mmio_descriptor1", "filter_destroy filter2",
             "mmio_create mmio_descriptor1 -> mmio1", "free_mmio_descriptors mmio_descriptor1 1",
             "enumerate_cores mmio1 -> tree1", "core_tree_get_root tree1 -> null errno=2", "mmio_destroy mmio1"}}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_F(CoreLookup, ACardWithoutARegisterSpaceHasNoCore) {
    hw.AnswerCount("accelerator_enumerate_mmios", 0, false, ENODEV);

    EXPECT_EQ(GetCore(), -1);

    EXPECT_THAT(log.Take(), ElementsAre("ERROR Could not find mmio, errmsg:No such device.",
                                        "ERROR Get core error. busId:0, coreId:474"));
}

TEST_F(CoreLookup, ACardWithTwoRegisterSpacesOfOneIndexHasNoCoreAndTheDescriptorIsFreed) {
    OpenAcceleratorFirst();
    hw.AnswerCount("accelerator_enumerate_mmios", 2, true, EEXIST);

    EXPECT_EQ(GetCore(), -1);

    EXPECT_THAT(log.Take(), ElementsAre("ERROR Could not find mmio, errmsg:File exists.",
                                        "ERROR Get core error. busId:0, coreId:474"));
    EXPECT_THAT(hw.TakeCalls(), ElementsAre("filter_create -> filter2", "filter_set_index filter2 0 -> 0",
                                            "accelerator_enumerate_mmios acc0 filter2 1 -> 2 mmio_descriptor1",
                                            "filter_destroy filter2", "free_mmio_descriptors mmio_descriptor1 1"));
}

TEST_F(CoreLookup, BothLinesOfAFailedMmioNameItsCauseAlsoWhenTheReleaseChangesErrno) {
    hw.Fail("mmio_create", EACCES);
    hw.errnoOfReleases = EXDEV;

    GetCore();

    EXPECT_THAT(log.Take(), ElementsAre("ERROR Could not create mmio, errmsg:Permission denied.",
                                        "ERROR Could not create mmio, errmsg:Permission denied.",
                                        "ERROR Get core error. busId:0, coreId:474"));
}

// A failed tree leaves a destroyed register space in the cache. Whatever fails in the next look-ups, it is not
// destroyed again: the scripted card fails the test at a second destroy.
class StaleRegisterSpace : public CoreLookup, public testing::WithParamInterface<const char*> {};

TEST_P(StaleRegisterSpace, IsNotDestroyedAgainByLaterFailures) {
    hw.Fail("enumerate_cores", EIO);
    EXPECT_EQ(GetCore(), -1);
    hw.Fail(GetParam(), EIO, 1, 2);

    EXPECT_EQ(GetCore(), -1);
    EXPECT_EQ(GetCore(), -1);

    EXPECT_THAT(hw.Live(), IsEmpty());
    EXPECT_EQ(hw.Count("mmio_destroy"), hw.Count("mmio_create") - (GetParam() == std::string("mmio_create") ? 2 : 0));
}

INSTANTIATE_TEST_SUITE_P(CoreLookup, StaleRegisterSpace,
                         testing::Values("filter_create", "filter_set_index", "accelerator_enumerate_mmios",
                                         "mmio_create", "enumerate_cores", "core_tree_get_root"),
                         [](const auto& row) { return std::string(row.param); });

TEST_F(CoreLookup, AfterAFailedTreeTheNextLookUpOpensANewRegisterSpace) {
    hw.Fail("enumerate_cores", EIO);
    GetCore();

    EXPECT_EQ(GetCore(), 1);

    EXPECT_THAT(hw.Live(), ElementsAre("mmio2"));
    EXPECT_THAT(clock.Sleeps(), ElementsAre(1u));
}

TEST_F(CoreLookup, AnEnumerationOfCoresThatFailsIsLogged) {
    hw.Fail("core_enumerate", EIO);

    EXPECT_EQ(GetCore(), -1);

    EXPECT_THAT(log.Take(),
                ElementsAre("ERROR Could not enumerate cores, busId:0, coreId:474. errmsg:Input/output error."));
}

TEST_F(CoreLookup, ACoreThatIsNotThereIsACountOfZeroAndNoError) {
    EXPECT_EQ(GetCore(0, 475), 0);

    EXPECT_EQ(core, nullptr);
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(CoreLookup, TellsHowManyCoresThereAreAndFillsNoMoreThanTheRoom) {
    hw.cores[475] = 3;
    enyx_hw_core* found[3] = {};

    EXPECT_EQ(DrvEnyxGetCore(0, 475, found, 2), 3);

    EXPECT_THAT(found, ElementsAre(testing::NotNull(), testing::NotNull(), testing::IsNull()));
}

TEST_F(CoreLookup, TheLockOfTheCachesIsFreeWhileCoresAreEnumerated) {
    enyx_hw_accelerator* other = nullptr;
    hw.onCall = [&](const char* call) {
        if (call == std::string("core_enumerate")) std::thread([&] { other = DrvEnyxCoreGetAcc(0); }).join();
    };

    GetCore();
    hw.onCall = nullptr;

    EXPECT_NE(other, nullptr);
}

TEST_F(CoreLookup, LookUpsOnSeveralThreadsOpenAndResetTheCardOnce) {
    constexpr std::size_t kThreads = 4;
    int results[kThreads] = {};
    std::vector<std::thread> threads;

    for (int& mine : results) {
        threads.emplace_back([&mine] {
            enyx_hw_core* found = nullptr;
            mine = DrvEnyxGetCore(0, 474, &found, 1);
        });
    }
    for (std::thread& thread : threads) thread.join();

    EXPECT_THAT(results, testing::Each(1));
    EXPECT_EQ(hw.Count("accelerator_get"), 1u);
    EXPECT_EQ(hw.Count("mmio_create"), 1u);
    EXPECT_EQ(hw.Count("core_reset"), 1u);
}

// ---- forgetting ----

TEST_F(CoreLookup, ForgettingReleasesNothing) {
    GetCore();
    hw.TakeCalls();

    DrvEnyxVarClear();

    EXPECT_THAT(hw.TakeCalls(), IsEmpty());
    EXPECT_THAT(hw.Live(), ElementsAre("mmio1"));
}

TEST_F(CoreLookup, AfterForgettingEveryBusIsOpenedAndResetAgain) {
    hw.cards = 10;
    for (unsigned short bus = 0; bus < 10; ++bus) GetCore(bus);

    DrvEnyxVarClear();
    for (unsigned short bus = 0; bus < 10; ++bus) EXPECT_EQ(GetCore(bus), 1) << bus;

    EXPECT_EQ(hw.Count("accelerator_get"), 20u);
    EXPECT_EQ(hw.Count("mmio_create"), 20u);
    EXPECT_EQ(hw.Count("core_reset"), 20u);
    EXPECT_EQ(hw.Count("mmio_destroy"), 0u);
}

TEST_F(CoreLookup, AfterForgettingAFailureDestroysOnlyItsOwnRegisterSpace) {
    GetCore();
    DrvEnyxVarClear();
    hw.Fail("enumerate_cores", EIO);

    EXPECT_EQ(GetCore(), -1);

    EXPECT_THAT(hw.Live(), ElementsAre("mmio1"));
}

}  // namespace
