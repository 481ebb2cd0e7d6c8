// VeldaMeshProcess: Post-processing of the reconstruction's point cloud and meshes.

#include "ZARN_Velda/ProcessFrame.h"

namespace ZARN {

class VeldaMeshProcess::Private::Implement final : public Frame::ProcessImplement<Implement> {
    ZARN_PROCESS_IMPLEMENT(VeldaMeshProcess)

    struct SETTING {
        ORN::int64 mThreadConcurrency = 64; // number of worker threads
        ORN::int64 mPointCloudSearchCount = 8; // neighbour count of point-cloud searches
        ORN::int64 mFileWriterBufferSize = Frame::DEFAULT_FILE_WRITER_BUFFER_SIZE; // size in bytes of the buffered file writer

        template <class S, class F>
        static void each(S &s, F &&f) {
            f("mThreadConcurrency", s.mThreadConcurrency);
            f("mPointCloudSearchCount", s.mPointCloudSearchCount);
            f("mFileWriterBufferSize", s.mFileWriterBufferSize);
        }
    };

    using ACTIONS = Frame::Actions<ACT_mWorkingPath>;
};

ZARN_DEFINE_PROCESS(VeldaMeshProcess)

} // namespace ZARN
