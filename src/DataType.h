#pragma once

// Configuration, card tables, contract filter, identifier helpers and subscription records in one.
#include "DataType/ContractServ.h"
#include "DataType/InstId.h"
#include "DataType/ZceConfigFile.h"
#include "DataType/ZceFpgaServ.h"
#include "DataType/ZceSubsInfo.h"
