#pragma once

// Size of the window through which PlyReader streams a file's body: the
// reader keeps this many bytes of the file at a time (more only when a
// single header line, number or fixed-layout item needs it). Readers made
// after a change use the new size; tests shrink it so that numbers and list
// items straddle refills.

#include "__ORN__/orn_basic.h"

namespace ZARN {

// Bytes per window; at least 1 ("bytes >= 1").
ORN::INDEX ply_reader_window();
void set_ply_reader_window(ORN::INDEX bytes);

} // namespace ZARN
