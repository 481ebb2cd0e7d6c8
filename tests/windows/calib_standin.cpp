// A stand-in for the calibration library on Windows (Calib.dll), following
// docs/BACKENDS.md ("The calibration library") in small. Only the colour
// analysis does anything: run_analysis_main checks that each of its `count`
// sources can be read and writes "colorCalibrate.txt" (the identity matrix
// and the number of captures) and "colorCalibrate.jpg" (the first
// source's bytes) into "<job>\caches\calib_result\", each through a
// temporary file renamed into place. The two other entries answer
// CALIB_BAD_ARGUMENT (1). ZARN_BACKEND_FAIL=run_analysis_main:CODE makes
// the analysis return CODE.
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

std::string read(const char *file, bool &ok) {
    std::string text;
    std::FILE *in = std::fopen(file, "rb");
    ok = in != nullptr;
    if (in == nullptr)
        return text;
    char buffer[4096];
    for (std::size_t n; (n = std::fread(buffer, 1, sizeof(buffer), in)) > 0;)
        text.append(buffer, n);
    std::fclose(in);
    return text;
}

bool write(const std::string &file, const std::string &text) {
    const std::string temporary = file + ".part";
    std::FILE *out = std::fopen(temporary.c_str(), "wb");
    if (out == nullptr)
        return false;
    const bool ok = std::fwrite(text.data(), 1, text.size(), out) == text.size() && std::fclose(out) == 0;
    return ok && ::MoveFileExA(temporary.c_str(), file.c_str(), MOVEFILE_REPLACE_EXISTING) != FALSE;
}

} // namespace

extern "C" __declspec(dllexport) int run_calib_main(const char *, const char *) { return 1; }

extern "C" __declspec(dllexport) int run_shading_main(const char *, const char *, const char *, const char *, const char *,
                                                      int, int) {
    return 1;
}

extern "C" __declspec(dllexport) int run_analysis_main(const char *src1, const char *src2, const char *src3, const char *src4,
                                                       const char *working_path, int count) {
    if (const char *fail = std::getenv("ZARN_BACKEND_FAIL"); fail != nullptr && std::strncmp(fail, "run_analysis_main:", 18) == 0)
        return std::atoi(fail + 18);
    const char *sources[] = {src1, src2, src3, src4};
    if (working_path == nullptr || *working_path == '\0' || count < 1 || count > 4)
        return 1;
    std::string first;
    for (int i = 0; i < count; ++i) {
        bool ok = false;
        const std::string bytes = sources[i] == nullptr ? std::string() : read(sources[i], ok);
        if (!ok)
            return 5;
        if (i == 0)
            first = bytes;
    }
    const std::string folder = std::string(working_path) + "\\caches\\calib_result";
    ::CreateDirectoryA(folder.c_str(), nullptr);
    const bool written = write(folder + "\\colorCalibrate.txt", "1 0 0\n0 1 0\n0 0 1\ncaptures " + std::to_string(count) + "\n") &&
                         write(folder + "\\colorCalibrate.jpg", first);
    return written ? 0 : 8;
}
