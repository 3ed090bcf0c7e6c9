#include "src/log/Logger.h"

#include "src/log/elog.h"

CKwLogger::~CKwLogger() { elog_fini(); }

int CKwLogger::Init(int /*level*/, const char* dir, const char* name) {
    if (elog_init(dir, name) != 0) return -1;
    elog_start();
    return 0;
}
