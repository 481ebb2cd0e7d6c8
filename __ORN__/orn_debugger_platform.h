#pragma once

// The operating-system side of the console service, one definition per
// platform (orn_debugger.cpp for POSIX, orn_debugger_windows.cpp for
// Windows). Callers hold the service's mutex.

#include "orn_basic.h"

#include <cstdint>
#include <string_view>

namespace ORN::Private::ConsolePlatform {

// Makes sure a console exists; returns its output handle.
void *open();
// An output handle that writes to copies of the given descriptors (POSIX
// file descriptors, Windows handles) instead of the standard ones, which
// may then be pointed elsewhere.
void *open_descriptors(std::intptr_t out, std::intptr_t err);
// Writes the text in the colour of the console attribute, then a line feed,
// as one piece; to the error side of the handle (standard error) when
// `error` is set.
void write_line(void *handle, int attribute, std::string_view text, bool error);
// Whether the output handle shows text as it comes (a terminal, a console
// window) rather than storing it (a file, a pipe).
bool on_terminal(void *handle);
// Writes the text in the colour of the console attribute, without a line
// feed, as one piece (a progress line redrawn in place).
void write_partial(void *handle, int attribute, std::string_view text);
// Flashes the console window and sets attribute 7 (under the mutex).
void attention(void *handle);
// Waits for a key (without the mutex, so other threads keep printing).
void wait_key(void *handle);
// Clears the console when there is one.
void clear(void *handle);

} // namespace ORN::Private::ConsolePlatform
