// A stand-in for the reconstruction library on Windows, following
// docs/BACKENDS.md ("The reconstruction library") in small:
// run_velda_main writes the bytes of its arguments, one per line, to
// "<working directory>\caches\velda_arguments.txt"; a job without an image
// in images\ gets VELDA_NO_IMAGES (4). Otherwise it writes the poses of
// each image (one line: its name), the up-down and AR results with their
// manifests, the floor plan and, last, vision.json, and returns 0.
// For the launcher's tests, the type "crash" ends the program with an
// access violation, "exit" ends it with exit status 7, "sleep" waits a
// minute, and ZARN_BACKEND_FAIL=run_velda_main:CODE returns CODE.
#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

bool write(const std::string &file, const std::string &text) {
    std::FILE *out = std::fopen(file.c_str(), "wb");
    if (out == nullptr)
        return false;
    const bool ok = std::fwrite(text.data(), 1, text.size(), out) == text.size();
    return std::fclose(out) == 0 && ok;
}

bool image_name(const std::string &name) {
    const auto dot = name.rfind('.');
    std::string ext = dot == std::string::npos ? "" : name.substr(dot + 1);
    for (char &c : ext)
        c = static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
    return ext == "png" || ext == "jpg" || ext == "jpeg";
}

// The images' names in name order: regular files only (no link, no folder).
std::vector<std::string> images(const std::string &job) {
    std::vector<std::string> names;
    WIN32_FIND_DATAA found;
    const HANDLE search = ::FindFirstFileA((job + "\\images\\*").c_str(), &found);
    if (search == INVALID_HANDLE_VALUE)
        return names;
    do {
        if ((found.dwFileAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT)) == 0 &&
            image_name(found.cFileName))
            names.emplace_back(found.cFileName);
    } while (::FindNextFileA(search, &found));
    ::FindClose(search);
    std::sort(names.begin(), names.end());
    return names;
}

int injected_failure() {
    const char *fail = std::getenv("ZARN_BACKEND_FAIL");
    const std::string entry = "run_velda_main:";
    return fail != nullptr && std::strncmp(fail, entry.c_str(), entry.size()) == 0 ? std::atoi(fail + entry.size()) : 0;
}

} // namespace

extern "C" __declspec(dllexport) int run_velda_main(int argc, char **argv) {
    if (argc != 3 || argv[1] == nullptr || argv[2] == nullptr)
        return 1;
    const std::string type = argv[1], job = argv[2], caches = job + "\\caches\\";
    if (!write(caches + "velda_arguments.txt", type + "\n" + job + "\n"))
        return 6;
    if (type.empty())
        return 2;
    if (type == "crash")
        *static_cast<volatile int *>(nullptr) = 1;
    if (type == "exit")
        std::exit(7);
    if (type == "sleep")
        ::Sleep(60000);
    if (const int code = injected_failure(); code != 0)
        return code;
    const std::vector<std::string> names = images(job);
    if (names.empty())
        return 4;
    std::string poses;
    for (const auto &name : names)
        poses += name + " 0 0 0\n";
    for (const char *folder : {"updown", "ar", "floorplan"})
        ::CreateDirectoryA((caches + folder).c_str(), nullptr);
    const bool written =
        write(caches + "updown\\poses.txt", poses) && write(caches + "ar\\poses.txt", poses) &&
        write(caches + "ar\\anchors.json", "{\"anchors\":[]}") &&
        write(caches + "upload.part3.json", "{\"upload\":[{\"file\":\"updown/poses.txt\"}]}") &&
        write(caches + "upload.part9.json", "{\"upload\":[{\"file\":\"ar/poses.txt\"},{\"file\":\"ar/anchors.json\"}]}") &&
        write(caches + "floorplan.json", "{\"rooms\":[]}") && write(caches + "vision.json", "{\"views\":" + std::to_string(names.size()) + "}");
    return written ? 0 : 6;
}
