// VeldaMeshProcess: Post-processing of the reconstruction's point cloud and meshes.

#include "ZARN_Velda/ProcessFrame.h"

namespace ZARN {

class VeldaMeshProcess::Private::Implement final : public Frame::ProcessImplement<Implement> {
    ZARN_PROCESS_IMPLEMENT(VeldaMeshProcess)

    struct SETTING {
        ORN::int64 mThreadConcurrency = 64; // number of worker threads
        ORN::int64 mPointCloudSearchCount = 8; // neighbour count of point-cloud searches
        ORN::int64 mFileWriterBufferSize = 268435456; // size in bytes of the buffered file writer

        template <class S, class F>
        static void each(S &s, F &&f) {
            f("mThreadConcurrency", s.mThreadConcurrency);
            f("mPointCloudSearchCount", s.mPointCloudSearchCount);
            f("mFileWriterBufferSize", s.mFileWriterBufferSize);
        }
    };

    using VAR_mWorkingPath = Frame::VAR_mWorkingPath;
    using CON_mSettingXml = Frame::CON_mSettingXml<Implement>;
    using CON_mSplitDataJson = Frame::CON_mSplitDataJson<Implement>;
    using CON_mSetting = Frame::CON_mSetting<Implement>;
    using CON_mEnableProcess = Frame::CON_mEnableProcess<Implement>;
    using ACT_mWorkingPath = Frame::ACT_mWorkingPath<Implement>;

    using ACTIONS = Frame::Actions<ACT_mWorkingPath>;
};

ZARN_DEFINE_PROCESS(VeldaMeshProcess)

} // namespace ZARN
