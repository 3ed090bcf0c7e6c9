#include "tests/support/CaptureOutput.h"
#include "tests/support/FailingNew.h"
#include "tests/unit/api/ApiFixture.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>
#include <vector>

namespace {

using test_support::CaptureOutput;

class ApiObject : public testing::Test {
protected:
    ~ApiObject() override { delete CDrvEnyxReg::instance; }
};

CVexoZceMdApiImpl& ImplOf(IVexoZceMdApi* api) { return dynamic_cast<CVexoZceMdApiImpl&>(*api); }

// ---- the factory ----

TEST_F(ApiObject, FirstOneMakesTheDriverOfTheProcess) {
    ASSERT_EQ(CDrvEnyxReg::instance, nullptr);

    IVexoZceMdApi* api = IVexoZceMdApi::CreateVexoZceMdApi();

    ASSERT_NE(CDrvEnyxReg::instance, nullptr);
    EXPECT_EQ(ImplOf(api).m_pDrv, CDrvEnyxReg::instance);
    IVexoZceMdApi::DestroyVexoZceMdApi(*api);
}

TEST_F(ApiObject, SecondOneSharesTheDriver) {
    IVexoZceMdApi* first = IVexoZceMdApi::CreateVexoZceMdApi();
    const auto* driver = CDrvEnyxReg::instance;
    IVexoZceMdApi* second = IVexoZceMdApi::CreateVexoZceMdApi();

    EXPECT_EQ(CDrvEnyxReg::instance, driver);
    EXPECT_EQ(ImplOf(second).m_pDrv, driver);
    EXPECT_NE(first, second);
    IVexoZceMdApi::DestroyVexoZceMdApi(*first);
    IVexoZceMdApi::DestroyVexoZceMdApi(*second);
}

TEST_F(ApiObject, NewOneKnowsOnlyItsDriver) {
    IVexoZceMdApi* api = IVexoZceMdApi::CreateVexoZceMdApi();

    EXPECT_EQ(ImplOf(api).m_pDmaChan, nullptr);
    EXPECT_EQ(ImplOf(api).m_pCfgFile, nullptr);
    EXPECT_EQ(ImplOf(api).m_pSpi, nullptr);
    IVexoZceMdApi::DestroyVexoZceMdApi(*api);
}

class FactoryMemory : public ApiObject, public testing::WithParamInterface<int> {};

TEST_P(FactoryMemory, FactoryWithoutItSaysSoAndThrows) {
    CaptureOutput output;
    std::string thrown;
    {
        const FailingNew failing(GetParam());
        try {
            IVexoZceMdApi::CreateVexoZceMdApi();
        } catch (const std::runtime_error& error) {
            thrown = error.what();
        }
    }
    EXPECT_EQ(thrown, "CreateVexoZceMdApi failed");
    EXPECT_EQ(output.Stop(), "New vexo zce impl fail.\n");
}

TEST_P(FactoryMemory, FactoryWorksAgainOnceThereIsSome) {
    {
        const CaptureOutput output;
        const FailingNew failing(GetParam());
        EXPECT_THROW(IVexoZceMdApi::CreateVexoZceMdApi(), std::runtime_error);
    }
    IVexoZceMdApi* api = IVexoZceMdApi::CreateVexoZceMdApi();

    EXPECT_EQ(ImplOf(api).m_pDrv, CDrvEnyxReg::instance);
    IVexoZceMdApi::DestroyVexoZceMdApi(*api);
}

INSTANTIATE_TEST_SUITE_P(ApiObject, FactoryMemory, testing::Values(1, 2), [](const auto& test) {
    return std::string(test.param == 1 ? "ForTheDriver" : "ForTheObject");
});

// ---- the end ----

/// An object of the application that implements the interface itself.
class ForeignApi : public IVexoZceMdApi {
public:
    explicit ForeignApi(bool& ended) : m_ended(ended) {}
    virtual ~ForeignApi() { m_ended = true; }
    int VexoRecvStart(IVexoZceMdSpi&, const char*) override { return 1; }
    int VexoStart(IVexoZceMdSpi&, const char*) override { return 2; }
    int VexoRecv() override { return 3; }

private:
    bool& m_ended;
};

TEST_F(ApiObject, ForeignObjectIsLeftAlone) {
    bool ended = false;
    ForeignApi foreign(ended);

    IVexoZceMdApi::DestroyVexoZceMdApi(foreign);

    EXPECT_FALSE(ended);
    EXPECT_EQ(static_cast<IVexoZceMdApi&>(foreign).VexoRecv(), 3);
}

// What a C++ program may not do and yet does, with a pointer that it did not check.
__attribute__((noinline, no_sanitize("undefined"))) void DestroyWhatIsAt(IVexoZceMdApi* volatile api) {
    IVexoZceMdApi::DestroyVexoZceMdApi(*api);
}

TEST_F(ApiObject, NullReferenceIsIgnored) {
    const auto* driver = CDrvEnyxReg::instance;

    DestroyWhatIsAt(nullptr);

    EXPECT_EQ(CDrvEnyxReg::instance, driver);
}

TEST_F(ApiObject, IsEndedThroughItsVirtualDestructor) {
    class Derived : public CVexoZceMdApiImpl {
    public:
        explicit Derived(bool& ended) : CVexoZceMdApiImpl(nullptr), m_ended(ended) {}
        ~Derived() override { m_ended = true; }

    private:
        bool& m_ended;
    };
    bool ended = false;

    IVexoZceMdApi::DestroyVexoZceMdApi(*new Derived(ended));

    EXPECT_TRUE(ended);
}

TEST_F(ApiObject, OneThatWasNeverStartedLeavesTheDriver) {
    IVexoZceMdApi* api = IVexoZceMdApi::CreateVexoZceMdApi();
    const auto* driver = CDrvEnyxReg::instance;

    IVexoZceMdApi::DestroyVexoZceMdApi(*api);

    EXPECT_EQ(CDrvEnyxReg::instance, driver);
}

// ---- what applications were compiled against ----

/// Slot of a virtual member function, as the C++ ABI of this platform lays it down in a member pointer.
template <typename Member>
std::size_t SlotOf(Member member) {
    std::ptrdiff_t parts[2] = {};
    static_assert(sizeof member == sizeof parts, "a member pointer is an offset and an adjustment");
    std::memcpy(parts, &member, sizeof parts);
    EXPECT_EQ(parts[0] % 8, 1) << "not virtual";
    return static_cast<std::size_t>(parts[0]) / 8;
}

TEST(ApiLayout, OperationsHaveTheirSlots) {
    EXPECT_EQ(SlotOf(&IVexoZceMdApi::VexoRecvStart), 0U);
    EXPECT_EQ(SlotOf(&IVexoZceMdApi::VexoStart), 1U);
    EXPECT_EQ(SlotOf(&IVexoZceMdApi::VexoRecv), 2U);
}

TEST(ApiLayout, CallbacksHaveTheirSlots) {
    EXPECT_EQ(SlotOf(&IVexoZceMdSpi::OnUpSubsResult17), 0U);
    EXPECT_EQ(SlotOf(&IVexoZceMdSpi::OnUpSubsResult18), 1U);
    EXPECT_EQ(SlotOf(&IVexoZceMdSpi::OnUpSubsResult19), 2U);
    EXPECT_EQ(SlotOf(&IVexoZceMdSpi::OnUpSubsResult20), 3U);
}

TEST(ApiLayout, FieldsLieInTheirDocumentedOrder) {
    const CVexoZceMdApiImpl api(nullptr);
    const auto at = [&](const void* field) {
        return static_cast<const char*>(field) - reinterpret_cast<const char*>(&api);
    };
    // Behind the pointer to the virtual functions; the signal base has no fields.
    EXPECT_EQ(at(&api.m_pDmaChan), 8);
    EXPECT_EQ(at(&api.m_pDrv), 16);
    EXPECT_EQ(at(&api.m_pCfgFile), 24);
    EXPECT_EQ(at(&api.m_pSpi), 32);
}

// A packet touches the object's first 64 bytes, which are one cache line only if the object begins on one.
TEST(ApiLayout, EveryObjectBeginsOnACacheLine) {
    std::vector<std::unique_ptr<CVexoZceMdApiImpl>> apis;
    for (int n = 0; n < 32; ++n) {
        apis.emplace_back(new CVexoZceMdApiImpl(nullptr));
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(apis.back().get()) % 64, 0U);
    }
}

TEST(ApiLayout, AnObjectThatThereIsNoMemoryForIsABadAlloc) {
    const FailingNew failing(1);

    EXPECT_THROW(delete new CVexoZceMdApiImpl(nullptr), std::bad_alloc);
}

}  // namespace
