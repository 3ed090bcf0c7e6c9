#ifndef VEXO_ZCE_UTIL_H
#define VEXO_ZCE_UTIL_H

/// @file
/// Checks of the host and small helpers that an application may call next to the market-data interface, before or
/// after start-up. C++11. Everything printed here goes to standard output through stdio, never to the library's log.
/// No function throws or ends the process.

#ifndef VEXO_ZCE_API
#define VEXO_ZCE_API __attribute__((visibility("default")))
#endif

// ---- host checks ----
// They run shell commands, found along PATH, that take some milliseconds each. Call them from one thread, before
// start-up. The host's PCI name database decides what the board commands match.

/// Board type that CheckEnvBoard() found: 0 no supported board, 1 one E board (Enyx), 2 one Xi board (Xilinx),
/// 3 several E boards, 4 several Xi boards, 5 both kinds, 6 not yet detected (initial value).
/// Setting it to 6 makes the next CheckEnvBoard() look again. Not locked.
extern VEXO_ZCE_API unsigned int g_curEnvBrdType;

/// The shell commands that list the boards, one line per board: E boards, then Xi boards.
extern VEXO_ZCE_API const char* g_szBrdChkCmd[2];

/// Which supported boards the host carries. Runs the commands of g_szBrdChkCmd once; later calls return
/// g_curEnvBrdType, even when a card has come or gone since.
/// @return the board type, 0 to 5, as listed at g_curEnvBrdType; 0 also when the commands cannot be run.
VEXO_ZCE_API int CheckEnvBoard();

/// Meant to tell whether the E board driver (hfp) is loaded. It does not.
/// @return true whenever a shell can be started, with or without the module; false only when no shell can be started.
VEXO_ZCE_API bool IsEDriverInstalled();

/// Whether the Xi board driver (xdma) is loaded. @return false also when lsmod cannot be run.
VEXO_ZCE_API bool IsXiDriverInstalled();

/// Whether the host has a supported board and the driver that goes with it.
/// @return -1, with one line printed that says why, when there is no board or the driver of the only kind of board is
///         not loaded; otherwise 0. A host with both kinds always passes: one line names the drivers that are not
///         loaded, or is a single blank when both are. A value above 6 in g_curEnvBrdType is printed and passes.
VEXO_ZCE_API int CheckBeforeRun();

/// Whether the delivery service RwDeliverDmaServer is running on this host.
/// @return true when exactly one such process is listed, or exactly two when the caller's own program name
///         begins with RwDeliverDmaServer. False for more processes than that, and when ps cannot be run.
VEXO_ZCE_API bool IsProdProgRunning();

/// Whether the name of the real user id is "root". @return false also when the user database does not know the id.
/// Same thread rule as GetCurUserName().
VEXO_ZCE_API bool IsCurUserRoot();

/// Name of the real user id.
/// @return the name, owned by the system and valid until the next call into the user database by any thread; an
///         empty text when the user database does not know the id. Never null.
VEXO_ZCE_API const char* GetCurUserName();

// ---- clocks ----
// One clock read each, no allocation, any thread.

/// Real time. @return ns since 1970-01-01 00:00:00 UTC.
VEXO_ZCE_API unsigned long get_time();

/// Real time. @return the same value as get_time().
VEXO_ZCE_API unsigned long BrixGetTimeTamp();

/// Real time elapsed since @p start.
/// @param start ns since 1970, as BrixGetTimeTamp() gave it.
/// @return ns; wraps to a huge number when the clock was set back behind @p start.
VEXO_ZCE_API unsigned long BrixDiffTimeTamp(long start);

/// Monotonic time, which setting the clock does not touch. @return ns from an unspecified point, usually power-on.
VEXO_ZCE_API unsigned long get_time_since_powerof();

/// Busy-waits until the real-time clock shows at least @p start + @p ns. Never sleeps or yields: it uses the CPU
/// fully. A clock that is set back makes the wait longer.
/// @param start ns since 1970, as get_time() gave it.
/// @param ns    ns to wait from @p start; 0 or a negative number reads the clock once.
///              The sum must stay below 2^63.
/// @return the last time read, ns since 1970. Any thread.
VEXO_ZCE_API unsigned long NS_Sleep(long start, long ns);

// ---- calendar ----
// In the process's time zone (TZ). Both use the static result of the C library's localtime. Any thread may call them,
// but not while another thread of the application calls localtime or gmtime.

/// Whether the local calendar day has advanced past the caller's last one.
/// @param lastDay the day seen last as decimal YYYYMMDD, 0 for none yet. Set to today by the first call and
///                whenever the result is 1. Owned by the caller; not to be shared between threads without a lock.
/// @return 1 once when today is later than @p lastDay; otherwise 0, also on the first call, when the clock was set
///         back, and when the C library cannot tell the local time.
VEXO_ZCE_API unsigned long CheckIsRotateDay(unsigned long& lastDay);

/// Whether the local time lies inside a trading session: 09:00:01 to 14:59:59 or 21:00:01 to 23:29:59, every day of the
/// week. The first second of a session (09:00:00, 21:00:00) counts as outside.
/// @return false also when the C library cannot tell the local time.
VEXO_ZCE_API bool ZceIsInTradeTime();

// ---- CPU ----

/// Pins the calling thread to one CPU. Affects no other thread; may be called at any time.
/// @param cpu CPU number, 0 to 1023. A negative number selects no CPU at all and therefore fails.
/// @return 0 on success; otherwise the number of characters of the message printed (it has no line end). The thread
///         then keeps its affinity.
VEXO_ZCE_API int bind_to_cpu(int cpu);

// ---- bytes and files ----

/// Number printed at the head of every line of FillDebugFileHex(); 0 at load. The application may advance it.
extern VEXO_ZCE_API unsigned int g_uiPktCnt;

/// Writes one line to a file: g_uiPktCnt as a signed decimal and "--", together cut off after 9 characters; the data as
/// upper-case hex digits, two per byte; a line feed. Two writes to @p fd, no allocation.
/// @param buffer     working space of the caller; holds the digits and the line feed afterwards, and a terminator
///                   if one fits. May be null only when @p bufferSize is 0.
/// @param bufferSize bytes of @p buffer; one of n bytes takes (n - 1) / 2 bytes of data, so at least 3 to be of use.
///                   Nothing is ever written outside it.
/// @param fd         open file descriptor.
/// @param data       @p length bytes; may be null only when @p length is 0.
/// @param length     bytes of data. What the buffer cannot take is left out, with one line printed that counts it.
/// @return what the second write returned: the bytes written without the head of the line, or -1 with errno set.
/// Any thread, with a buffer of its own.
VEXO_ZCE_API long FillDebugFileHex(char* buffer, unsigned int bufferSize, int fd, unsigned char const* data,
                                   unsigned int length);

/// Checks that the sequence numbers of a slot rise by exactly 1, and stores the new one.
/// @param lastSeqNums the caller's table of 256 last numbers, 0 for none yet. Not to be shared between threads
///                    without a lock.
/// @param seqNum      the new number; stored in the slot in every case.
/// @param slot        index into the table.
/// @return the last number plus 1 when that is @p seqNum, and 1 when there was none yet. On a gap, the number of
///         characters of the one line that is printed. Only the printed line tells a gap for certain.
VEXO_ZCE_API int CheckSeqNumIncre(unsigned int* lastSeqNums, unsigned int seqNum, unsigned char slot);

/// Shifts the high 32-bit half of a number left inside that half; the low half stays, nothing carries over. Any thread.
/// @param v the number.
/// @param n 1 to 31. 64 gives 0; 0 and 32 to 63 give @p v; any other number counts modulo 32.
/// @return the shifted number.
VEXO_ZCE_API unsigned long Uti_MoveLeft64(unsigned long v, int n);

/// Shifts the low 32-bit half of a number right inside that half; the high half stays, nothing carries over.
/// Any thread.
/// @param v the number.
/// @param n as for Uti_MoveLeft64().
/// @return the shifted number.
VEXO_ZCE_API unsigned long Uti_MoveRight64(unsigned long v, int n);

/// Whether the host is big-endian. @return false: the library is built for little-endian hosts.
VEXO_ZCE_API bool Uti_IsBigEndian();

/// Size of a file, symbolic links followed. Any thread.
/// @param path path of the file; null counts as a file that cannot be examined.
/// @return bytes; -1 when the file cannot be examined (errno tells why).
VEXO_ZCE_API long Uti_GetFileSize(const char* path);

// ---- network addresses as text ----
// Any thread. The messages are one line each.

/// Whether a text is a MAC address written as 00:11:22:aa:BB:cc, exactly 17 characters.
/// @param text terminated; null counts as a wrong length. Not changed.
/// @return false, with the first fault from the left printed, when it is not.
VEXO_ZCE_API bool IsValidMac(char* text);

/// Whether a text passes as an IPv4 address: 7 to 15 characters, digits and dots only, at most four numbers from 0 to
/// 255. Lenient: fewer numbers pass, and an empty number counts as 0, so 10.20.30 and 1..2.34 are valid.
/// @param text terminated; null counts as a wrong length. Not changed.
/// @return false, with the first fault from the left printed, when it does not.
VEXO_ZCE_API bool IsValidIp(char* text);

/// Reads four or five decimal numbers separated by dots; an empty number counts as 0. Prints nothing.
/// @param text terminated; characters after the 20th are not looked at.
/// @param out  room for 5 bytes: receives the low byte of each number, the fifth included. On failure it
///             holds the numbers read up to the fault, and the rest is left as it was.
/// @return 0 on success; -1 when there are fewer than four numbers or more than five, at the first character that is
///         neither a digit nor a dot, when the low byte of a number is 34, and when an argument is null.
VEXO_ZCE_API int ipStr2val(const char* text, unsigned char* out);

// ---- the library itself ----

/// Whether the application should have the card reset; true at load. The library never changes it.
extern VEXO_ZCE_API bool g_bFpgaNeedRst;

/// Reads g_bFpgaNeedRst. @return its current value.
VEXO_ZCE_API bool IsNeedFpgaRst();

/// Version of the library. Any thread. @return "1.1.2.13"; static text, valid for ever.
VEXO_ZCE_API const char* GetUpDmaLibVersion();

#endif
