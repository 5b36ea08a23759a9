// SPDX-License-Identifier: MIT
// Stands in for the fuzzer's main: runs a target over the corpus, and over copies of it damaged in a fixed way.
//
// PROGRAM COPIES FOLDER...
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) __attribute__((weak)); // some targets have one

namespace
{

using Bytes = std::vector<uint8_t>;

Bytes read_file(const std::filesystem::path& path)
{
    std::ifstream file(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(file), {});
}

void damage(Bytes* input, std::mt19937* random)
{
    for (size_t flips = (*random)() % 32; flips > 0 && !input->empty(); --flips)
        (*input)[(*random)() % input->size()] ^= static_cast<uint8_t>(1u << (*random)() % 8);
    if ((*random)() % 4 == 0)
        input->resize((*random)() % (input->size() + 1));
}

} // namespace

int main(int argc, char** argv)
{
    if (LLVMFuzzerInitialize != nullptr)
        LLVMFuzzerInitialize(&argc, &argv);
    std::mt19937 random(1);
    const int copies = argc > 1 ? atoi(argv[1]) : 0;
    int inputs = 0;
    for (int i = 2; i < argc; ++i) {
        for (const auto& entry : std::filesystem::recursive_directory_iterator(argv[i])) {
            if (!entry.is_regular_file())
                continue;
            const Bytes input = read_file(entry.path());
            LLVMFuzzerTestOneInput(input.data(), input.size());
            for (int copy = 0; copy < copies; ++copy) {
                Bytes damaged = input;
                damage(&damaged, &random);
                LLVMFuzzerTestOneInput(damaged.data(), damaged.size());
            }
            ++inputs;
        }
    }
    printf("%d inputs\n", inputs);
    return inputs > 0 ? 0 : 1; // an empty corpus tests nothing
}
