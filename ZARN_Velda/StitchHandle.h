#pragma once

// The stitching library as the stitch processes see it: the library opened
// once from the current directory, its entries linked by name in a fixed
// order and kept with their exact function types, and the library objects
// (image and video stitchers) owned by sub-handles that destroy them exactly
// once.

#include "ZARN_Common/StitchLibrary.h"
#include "ZARN_Common/export.h"

#include <utility>

namespace ZARN {

// The library's entries, looked up in this order when the binding is made;
// the first name the library does not export stops the process ("function
// : " and the name).
struct StitchHandle {
    using CREATE_IMAGE = StitchLibrary::CREATE_OPT_FLOW_STITCH;
    using DESTROY_IMAGE = StitchLibrary::DESTROY_OPT_FLOW_STITCH;
    using CREATE_VIDEO = StitchLibrary::CREATE_VIDEO_STITCH;
    using DESTROY_VIDEO = StitchLibrary::DESTROY_VIDEO_STITCH;

    DLL mDLL;
    StitchLibrary::CREATE_OPT_FLOW_STITCH *mCreateOptFlowStitchHandle = nullptr;
    StitchLibrary::DESTROY_OPT_FLOW_STITCH *mDestroyOptFlowStitchHandle = nullptr;
    StitchLibrary::INIT_OPT_FLOW_STITCH *mInitOptFlowStitchHandle = nullptr;
    StitchLibrary::EXECUTE_OPT_FLOW_STITCH *mExecuteOptFlowStitchHandle = nullptr;
    StitchLibrary::EXECUTE_OPT_FLOW_STITCH_HDR *mExecuteOptFlowStitchHDRHandle = nullptr;
    StitchLibrary::GET_OPT_FLOW_STITCH_CODE *mGetOptFlowStitchCode = nullptr;
    StitchLibrary::CREATE_VIDEO_STITCH *mCreateVideoStitchHandle = nullptr;
    StitchLibrary::DESTROY_VIDEO_STITCH *mDestroyVideoStitchHandle = nullptr;
    StitchLibrary::INIT_VIDEO_STITCH *mInitVideoStitchHandle = nullptr;
    StitchLibrary::EXECUTE_VIDEO_STITCH *mExecuteVideoStitchHandle = nullptr;
    StitchLibrary::GET_VIDEO_STITCH_CODE *mGetVideoStitchCode = nullptr;

    // Opens "lib" + name + ".so" ("<name>.dll" on Windows) in the current
    // directory and links the eleven entries.
    explicit StitchHandle(const ORN::String<char> &name = "Stitch") {
        mDLL.open(DLL::library_path(name));
        link(mCreateOptFlowStitchHandle, "KIVO_CreateOptFlowStitchHandle");
        link(mDestroyOptFlowStitchHandle, "KIVO_DestroyOptFlowStitchHandle");
        link(mInitOptFlowStitchHandle, "KIVO_InitOptFlowStitchHandle");
        link(mExecuteOptFlowStitchHandle, "KIVO_ExecuteOptFlowStitchHandle");
        link(mExecuteOptFlowStitchHDRHandle, "KIVO_ExecuteOptFlowStitchHDRHandle");
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
