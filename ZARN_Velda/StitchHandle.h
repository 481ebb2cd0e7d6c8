#pragma once

// The stitching library as the stitch processes see it: the library opened
// once from the current directory, its entries linked by name in a fixed
// order and kept with their exact function types, and the library objects
// (image and video stitchers) owned by sub-handles that destroy them exactly
// once.

#include "ZARN_Common/StereoRotCamLibrary.h"
#include "ZARN_Common/StitchLibrary.h"
#include "ZARN_Common/export.h"

#include <type_traits>
#include <utility>
#include <variant>

namespace ZARN {

// The stitching entries of a library, looked up in this order when the
// binding is made; the first name the library does not export stops the
// process ("function : " and the name). LIB names the library's file and
// the entries' function types; the stereo library has one entry more,
// "KIVO_ExecuteISPHandle", linked between the HDR execute and the get-code
// entry.
template <class LIB>
struct StitchBinding {
    DLL mDLL;
    typename LIB::CREATE_OPT_FLOW_STITCH *mCreateOptFlowStitchHandle = nullptr;
    typename LIB::DESTROY_OPT_FLOW_STITCH *mDestroyOptFlowStitchHandle = nullptr;
    typename LIB::INIT_OPT_FLOW_STITCH *mInitOptFlowStitchHandle = nullptr;
    typename LIB::EXECUTE_OPT_FLOW_STITCH *mExecuteOptFlowStitchHandle = nullptr;
    typename LIB::EXECUTE_OPT_FLOW_STITCH_HDR *mExecuteOptFlowStitchHDRHandle = nullptr;
    [[no_unique_address]] std::conditional_t<LIB::HAS_ISP, typename LIB::EXECUTE_ISP *, std::monostate>
        mExecuteISPHandle{};
    typename LIB::GET_OPT_FLOW_STITCH_CODE *mGetOptFlowStitchCode = nullptr;
    typename LIB::CREATE_VIDEO_STITCH *mCreateVideoStitchHandle = nullptr;
    typename LIB::DESTROY_VIDEO_STITCH *mDestroyVideoStitchHandle = nullptr;
    typename LIB::INIT_VIDEO_STITCH *mInitVideoStitchHandle = nullptr;
    typename LIB::EXECUTE_VIDEO_STITCH *mExecuteVideoStitchHandle = nullptr;
    typename LIB::GET_VIDEO_STITCH_CODE *mGetVideoStitchCode = nullptr;

    // Opens "lib" + name + ".so" ("<name>.dll" on Windows) in the current
    // directory and links the entries.
    StitchBinding() {
        mDLL.open(DLL::library_path(LIB::LIBRARY));
        link(mCreateOptFlowStitchHandle, "KIVO_CreateOptFlowStitchHandle");
        link(mDestroyOptFlowStitchHandle, "KIVO_DestroyOptFlowStitchHandle");
        link(mInitOptFlowStitchHandle, "KIVO_InitOptFlowStitchHandle");
        link(mExecuteOptFlowStitchHandle, "KIVO_ExecuteOptFlowStitchHandle");
        link(mExecuteOptFlowStitchHDRHandle, "KIVO_ExecuteOptFlowStitchHDRHandle");
        if constexpr (LIB::HAS_ISP)
            link(mExecuteISPHandle, "KIVO_ExecuteISPHandle");
        link(mGetOptFlowStitchCode, "KIVO_GetOptFlowStitchCode");
        link(mCreateVideoStitchHandle, "KIVO_CreateVideoStitchHandle");
        link(mDestroyVideoStitchHandle, "KIVO_DestroyVideoStitchHandle");
        link(mInitVideoStitchHandle, "KIVO_InitVideoStitchHandle");
        link(mExecuteVideoStitchHandle, "KIVO_ExecuteVideoStitchHandle");
        link(mGetVideoStitchCode, "KIVO_GetVideoStitchCode");
    }

private:
    template <class F>
    void link(F *&entry, const char *name) {
        entry = mDLL.link_as<F>(name);
    }
};

// The stitching library, "libStitch.so" ("Stitch.dll").
struct STITCH_LIBRARY {
    static constexpr const char *LIBRARY = "Stitch";
    static constexpr bool HAS_ISP = false;
    using CREATE_OPT_FLOW_STITCH = StitchLibrary::CREATE_OPT_FLOW_STITCH;
    using DESTROY_OPT_FLOW_STITCH = StitchLibrary::DESTROY_OPT_FLOW_STITCH;
    using INIT_OPT_FLOW_STITCH = StitchLibrary::INIT_OPT_FLOW_STITCH;
    using EXECUTE_OPT_FLOW_STITCH = StitchLibrary::EXECUTE_OPT_FLOW_STITCH;
    using EXECUTE_OPT_FLOW_STITCH_HDR = StitchLibrary::EXECUTE_OPT_FLOW_STITCH_HDR;
    using EXECUTE_ISP = void();
    using GET_OPT_FLOW_STITCH_CODE = StitchLibrary::GET_OPT_FLOW_STITCH_CODE;
    using CREATE_VIDEO_STITCH = StitchLibrary::CREATE_VIDEO_STITCH;
    using DESTROY_VIDEO_STITCH = StitchLibrary::DESTROY_VIDEO_STITCH;
    using INIT_VIDEO_STITCH = StitchLibrary::INIT_VIDEO_STITCH;
    using EXECUTE_VIDEO_STITCH = StitchLibrary::EXECUTE_VIDEO_STITCH;
    using GET_VIDEO_STITCH_CODE = StitchLibrary::GET_VIDEO_STITCH_CODE;
};

// The stereo rotating-camera library, "libStereoRotCam.so" ("StereoRotCam.dll").
struct STEREO_ROT_CAM_LIBRARY {
    static constexpr const char *LIBRARY = "StereoRotCam";
    static constexpr bool HAS_ISP = true;
    using CREATE_OPT_FLOW_STITCH = StereoRotCamLibrary::CREATE_OPT_FLOW_STITCH;
    using DESTROY_OPT_FLOW_STITCH = StereoRotCamLibrary::DESTROY_OPT_FLOW_STITCH;
    using INIT_OPT_FLOW_STITCH = StereoRotCamLibrary::INIT_OPT_FLOW_STITCH;
    using EXECUTE_OPT_FLOW_STITCH = StereoRotCamLibrary::EXECUTE_OPT_FLOW_STITCH;
    using EXECUTE_OPT_FLOW_STITCH_HDR = StereoRotCamLibrary::EXECUTE_OPT_FLOW_STITCH_HDR;
    using EXECUTE_ISP = StereoRotCamLibrary::EXECUTE_ISP;
    using GET_OPT_FLOW_STITCH_CODE = StereoRotCamLibrary::GET_OPT_FLOW_STITCH_CODE;
    using CREATE_VIDEO_STITCH = StereoRotCamLibrary::CREATE_VIDEO_STITCH;
    using DESTROY_VIDEO_STITCH = StereoRotCamLibrary::DESTROY_VIDEO_STITCH;
    using INIT_VIDEO_STITCH = StereoRotCamLibrary::INIT_VIDEO_STITCH;
    using EXECUTE_VIDEO_STITCH = StereoRotCamLibrary::EXECUTE_VIDEO_STITCH;
    using GET_VIDEO_STITCH_CODE = StereoRotCamLibrary::GET_VIDEO_STITCH_CODE;
};

using StitchHandle = StitchBinding<STITCH_LIBRARY>;
using StereoRotStitchHandle = StitchBinding<STEREO_ROT_CAM_LIBRARY>;

// One library object and the call that destroys it; the reference runs
// that call exactly once, when it is dropped.
template <class HANDLE>
using LibraryObject = ORN::UniqueRef<ORN::PACK<HANDLE, ORN::Function<void()>>>;

// Creates a library object with `create` and binds `destroy` to it. A null
// object is fatal.
template <class HANDLE>
LibraryObject<HANDLE> make_library_object(HANDLE (*create)(), void (*destroy)(HANDLE)) {
    ORN::PACK<HANDLE, ORN::Function<void()>> me{_CALL_TRY_(create), nullptr};
    _DYNAMIC_ASSERT_(me.mP1 != nullptr);
    me.mP2 = [destroy, handle = me.mP1] { destroy(handle); };
    return LibraryObject<HANDLE>(std::move(me), [](ORN::PACK<HANDLE, ORN::Function<void()>> &pack) { pack.mP2(); });
}

} // namespace ZARN
