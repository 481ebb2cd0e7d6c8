#pragma once

// Public face of the shared application code: the run-time library binding
// and the standard stream logger.

#include "__ORN__/orn_array.h"
#include "__ORN__/orn_basic.h"
#include "ZARN_Common/DLL.h"
#include "ZARN_Common/STLStreamLogger.h"
