// A transport of another release: it has the entry, and refuses the version that it is asked for.

#include "sim/remote/Transport.h"

extern "C" __attribute__((visibility("default"))) vexo_sim::remote::Transport* vexo_remote_transport(
    std::uint32_t version);

vexo_sim::remote::Transport* vexo_remote_transport(std::uint32_t) { return nullptr; }
