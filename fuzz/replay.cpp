// Runs a fuzz target over files, without a fuzzer: what was found once stays mended.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

int main(int argc, char **argv)
{
    int count = 0;
    for (int argument = 1; argument < argc; argument++) {
        for (const auto &entry : std::filesystem::directory_iterator(argv[argument])) {
            std::ifstream file(entry.path(), std::ios::binary);
            const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
            LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t *>(bytes.data()), bytes.size());
            count++;
        }
    }
    std::printf("%d inputs\n", count);
    return count > 0 ? 0 : 1;
}
