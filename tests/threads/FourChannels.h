#pragma once

/// Four channels of one card, each on a thread of its own from start to end, while eight threads log and one forks.
namespace four_channels {

constexpr int kChannels = 4;
constexpr int kPackets = 300;  // of each channel
constexpr int kLoggers = 8;
constexpr int kLines = 100;  // of each logger

/// Runs all of it in this process and expects that every channel receives its packets in their order. With the thread
/// sanitizer nothing forks, because it does not follow the fork of a process with several threads.
void Run();

}  // namespace four_channels
