// A stand-in for the reconstruction library on Windows: run_velda_main
// writes the bytes of its arguments, one per line, to
// "<working directory>\caches\velda_arguments.txt" and returns
// VELDA_NO_IMAGES (4), so that a run stops right after the call.
#include <cstdio>
#include <string>

extern "C" __declspec(dllexport) int run_velda_main(int argc, char **argv) {
    if (argc != 3 || argv[1] == nullptr || argv[2] == nullptr)
        return 1;
    const std::string file = std::string(argv[2]) + "\\caches\\velda_arguments.txt";
    std::FILE *out = std::fopen(file.c_str(), "wb");
    if (out == nullptr)
        return 6;
    std::fprintf(out, "%s\n%s\n", argv[1], argv[2]);
    std::fclose(out);
    return 4;
}
