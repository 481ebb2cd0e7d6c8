#include "ZARN_Velda/ProcessGraph.h"

#include <string_view>

namespace ZARN {

#define ZARN_PROCESSES(X)                                                                                              \
    X(CalibMainProcess)                                                                                                \
    X(StitchMainProcess)                                                                                               \
    X(StereoRotStitchMainProcess)                                                                                      \
    X(ImageROIProcess)                                                                                                 \
    X(ImageFilterProcess)                                                                                              \
    X(VeldaMainProcess)                                                                                                \
    X(VeldaMeshProcess)                                                                                                \
    X(VideoTransferProcess)                                                                                            \
    X(VideoROIProcess)

namespace Private {
#define ZARN_DECLARE_GRAPH(NAME) ORN::String<char> graph_of_##NAME(const ORN::String<char> &working_path);
ZARN_PROCESSES(ZARN_DECLARE_GRAPH)
#undef ZARN_DECLARE_GRAPH
} // namespace Private

ORN::String<char> process_graph_dot(const ORN::String<char> &process_name, const ORN::String<char> &working_path) {
#define ZARN_GRAPH_CASE(NAME)                                                                                          \
    if (process_name == #NAME)                                                                                         \
        return Private::graph_of_##NAME(working_path);
    ZARN_PROCESSES(ZARN_GRAPH_CASE)
#undef ZARN_GRAPH_CASE
    _DYNAMIC_ASSERT_(false);
}

} // namespace ZARN
