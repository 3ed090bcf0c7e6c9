#pragma once

#include <enyx-hw-c/enyx_hw.h>

/// Discovery of cards and cores, cached per bus and shared by the register driver and the DMA driver.
/// Any thread may call these; the caches have one lock.

/// The accelerator of a bus (0 to 9), opened once and kept. Null after logging why.
enyx_hw_accelerator* DrvEnyxCoreGetAcc(unsigned short busId);

/// Finds the cores of hardware id @p coreId below the root of a bus. The first use of a bus resets the whole card and
/// sleeps one second.
/// @param cores  room for @p size cores, which the card's core tree owns
/// @return the number of such cores on the card, or -1 after logging why
int DrvEnyxGetCore(unsigned short busId, unsigned short coreId, enyx_hw_core** cores, unsigned long size);

/// Forgets every cached handle without releasing anything: the next look-up opens the card afresh.
void DrvEnyxVarClear();
