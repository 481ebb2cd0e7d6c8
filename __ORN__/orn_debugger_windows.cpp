// Windows console of the console service: a console window (allocated when
// the host has none), text attributes for the level colours, "pause" and
// "cls" through the C runtime's system(). FlashWindow comes from user32.

#ifdef _WIN32

#include "orn_debugger.h"
#include "orn_debugger_platform.h"

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

#include <cstdio>
#include <cstdlib>

namespace ORN::Private::ConsolePlatform {

namespace {

constexpr WORD kDefaultAttribute = 7;

bool valid(HANDLE handle) noexcept { return handle != nullptr && handle != INVALID_HANDLE_VALUE; }

// A real console (as opposed to a file or pipe that standard output was
// redirected to) accepts console modes.
bool is_console(HANDLE handle) noexcept {
    DWORD mode = 0;
    return valid(handle) && ::GetConsoleMode(handle, &mode) != FALSE;
}

bool use_colour(HANDLE handle) noexcept { return std::getenv("NO_COLOR") == nullptr && is_console(handle); }

// Writes all bytes; WriteConsoleA is given modest pieces, as large single
// writes to a console can fail.
void put(HANDLE handle, const char *text, std::size_t size) noexcept {
    const bool console = is_console(handle);
    while (size > 0) {
        const DWORD piece = static_cast<DWORD>(size < 16384 ? size : 16384);
        DWORD written = 0;
        const BOOL ok = console ? ::WriteConsoleA(handle, text, piece, &written, nullptr)
                                : ::WriteFile(handle, text, piece, &written, nullptr);
        if (!ok || written == 0)
            return;
        text += written;
        size -= written;
    }
}

} // namespace

void *open() {
    if (::GetConsoleWindow() == nullptr)
        (void)::AllocConsole();
    const HANDLE handle = ::GetStdHandle(STD_OUTPUT_HANDLE);
    return valid(handle) ? handle : nullptr;
}

// The level's attribute holds for the text only; the default comes back
// before the line feed, so anything else printed to the console (the closed
// libraries' own output) keeps the default colour.
// Standard output and standard error stay the console's own on Windows.
void *open_descriptors(std::intptr_t, std::intptr_t) { return open(); }

void write_line(void *handle, int attribute, std::string_view text, bool error) {
    const HANDLE standard_error = error ? ::GetStdHandle(STD_ERROR_HANDLE) : nullptr;
    const HANDLE out = valid(standard_error) ? standard_error : static_cast<HANDLE>(handle);
    if (!valid(out))
        return;
    std::fflush(stdout); // keep the C runtime's pending output in front
    const bool colour = use_colour(out) && attribute != kDefaultAttribute;
    if (colour)
        ::SetConsoleTextAttribute(out, static_cast<WORD>(attribute));
    if (colour) {
        put(out, text.data(), text.size());
        ::SetConsoleTextAttribute(out, kDefaultAttribute);
        put(out, "\n", 1);
    } else {
        thread_local String<char> line;
        line.assign(text);
        line.push_back('\n');
        put(out, line.data(), line.size());
    }
}

bool on_terminal(void *handle) { return is_console(static_cast<HANDLE>(handle)); }

void write_partial(void *handle, int attribute, std::string_view text) {
    const HANDLE out = static_cast<HANDLE>(handle);
    if (!valid(out))
        return;
    std::fflush(stdout);
    const bool colour = use_colour(out) && attribute != kDefaultAttribute;
    if (colour)
        ::SetConsoleTextAttribute(out, static_cast<WORD>(attribute));
    put(out, text.data(), text.size());
    if (colour)
        ::SetConsoleTextAttribute(out, kDefaultAttribute);
}

void attention(void *handle) {
    const HWND window = ::GetConsoleWindow();
    if (window != nullptr)
        (void)::FlashWindow(window, TRUE);
    const HANDLE out = static_cast<HANDLE>(handle);
    if (is_console(out))
        ::SetConsoleTextAttribute(out, kDefaultAttribute);
}

void wait_key(void *) {
    std::fflush(stdout);
    (void)std::system("pause");
}

void clear(void *) {
    if (::GetConsoleWindow() == nullptr)
        return;
    std::fflush(stdout);
    (void)std::system("cls");
}

} // namespace ORN::Private::ConsolePlatform

#endif // _WIN32
