#pragma once

// The module's exported face: one public class and one factory per process.
// The factories are the only symbols the module exports.

#include "ZARN_Runtime/export.h"

#if defined(_WIN32)
#define ZARN_EXPORT __declspec(dllexport)
#else
#define ZARN_EXPORT __attribute__((visibility("default")))
#endif

namespace ZARN {

#define ZARN_DECLARE_PROCESS(NAME)                                                                                     \
    class NAME {                                                                                                       \
    public:                                                                                                            \
        struct Private {                                                                                               \
            class Implement;                                                                                           \
        };                                                                                                             \
    };                                                                                                                 \
    ZARN_EXPORT ORN::StrongRef<Process> create_##NAME();

ZARN_DECLARE_PROCESS(VeldaMainProcess)
ZARN_DECLARE_PROCESS(VeldaMeshProcess)
ZARN_DECLARE_PROCESS(CalibMainProcess)
ZARN_DECLARE_PROCESS(StitchMainProcess)
ZARN_DECLARE_PROCESS(StereoRotStitchMainProcess)
ZARN_DECLARE_PROCESS(ImageFilterProcess)
ZARN_DECLARE_PROCESS(ImageROIProcess)
ZARN_DECLARE_PROCESS(VideoTransferProcess)
ZARN_DECLARE_PROCESS(VideoROIProcess)

#undef ZARN_DECLARE_PROCESS

} // namespace ZARN
