// Fuzz target: any file either loads into a reader whose every item answers,
// through the getter of its declared class, or fails with the library's
// assertion exception, never reading outside the data.
#include "ZARN_Common/PlyReader.h"
#include "__ORN__/orn_filesystem.h"

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace {
template <class F>
void probe(F &&f) {
    try {
        f();
    } catch (const ORN::Exception &) {
    }
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static const std::string path = "/tmp/zarn_ply_fuzz_" + std::to_string(::getpid()) + ".ply";
    ORN::FileSystemProc::save_file(path, std::string_view(reinterpret_cast<const char *>(data), size));
    try {
        const ZARN::PlyReader reader(path);
        for (const char *element : {"vertex", "face", "edge"}) {
            const ORN::INDEX e = reader.find_element(element);
            if (e == ORN::VAR_NONE)
                continue;
            const ORN::INDEX items = reader.element_size(e);
            for (const char *property : {"x", "y", "z", "red", "nx", "vertex_indices", "vertex_index", "flags"}) {
                const ORN::INDEX p = reader.find_property(e, property);
                if (p == ORN::VAR_NONE)
                    continue;
                for (ORN::INDEX i = 0; i < items && i < 4096; ++i) {
                    probe([&] { (void)reader.get_value(e, p, i); });
                    probe([&] { (void)reader.get_index(e, p, i); });
                    probe([&] { (void)reader.get_byte(e, p, i); });
                    probe([&] { (void)reader.get_value_list(e, p, i).size(); });
                    probe([&] { (void)reader.get_index_list(e, p, i).size(); });
                    probe([&] { (void)reader.get_byte_list(e, p, i).size(); });
                }
            }
        }
    } catch (const ORN::Exception &) {
    }
    return 0;
}
