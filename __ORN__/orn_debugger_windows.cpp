// Windows console of the console service: the standard handles taken at
// each write, a console window (allocated when the host has none and no
// standard output either), text attributes for the level colours, "pause" and
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

// What the service writes to: the standard handles as they are at each
// write (GetStdHandle is asked every time, so a line written while
// standard output is redirected goes where it points then), or after
// `redirect` the duplicated handles it was given.
struct OUTPUT {
    bool mStandard = true;
    HANDLE mOut = nullptr;
    HANDLE mErr = nullptr;
};

OUTPUT &standard_output() noexcept {
    static OUTPUT output;
    return output;
}

HANDLE output_of(void *handle, bool error = false) noexcept {
    const OUTPUT &output = handle != nullptr ? *static_cast<OUTPUT *>(handle) : standard_output();
    if (!output.mStandard)
        return error && valid(output.mErr) ? output.mErr : output.mOut;
    const HANDLE standard_error = error ? ::GetStdHandle(STD_ERROR_HANDLE) : nullptr;
    return valid(standard_error) ? standard_error : ::GetStdHandle(STD_OUTPUT_HANDLE);
}

HANDLE duplicate(std::intptr_t handle) noexcept {
    HANDLE copy = nullptr;
    const HANDLE process = ::GetCurrentProcess();
    if (!::DuplicateHandle(process, reinterpret_cast<HANDLE>(handle), process, &copy, 0, FALSE, DUPLICATE_SAME_ACCESS))
        return nullptr;
    return copy;
}

} // namespace

// A console window is allocated only for a host that has neither one nor a
// standard output to write to.
void *open() {
    if (::GetConsoleWindow() == nullptr && !valid(::GetStdHandle(STD_OUTPUT_HANDLE)))
        (void)::AllocConsole();
    return &standard_output();
}

// Kept for the rest of the program: lines of other threads may still be on
// their way through it.
void *open_descriptors(std::intptr_t out, std::intptr_t err) {
    const HANDLE o = duplicate(out), e = duplicate(err);
    if (!valid(o) || !valid(e))
        return &standard_output();
    return new OUTPUT{false, o, e};
}

// The level's attribute holds for the text only; the default comes back
// before the line feed, so anything else printed to the console (the closed
// libraries' own output) keeps the default colour.
void write_line(void *handle, int attribute, std::string_view text, bool error) {
    const HANDLE out = output_of(handle, error);
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

bool on_terminal(void *handle) { return is_console(output_of(handle)); }

void write_partial(void *handle, int attribute, std::string_view text) {
    const HANDLE out = output_of(handle);
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
    const HANDLE out = output_of(handle);
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
