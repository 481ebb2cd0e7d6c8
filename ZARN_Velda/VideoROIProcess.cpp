// VideoROIProcess: Region-of-interest frames cut from the stitched videos.

#include "ZARN_Velda/ProcessFrame.h"

namespace ZARN {

class VideoROIProcess::Private::Implement final : public Frame::ProcessImplement<Implement> {
    ZARN_PROCESS_IMPLEMENT(VideoROIProcess)

    using VAR_mWorkingPath = Frame::VAR_mWorkingPath;
    using CON_mSettingXml = Frame::CON_mSettingXml<Implement>;
    using CON_mSplitDataJson = Frame::CON_mSplitDataJson<Implement>;
    using CON_mEnableProcess = Frame::CON_mEnableProcess<Implement>;
    using ACT_mWorkingPath = Frame::ACT_mWorkingPath<Implement>;

    using ACTIONS = Frame::Actions<ACT_mWorkingPath>;
};

ZARN_DEFINE_PROCESS(VideoROIProcess)

} // namespace ZARN
