// VeldaMainProcess: Structure from motion over the capture and publication of its up-down and AR results.

#include "ZARN_Velda/ProcessFrame.h"

namespace ZARN {

class VeldaMainProcess::Private::Implement final : public Frame::ProcessImplement<Implement> {
    ZARN_PROCESS_IMPLEMENT(VeldaMainProcess)

    struct SETTING {
        ORN::int64 mFileWriterBufferSize = 268435456; // size in bytes of the buffered file writer

        template <class S, class F>
        static void each(S &s, F &&f) {
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

ZARN_DEFINE_PROCESS(VeldaMainProcess)

} // namespace ZARN
