// Fuzz target: any byte string either parses into a tree whose every node
// answers its queries, or fails with the library's assertion exception.
#include "__ORN__/orn_serialization.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace {
void walk(const ORN::JsonParser &node, int depth) {
    if (depth > 300)
        __builtin_trap(); // deeper than the parser admits
    if (node.string_type())
        (void)node.value();
    (void)node.value(ORN::int64(0));
    (void)node.value(0.0);
    (void)node.value(false);
    const auto children = node.children();
    if (children.size() != node.size())
        __builtin_trap();
    for (const auto &c : children) {
        if (c.parent().index() != node.index())
            __builtin_trap();
        if (node.object_type() && !node.child(c.name()).exist())
            __builtin_trap();
        walk(c, depth + 1);
    }
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    try {
        const ORN::JsonParser root(std::string_view(reinterpret_cast<const char *>(data), size));
        if (root.exist())
            walk(root, 0);
    } catch (const ORN::Exception &) {
    }
    return 0;
}
