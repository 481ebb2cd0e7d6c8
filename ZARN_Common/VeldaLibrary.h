#pragma once

// The C interface of the reconstruction library, "libopenMVG_velda.so"
// ("openMVG_velda.dll" on Windows), as the reconstruction process calls it
// and as the reference library in backends/ implements it. docs/BACKENDS.md
// and docs/JOB-FORMAT.md describe the entry, its files and its result codes.

namespace ZARN::VeldaLibrary {

// run_velda_main (3, {"", velda type, working directory, nullptr}).
using RUN_VELDA_MAIN = int(int argc, char **argv);

enum RESULT : int {
    VELDA_OK = 0,
    VELDA_BAD_ARGUMENTS = 1,        // argc is not 3 or an argument is null
    VELDA_EMPTY_TYPE = 2,           // the velda type is empty
    VELDA_NO_WORKING_DIRECTORY = 3, // the working directory is missing or not a directory
    VELDA_NO_IMAGES = 4,            // the job holds no images/*.jpg
    VELDA_BAD_IMAGE = 5,            // an image does not decode or its size is out of range
    VELDA_WRITE_FAILED = 6,         // an output cannot be written
};

// What a result code means, for the line that reports a failed call.
constexpr const char *meaning(long long code) noexcept {
    switch (code) {
    case VELDA_OK: return "success";
    case VELDA_BAD_ARGUMENTS: return "bad arguments";
    case VELDA_EMPTY_TYPE: return "the velda type (\"velda_type\" of \"Common\" in the split data) is empty";
    case VELDA_NO_WORKING_DIRECTORY: return "the working directory is missing or not a directory";
    case VELDA_NO_IMAGES: return "the job holds no images (images/*.jpg)";
    case VELDA_BAD_IMAGE: return "an image of images/ does not decode or its size is out of range";
    case VELDA_WRITE_FAILED: return "an output cannot be written";
    default: return "not a documented code";
    }
}

} // namespace ZARN::VeldaLibrary
