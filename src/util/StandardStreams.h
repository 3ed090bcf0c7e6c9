#pragma once

#include <atomic>

/// Descriptors 0 to 2. A daemon may have closed them. Then the next files that anybody opens get these numbers.
namespace standard_streams {

extern std::atomic<bool> g_isClosed[3];

/// Moves a new descriptor to a number above 2. With a number from 0 to 2 its file would get what others print. Call it
/// before a record lock is taken: closing the low number would release the lock.
/// @return the descriptor, with close-on-exec when it moved; -1 with errno set when @p fd is negative or cannot move
/// A signal handler may call it.
int moveAbove(int fd);

/// False for a descriptor from 0 to 2 that was found closed when the library was loaded, when the log was set up or
/// when a line was written. It stays false: whatever has that number later may be a file of the application.
/// A signal handler may call it.
inline bool isOurs(int fd) {
    return static_cast<unsigned int>(fd) > 2 || !g_isClosed[fd].load(std::memory_order_relaxed);
}

/// Checks which of the three are closed now.
void noteClosed();

/// @p fd was found closed. Ignores descriptors above 2.
void noteClosed(int fd);

/// printf, for all that the library prints outside its log: silent when standard output is not ours.
/// @return what printf returns, or the length that the text would have had
int print(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// The same to standard error.
void printError(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace standard_streams
