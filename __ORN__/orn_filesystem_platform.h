#pragma once

// The operating-system side of the file system layer that its shared code
// builds on, one definition per platform (orn_filesystem.cpp for POSIX,
// orn_filesystem_windows.cpp for Windows).

#include "orn_basic.h"

namespace ORN::Private::FilePlatform {

// The separator that joins the components of a path the layer builds.
extern const char SEPARATOR;
// Creates one directory whose parent exists; failures are not reported.
void create_directory(const String<char> &path);

} // namespace ORN::Private::FilePlatform
