// ImageROIProcess: Panorama repair over the stitch plan.

#include "ZARN_Velda/ProcessFrame.h"

namespace ZARN {

class ImageROIProcess::Private::Implement final : public Frame::ProcessImplement<Implement> {
    ZARN_PROCESS_IMPLEMENT(ImageROIProcess)

    using ACTIONS = Frame::Actions<ACT_mWorkingPath>;
};

ZARN_DEFINE_PROCESS(ImageROIProcess)

} // namespace ZARN
