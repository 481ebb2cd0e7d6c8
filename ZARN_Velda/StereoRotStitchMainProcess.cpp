// StereoRotStitchMainProcess: Stitching of the stereo rotating camera's captures.

#include "ZARN_Velda/ProcessFrame.h"

namespace ZARN {

class StereoRotStitchMainProcess::Private::Implement final : public Frame::ProcessImplement<Implement> {
    ZARN_PROCESS_IMPLEMENT(StereoRotStitchMainProcess)

    using ACTIONS = Frame::Actions<ACT_mWorkingPath>;
};

ZARN_DEFINE_PROCESS(StereoRotStitchMainProcess)

} // namespace ZARN
