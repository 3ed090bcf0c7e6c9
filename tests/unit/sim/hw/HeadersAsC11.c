#include "enyx-hw-c/enyx_hw.h"
#include "enyx-sim/enyx_sim.h"

int is_simulated(void);

int is_simulated(void) { return enyx_sim_is_simulated(); }
