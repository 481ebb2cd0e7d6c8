// StitchMainProcess: Panorama image and video stitching over the stitch plan.

#include "ZARN_Velda/ProcessFrame.h"

namespace ZARN {

class StitchMainProcess::Private::Implement final : public Frame::ProcessImplement<Implement> {
    ZARN_PROCESS_IMPLEMENT(StitchMainProcess)

    using ACTIONS = Frame::Actions<ACT_mWorkingPath>;
};

ZARN_DEFINE_PROCESS(StitchMainProcess)

} // namespace ZARN
