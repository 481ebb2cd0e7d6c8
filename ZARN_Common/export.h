#pragma once

// Public face of the shared application code.

#include "__ORN__/orn_array.h"
#include "__ORN__/orn_basic.h"
#include "ZARN_Common/STLStreamLogger.h"
