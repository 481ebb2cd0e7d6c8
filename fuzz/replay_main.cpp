// Without libFuzzer: runs a fuzz target once over each file named on the
// command line (a corpus replay), so the targets build and run with any
// compiler.
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

int main(int argc, char **argv) {
    for (int i = 1; i < argc; ++i) {
        std::ifstream in(argv[i], std::ios::binary);
        const std::string data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t *>(data.data()), data.size());
    }
    return 0;
}
