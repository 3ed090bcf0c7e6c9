#pragma once

#include <memory>

#include "tools/data/LayoutFile.h"

namespace tap {

/// The layouts that VEXO_LAYOUT names; without it, the simulated card's own on a simulated card, and none on another.
/// @return null: none. Reports a layout that cannot be used on standard error.
std::unique_ptr<vexo::data::Layouts> knownLayouts();

}  // namespace tap
