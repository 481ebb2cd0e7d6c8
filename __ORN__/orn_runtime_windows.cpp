// Windows form of system_exec. The time texts are shared with POSIX and live
// in orn_runtime.cpp.

#ifdef _WIN32

#include "orn_runtime.h"

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

#include <cstdio>
#include <cstdlib>

namespace ORN {

String<char> GlobalRuntime::quote_argument(std::string_view word) {
    const bool r1x = word.find_first_of(std::string_view("\r\n\0", 3)) == std::string_view::npos;
    _DYNAMIC_ASSERT_(r1x);
    // First the program's own rules (CommandLineToArgvW and the C runtime):
    // inside double quotes, 2n backslashes and a quote read as n backslashes
    // and a literal quote when written 2n + 1 backslashes and the quote.
    String<char> argument = "\"";
    INDEX backslashes = 0;
    for (const char c : word) {
        if (c == '\\') {
            ++backslashes;
            continue;
        }
        argument.append(static_cast<std::size_t>(c == '"' ? 2 * backslashes + 1 : backslashes), '\\');
        backslashes = 0;
        argument.push_back(c);
    }
    argument.append(static_cast<std::size_t>(2 * backslashes), '\\');
    argument.push_back('"');
    // Then cmd.exe's: every character it acts on, escaped with a caret, so
    // that it neither ends the command nor expands a variable.
    String<char> quoted;
    quoted.reserve(argument.size() * 2);
    for (const char c : argument) {
        if (String<char>::traits_type::find("()%!^\"<>&|", 10, c) != nullptr)
            quoted.push_back('^');
        quoted.push_back(c);
    }
    return quoted;
}

// With a standard output handle the command shares the console through the C
// runtime's system(); without one (a host started detached) the command line
// is started directly, without a window, in the current directory. The exit
// code is the child's DWORD as it is (a crash shows as its NTSTATUS value,
// e.g. 3221225477 for an access violation).
INDEX GlobalRuntime::system_exec(const String<char> &command) {
    const HANDLE r1x = ::GetStdHandle(STD_OUTPUT_HANDLE);
    if (r1x != nullptr && r1x != INVALID_HANDLE_VALUE) {
        std::fflush(nullptr);
        return static_cast<INDEX>(std::system(command.c_str()));
    }
    // CreateProcessA may write into the command line, so it gets its own copy.
    String<char> r2x = command;
    STARTUPINFOA r3x{};
    r3x.cb = sizeof(r3x);
    PROCESS_INFORMATION r4x{};
    const bool r5x = ::CreateProcessA(nullptr, r2x.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr, ".",
                                      &r3x, &r4x) != FALSE;
    _DYNAMIC_ASSERT_(r5x);
    (void)::WaitForSingleObject(r4x.hProcess, INFINITE);
    DWORD r6x = 0;
    if (!::GetExitCodeProcess(r4x.hProcess, &r6x))
        r6x = static_cast<DWORD>(-1);
    ::CloseHandle(r4x.hProcess);
    ::CloseHandle(r4x.hThread);
    return static_cast<INDEX>(r6x);
}

} // namespace ORN

#endif // _WIN32
