#pragma once

// The operating-system side of the file system layer that its shared code
// builds on, one definition per platform (orn_filesystem.cpp for POSIX,
// orn_filesystem_windows.cpp for Windows).

#include "orn_basic.h"

namespace ORN::Private::FilePlatform {

// The separator that joins the components of a path the layer builds.
extern const char SEPARATOR;
// The root that starts the path, which is never created: its length in the
// path, and its text with the platform's separators (written here as the
// system sees them: /, C:\, \, \\server\share\, \\?\C:\, \\?\UNC\server\share\).
// Empty for a relative path.
String<char> root_of(const String<char> &path, INDEX &length);
// Creates one directory whose parent exists; failures are not reported.
void create_directory(const String<char> &path);

} // namespace ORN::Private::FilePlatform
