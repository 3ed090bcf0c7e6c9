#include "sim/card/Products.h"

namespace vexo_sim {
namespace {

constexpr std::uint16_t month(int n) { return static_cast<std::uint16_t>(1U << n); }
constexpr std::uint16_t kEvery = 0x1FFE;
constexpr std::uint16_t kOdd = month(1) | month(3) | month(5) | month(7) | month(9) | month(11);
constexpr std::uint16_t kApple = month(1) | month(3) | month(4) | month(5) | month(10) | month(11) | month(12);
constexpr std::uint16_t kJujube = month(1) | month(3) | month(5) | month(7) | month(9) | month(12);
constexpr std::uint16_t kPeanut = month(1) | month(3) | month(4) | month(10) | month(11) | month(12);
constexpr std::uint16_t kMeal = month(1) | month(3) | month(5) | month(7) | month(8) | month(9) | month(11);
constexpr std::uint16_t kRapeseed = month(7) | month(8) | month(9) | month(11);

constexpr Product kGeneric = {"", kEvery, 5000, 10000, 10, 0, 0};

}  // namespace

const Product kProducts[kProductCount] = {
    // code  months   price  tick   lot  strikes  option tick
    {"AP", kApple, 7500, 10000, 10, 100, 5000},   //  0 apple
    {"CF", kOdd, 13500, 50000, 5, 200, 10000},    //  1 cotton
    {"CJ", kJujube, 9500, 50000, 5, 100, 10000},  //  2 jujube
    {"CY", kEvery, 19500, 50000, 5, 0, 0},        //  3 cotton yarn
    {"FG", kEvery, 1100, 10000, 20, 20, 5000},    //  4 flat glass
    {"JR", kOdd, 3000, 10000, 20, 0, 0},          //  5 japonica rice
    {"LR", kOdd, 2800, 10000, 20, 0, 0},          //  6 late indica rice
    {"MA", kEvery, 2500, 10000, 10, 25, 5000},    //  7 methanol
    {"OI", kOdd, 8500, 10000, 10, 100, 5000},     //  8 rapeseed oil
    {"PF", kEvery, 7000, 20000, 5, 100, 5000},    //  9 polyester staple fibre
    {"PK", kPeanut, 8200, 20000, 5, 100, 5000},   // 10 peanut
    {"PL", kEvery, 6500, 10000, 20, 100, 5000},   // 11 propylene
    {"PM", kOdd, 2800, 10000, 50, 0, 0},          // 12 common wheat
    {"PR", kEvery, 6200, 20000, 15, 100, 5000},   // 13 bottle chip
    {"PX", kEvery, 7000, 20000, 5, 100, 5000},    // 14 paraxylene
    {"RI", kOdd, 2700, 10000, 20, 0, 0},          // 15 early rice
    {"RM", kMeal, 2500, 10000, 10, 25, 5000},     // 16 rapeseed meal
    {"RS", kRapeseed, 5800, 10000, 10, 0, 0},     // 17 rapeseed
    {"SA", kEvery, 1400, 10000, 20, 20, 5000},    // 18 soda ash
    {"SF", kEvery, 6200, 20000, 5, 100, 5000},    // 19 ferrosilicon
    {"SH", kEvery, 2700, 10000, 30, 40, 5000},    // 20 caustic soda
    {"SM", kEvery, 6200, 20000, 5, 100, 5000},    // 21 manganese silicon
    {"SR", kOdd, 6000, 10000, 10, 100, 5000},     // 22 white sugar
    {"TA", kEvery, 5000, 20000, 5, 50, 5000},     // 23 terephthalic acid
    {"UR", kEvery, 1800, 10000, 20, 20, 5000},    // 24 urea
    {"WH", kOdd, 2600, 10000, 20, 0, 0},          // 25 strong gluten wheat
    {"ZC", kEvery, 800, 2000, 100, 0, 0},         // 26 thermal coal
};

const ProductPair kPairs[kPairCount] = {
    {1, 3},    // CF CY
    {4, 18},   // FG SA
    {7, 24},   // MA UR
    {8, 10},   // OI PK
    {8, 16},   // OI RM
    {9, 23},   // PF TA
    {14, 23},  // PX TA
    {19, 21},  // SF SM
};

const Product& productOf(const char* id) {
    for (const Product& product : kProducts)
        if (id[0] == product.code[0] && id[1] == product.code[1]) return product;
    return kGeneric;
}

}  // namespace vexo_sim
