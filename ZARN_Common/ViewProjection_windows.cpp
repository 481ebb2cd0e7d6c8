// The Windows build has no OpenCV, whose resampling makes a view's pyramid:
// a view is never rendered there (no frame is ever decoded either).

#include "ZARN_Common/ViewProjection.h"

#include "__ORN__/orn_debugger.h"

namespace ZARN {

ORN::Image ViewProjection::render(const ORN::Image &frame, const VIEW &, int) {
    ORN::console().error("render_view : ", frame.layout(), " : the Windows build has no image library (OpenCV)");
    constexpr bool image_library = false;
    _DYNAMIC_ASSERT_(image_library);
    throw ORN::Exception("unreachable");
}

} // namespace ZARN
