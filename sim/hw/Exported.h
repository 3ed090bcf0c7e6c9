#pragma once

// The library exports only these declarations; everything else is compiled hidden.
#pragma GCC visibility push(default)
#include "enyx-hw-c/enyx_hw.h"
#include "enyx-sim/enyx_sim.h"
#pragma GCC visibility pop
