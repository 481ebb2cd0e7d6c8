// ImageFilterProcess: Filtering of the images listed in the region-of-interest plan.

#include "ZARN_Velda/ProcessFrame.h"

namespace ZARN {

class ImageFilterProcess::Private::Implement final : public Frame::ProcessImplement<Implement> {
    ZARN_PROCESS_IMPLEMENT(ImageFilterProcess)

    using SETTING = Frame::WORKER_SETTING<64>;

    using ACTIONS = Frame::Actions<ACT_mWorkingPath>;
};

ZARN_DEFINE_PROCESS(ImageFilterProcess)

} // namespace ZARN
