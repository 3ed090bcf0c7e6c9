#include "framework_adapter/Instruments.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/TempDir.h"

namespace {

void ExpectTickAndLot(const Products& products, const std::string& id, std::int64_t tick, std::int64_t lot) {
    const Instrument instrument = products.describe(id);
    EXPECT_EQ(instrument.id, id);
    EXPECT_EQ(instrument.tick, tick) << id;
    EXPECT_EQ(instrument.lot, lot) << id;
}

TEST(Instruments, FutureAndOptionHaveTheirOwnTicks) {
    const Products products(VEXO_PRODUCTS);
    ExpectTickAndLot(products, "SR705", 1 * kYuan, 10);
    ExpectTickAndLot(products, "SR705C6000", kYuan / 2, 10);
    ExpectTickAndLot(products, "CF705P13400", 1 * kYuan, 5);
    ExpectTickAndLot(products, "ZC705", kYuan / 5, 100);
}

TEST(Instruments, CombinationHasTheCoarserTickOfItsLegs) {
    const Products products(VEXO_PRODUCTS);
    ExpectTickAndLot(products, "SPD-SR705/SR709", 1 * kYuan, 10);
    ExpectTickAndLot(products, "IPS-PF705/TA705", 2 * kYuan, 5);
    ExpectTickAndLot(products, "IPS-MA705/UR705", 1 * kYuan, 10);
    ExpectTickAndLot(products, "IPS-OI705/PK705", 2 * kYuan, 10);
}

TEST(Instruments, UnknownProductHasTickZero) {
    const Products products(VEXO_PRODUCTS);
    ExpectTickAndLot(products, "QQ705", 0, 0);
    ExpectTickAndLot(products, "", 0, 0);
    EXPECT_EQ(products.describe("IPS-SR705/QQ705").tick, 0);
    EXPECT_EQ(products.describe("SPD-SR705").tick, 0);
}

TEST(Instruments, FaultInTheFileNamesItsLine) {
    const test_support::TempDir directory;
    const std::string path = directory.Write("products.csv", "# product\nSR,1,0.5,10\nCF,many,1,5\n");
    try {
        const Products products(path);
        FAIL() << "the file was taken";
    } catch (const std::runtime_error& error) {
        EXPECT_EQ(error.what(), path + ":3: not product,tick,option tick,lot");
    }
    EXPECT_THROW(Products(directory.Path("nothere.csv")), std::runtime_error);
}

}  // namespace
