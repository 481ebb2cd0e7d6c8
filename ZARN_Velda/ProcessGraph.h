#pragma once

// Declares a process's whole node graph over a working directory without
// running its actions, and renders it in Graphviz DOT form.

#include "__ORN__/orn_basic.h"

namespace ZARN {

ORN::String<char> process_graph_dot(const ORN::String<char> &process_name, const ORN::String<char> &working_path);

} // namespace ZARN
