// CalibMainProcess: Camera calibration, analysis and shading.

#include "ZARN_Velda/ProcessFrame.h"

namespace ZARN {

class CalibMainProcess::Private::Implement final : public Frame::ProcessImplement<Implement> {
    ZARN_PROCESS_IMPLEMENT(CalibMainProcess)

    using ACTIONS = Frame::Actions<ACT_mWorkingPath>;
};

ZARN_DEFINE_PROCESS(CalibMainProcess)

} // namespace ZARN
