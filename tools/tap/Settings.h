#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace tap {

// Environment variables; the command `vexo tap` sets them.
inline constexpr char kFileVariable[] = "VEXO_TAP_FILE";            // path of the first file
inline constexpr char kRegistersVariable[] = "VEXO_TAP_REGISTERS";  // 1: record register accesses too
inline constexpr char kJsonVariable[] = "VEXO_TAP_JSON";            // 1: what it reports is JSON
inline constexpr char kRotateVariable[] = "VEXO_TAP_ROTATE_MB";     // no file grows beyond; 0 = any size
inline constexpr char kRotateEveryVariable[] =
    "VEXO_TAP_ROTATE_SECONDS";                                          // files begin anew at multiples of it; 0 = not
inline constexpr char kKeepVariable[] = "VEXO_TAP_KEEP";                // keep so many files; 0 = all
inline constexpr char kKeepSpaceVariable[] = "VEXO_TAP_KEEP_SPACE_MB";  // leave so much of the disk free
inline constexpr char kDurationVariable[] = "VEXO_TAP_DURATION_SECONDS";  // record so long; 0 = to the end
inline constexpr char kRingVariable[] =
    "VEXO_TAP_RING_MB";  // memory of each stream for packets that wait for the writer

inline constexpr char kDefaultFile[] = "vexo.pcapng";
inline constexpr std::uint64_t kDefaultRingMb = 16;
inline constexpr std::uint64_t kMaxRingMb = 4096;
inline constexpr std::uint64_t kMaxRotateMb = 1U << 20;
inline constexpr std::uint64_t kLeastKeptFiles = 2;  // the file that is written, and the one before it
inline constexpr std::uint64_t kMostKeptFiles = 100'000;
inline constexpr std::uint64_t kDefaultKeepSpaceMb = 256;
inline constexpr std::uint64_t kMaxKeepSpaceMb = 1U << 30;
inline constexpr std::uint64_t kMaxSeconds = 10ULL * 366 * 86400;
inline constexpr std::uint64_t kMegabyte = 1U << 20;

/// What the tap captures, and the file for it.
struct Settings {
    std::string file = kDefaultFile;
    bool registers = false;
    std::uint64_t rotateBytes = 0;
    std::uint64_t rotateSeconds = 0;
    std::uint64_t keep = 0;           // 0 = all files
    std::uint64_t keepFreeBytes = 0;  // when files are removed
    std::uint64_t durationSeconds = 0;
    std::size_t ringBytes = kDefaultRingMb * kMegabyte;
};

/// Reports an invalid value on standard error and uses the default instead.
Settings settingsFromEnvironment();
/// The setting `registers` alone. Reports nothing.
bool wantsRegisters();

}  // namespace tap
