#pragma once

#include <cstdint>
#include <functional>

/// The recorder's calls of the system, in the whole test program: `write` to a file, `linkat`, `unlinkat`, `statvfs`.
/// They do what the system does until a test asks for something else.
namespace recorder_calls {

/// The process is killed at the n-th call of these that changes something, from 1; 0 = never.
extern unsigned g_killAt;
/// With kHalf a write has written half of its bytes by then.
enum class Moment { kBefore, kHalf, kAfter };
extern Moment g_moment;
extern unsigned g_calls;

/// errno of every linkat; 0 = it works.
extern int g_linkError;

/// What statvfs says is free; empty = the truth.
extern std::function<std::uint64_t()> g_freeBytes;

}  // namespace recorder_calls
