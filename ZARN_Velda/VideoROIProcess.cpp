// VideoROIProcess: Region-of-interest frames cut from the stitched videos.

#include "ZARN_Velda/ProcessFrame.h"

namespace ZARN {

class VideoROIProcess::Private::Implement final : public Frame::ProcessImplement<Implement> {
    ZARN_PROCESS_IMPLEMENT(VideoROIProcess)

    using ACTIONS = Frame::Actions<ACT_mWorkingPath>;
};

ZARN_DEFINE_PROCESS(VideoROIProcess)

} // namespace ZARN
