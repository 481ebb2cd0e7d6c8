// Fuzz target: settings documents, alone and joined with a fixed one.
#include "__ORN__/orn_serialization.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace {
void walk(const ORN::XmlParser &node, int depth) {
    if (depth > 300)
        __builtin_trap();
    (void)node.value(ORN::int64(0));
    (void)node.value(ORN::String<char>());
    for (const auto &c : node.children()) {
        if (!node.child(c.name()).exist())
            __builtin_trap();
        walk(c, depth + 1);
    }
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    try {
        const ORN::XmlParser document(std::string_view(reinterpret_cast<const char *>(data), size));
        walk(document, 0);
        const ORN::XmlParser fixed("<_Lumora><VeldaMainProcess><mFileWriterBufferSize value=\"1\"/></VeldaMainProcess></_Lumora>");
        walk(ORN::XmlParser(ORN::Array<ORN::XmlParser>{fixed, document, ORN::XmlParser()}), 0);
    } catch (const ORN::Exception &) {
    }
    return 0;
}
