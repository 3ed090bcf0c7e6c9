#!/usr/bin/env bash
# The library exports what the headers in include/ declare and nothing else.
set -euo pipefail
library=$1
expected="BrixDiffTimeTamp(long)
BrixGetTimeTamp()
CheckBeforeRun()
CheckEnvBoard()
CheckIsRotateDay(unsigned long&)
CheckSeqNumIncre(unsigned int*, unsigned int, unsigned char)
FillDebugFileHex(char*, unsigned int, int, unsigned char const*, unsigned int)
GetCurUserName()
GetUpDmaLibVersion()
IVexoZceMdApi::CreateVexoZceMdApi()
IVexoZceMdApi::DestroyVexoZceMdApi(IVexoZceMdApi&)
IsCurUserRoot()
IsEDriverInstalled()
IsNeedFpgaRst()
IsProdProgRunning()
IsValidIp(char*)
IsValidMac(char*)
IsXiDriverInstalled()
NS_Sleep(long, long)
Uti_GetFileSize(char const*)
Uti_IsBigEndian()
Uti_MoveLeft64(unsigned long, int)
Uti_MoveRight64(unsigned long, int)
ZceIsInTradeTime()
bind_to_cpu(int)
g_bFpgaNeedRst
g_curEnvBrdType
g_szBrdChkCmd
g_uiPktCnt
get_time()
get_time_since_powerof()
ipStr2val(char const*, unsigned char*)"
found=$(nm -D --defined-only -C --without-symbol-versions "$library" | sed -e 's/^[0-9a-f]* . //' -e '/^VEXO_ZCE_MD_1$/d')
LC_ALL=C diff <(LC_ALL=C sort <<<"$expected") <(LC_ALL=C sort <<<"$found")
unversioned=$(nm -D --defined-only -C "$library" | grep -v -e '@@VEXO_ZCE_MD_1$' -e ' A VEXO_ZCE_MD_1$' || true)
[ -z "$unversioned" ] || { echo "without the version: $unversioned" >&2; exit 1; }
