// Windows form of system_exec. The time texts are shared with POSIX and live
// in orn_runtime.cpp.

#ifdef _WIN32

#include "orn_debugger.h"
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
#include <string>

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

String<char> GlobalRuntime::utf8_to_native(std::string_view text) {
    if (text.empty())
        return String<char>();
    const bool r1x = text.size() < 0x7fffffff;
    _DYNAMIC_ASSERT_(r1x);
    const int size = static_cast<int>(text.size());
    const int wide_size = ::MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), size, nullptr, 0);
    const bool r2x = wide_size > 0;
    if (!r2x)
        console().error("utf8_to_native : ", text, " : not UTF-8");
    _DYNAMIC_ASSERT_(r2x);
    std::wstring wide(static_cast<std::size_t>(wide_size), L'\0');
    (void)::MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), size, wide.data(), wide_size);
    // WC_NO_BEST_FIT_CHARS: a character without its own code is not swapped
    // for a look-alike; it is reported below.
    BOOL defaulted = FALSE;
    const UINT page = ::GetACP();
    const bool utf8_page = page == CP_UTF8;
    const DWORD flags = utf8_page ? 0 : WC_NO_BEST_FIT_CHARS;
    BOOL *const used_default = utf8_page ? nullptr : &defaulted;
    const int narrow_size = ::WideCharToMultiByte(page, flags, wide.data(), wide_size, nullptr, 0, nullptr, used_default);
    String<char> narrow(static_cast<std::size_t>(narrow_size > 0 ? narrow_size : 0), '\0');
    if (narrow_size > 0)
        (void)::WideCharToMultiByte(page, flags, wide.data(), wide_size, narrow.data(), narrow_size, nullptr, used_default);
    const bool r3x = narrow_size > 0 && !defaulted;
    if (!r3x)
        console().error("utf8_to_native : ", text, " : not representable in code page ", page);
    _DYNAMIC_ASSERT_(r3x);
    return narrow;
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
