#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace relay {

/// Where a relay keeps what its channel delivers, and how much of it. As of the recorder of `vexo tap`.
struct ArchiveSettings {
    std::string directory;  // empty: no archive
    std::uint64_t rotateBytes = std::uint64_t{100} << 20;
    std::uint64_t rotateEveryNs = 0;
    std::size_t keep = 48;
    std::uint64_t keepFreeBytes = std::uint64_t{256} << 20;
};

}  // namespace relay
