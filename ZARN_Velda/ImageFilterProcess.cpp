// ImageFilterProcess: Filtering of the images listed in the region-of-interest plan.

#include "ZARN_Velda/ProcessFrame.h"

namespace ZARN {

class ImageFilterProcess::Private::Implement final : public Frame::ProcessImplement<Implement> {
    ZARN_PROCESS_IMPLEMENT(ImageFilterProcess)

    struct SETTING {
        ORN::int64 mThreadConcurrency = 64; // number of worker threads
        ORN::int64 mFileWriterBufferSize = 268435456; // size in bytes of the buffered file writer

        template <class S, class F>
        static void each(S &s, F &&f) {
            f("mThreadConcurrency", s.mThreadConcurrency);
            f("mFileWriterBufferSize", s.mFileWriterBufferSize);
        }
    };

    using ACTIONS = Frame::Actions<ACT_mWorkingPath>;
};

ZARN_DEFINE_PROCESS(ImageFilterProcess)

} // namespace ZARN
