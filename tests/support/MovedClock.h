#pragma once

#include <ctime>

/// A clock for a program of its own, in place of the C library's: time() is moved, and a second of sleep() takes 20 ms.
/// So the program need not wait, and meets no day file of another one. For a program, not for a test: FakeTime can be
/// switched on and off.
namespace moved_clock {

constexpr std::time_t kMorning = 1933374600;  // 2031-04-08 08:30:00 in Shanghai

extern std::time_t g_offset;  // of time(), in seconds

std::time_t RealTime();

}  // namespace moved_clock
