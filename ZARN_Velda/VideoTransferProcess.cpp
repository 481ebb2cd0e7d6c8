// VideoTransferProcess: HDR parameters and transfer of the stitched videos.

#include "ZARN_Velda/ProcessFrame.h"

namespace ZARN {

class VideoTransferProcess::Private::Implement final : public Frame::ProcessImplement<Implement> {
    ZARN_PROCESS_IMPLEMENT(VideoTransferProcess)

    // One worker: videos are transferred one at a time.
    using SETTING = Frame::WORKER_SETTING<1>;

    using ACTIONS = Frame::Actions<ACT_mWorkingPath>;
};

ZARN_DEFINE_PROCESS(VideoTransferProcess)

} // namespace ZARN
