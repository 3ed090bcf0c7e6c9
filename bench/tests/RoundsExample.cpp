// Cases for rounds_test.py: they write down in which order they are called.

#include <fstream>

#include "bench/support/Rounds.h"

namespace {

void Note(const std::string& step) { std::ofstream("steps.txt", std::ios::app) << step << '\n'; }

bench::Role Noting(const std::string& name) {
    return {name, [=] { Note(name + " prepare"); }, [=] { Note(name + " run"); }, [=] { Note(name + " finish"); }};
}

bench::Usage OneSwitchMoreEachTime() {
    static bench::Usage used;
    ++used.involuntarySwitches;
    return used;
}

}  // namespace

std::vector<bench::Case> bench::cases() {
    Case order{"order", 7, [] { return std::vector<Role>{Noting("a"), Noting("b")}; }};
    order.end = [] { tellNumber("order/answer", 42); };
    Case elsewhere{"elsewhere", 1, [] { return std::vector<Role>{plainRole("a", [] {})}; }};
    elsewhere.elsewhere = OneSwitchMoreEachTime;
    Case cannot{"cannot", 1, [] { return std::vector<Role>{Noting("never")}; }};
    cannot.cannot = "needs a reason";
    return {order, elsewhere, cannot};
}
