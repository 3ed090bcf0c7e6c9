// Compiles the header alone as an application would, and pins every declaration that applications were built against.
#include "VexoZceUtil.h"

#include <type_traits>

#define EXPECT_TYPE(name, ...) \
    static_assert(std::is_same<decltype(&name), __VA_ARGS__>::value, #name " has changed its type")

EXPECT_TYPE(g_curEnvBrdType, unsigned int*);
EXPECT_TYPE(g_szBrdChkCmd, const char* (*)[2]);
EXPECT_TYPE(g_uiPktCnt, unsigned int*);
EXPECT_TYPE(g_bFpgaNeedRst, bool*);

EXPECT_TYPE(CheckEnvBoard, int (*)());
EXPECT_TYPE(IsEDriverInstalled, bool (*)());
EXPECT_TYPE(IsXiDriverInstalled, bool (*)());
EXPECT_TYPE(CheckBeforeRun, int (*)());
EXPECT_TYPE(IsProdProgRunning, bool (*)());
EXPECT_TYPE(IsCurUserRoot, bool (*)());
EXPECT_TYPE(GetCurUserName, const char* (*)());

EXPECT_TYPE(get_time, unsigned long (*)());
EXPECT_TYPE(NS_Sleep, unsigned long (*)(long, long));
EXPECT_TYPE(BrixGetTimeTamp, unsigned long (*)());
EXPECT_TYPE(BrixDiffTimeTamp, unsigned long (*)(long));
EXPECT_TYPE(get_time_since_powerof, unsigned long (*)());
EXPECT_TYPE(CheckIsRotateDay, unsigned long (*)(unsigned long&));
EXPECT_TYPE(ZceIsInTradeTime, bool (*)());

EXPECT_TYPE(bind_to_cpu, int (*)(int));
EXPECT_TYPE(FillDebugFileHex, long (*)(char*, unsigned int, int, unsigned char const*, unsigned int));
EXPECT_TYPE(CheckSeqNumIncre, int (*)(unsigned int*, unsigned int, unsigned char));
EXPECT_TYPE(Uti_MoveLeft64, unsigned long (*)(unsigned long, int));
EXPECT_TYPE(Uti_MoveRight64, unsigned long (*)(unsigned long, int));
EXPECT_TYPE(Uti_IsBigEndian, bool (*)());
EXPECT_TYPE(Uti_GetFileSize, long (*)(const char*));

EXPECT_TYPE(IsValidMac, bool (*)(char*));
EXPECT_TYPE(IsValidIp, bool (*)(char*));
EXPECT_TYPE(ipStr2val, int (*)(const char*, unsigned char*));

EXPECT_TYPE(IsNeedFpgaRst, bool (*)());
EXPECT_TYPE(GetUpDmaLibVersion, const char* (*)());
