// VideoTransferProcess: HDR parameters and transfer of the stitched videos.

#include "ZARN_Velda/ProcessFrame.h"

namespace ZARN {

class VideoTransferProcess::Private::Implement final : public Frame::ProcessImplement<Implement> {
    ZARN_PROCESS_IMPLEMENT(VideoTransferProcess)

    struct SETTING {
        ORN::int64 mThreadConcurrency = 1; // number of worker threads (one: videos are transferred one at a time)
        ORN::int64 mFileWriterBufferSize = 268435456; // size in bytes of the buffered file writer

        template <class S, class F>
        static void each(S &s, F &&f) {
            f("mThreadConcurrency", s.mThreadConcurrency);
            f("mFileWriterBufferSize", s.mFileWriterBufferSize);
        }
    };

    using ACTIONS = Frame::Actions<ACT_mWorkingPath>;
};

ZARN_DEFINE_PROCESS(VideoTransferProcess)

} // namespace ZARN
