// The module's build stamp. This file is compiled again whenever any other
// source of the module changes (see CMakeLists.txt), so the stamp is the
// time the module was last built, the same for every process.

#include "ZARN_Velda/ProcessFrame.h"

namespace ZARN::Frame {

const char BUILD_DATE[] = __DATE__;
const char BUILD_TIME[] = __TIME__;

} // namespace ZARN::Frame
