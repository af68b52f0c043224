// Runs a fuzzer's body without a fuzzer, as a test: each input of a corpus, and mutations of it from a fixed seed.
//
//     replay_<name> CORPUS_DIRECTORY [MUTATIONS [SEED]]
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <set>
#include <vector>

using Input = std::vector<std::uint8_t>;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);
extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);

namespace {

Input read(const std::filesystem::path &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// A copy on the heap of exactly its size, so that a sanitizer sees the first byte read behind it.
void run(const Input &input) {
    const Input exact(input);
    LLVMFuzzerTestOneInput(exact.data(), exact.size());
}

// Up to eight times: a byte becomes another one, or 0, or 0xff, or has a bit turned; or the input ends there.
Input mutated(Input input, std::mt19937 &random) {
    for (std::size_t changes = 1 + random() % 8; changes > 0 && !input.empty(); --changes) {
        const std::size_t at = random() % input.size();
        const auto value = static_cast<std::uint8_t>(random());
        const std::uint8_t values[] = {value, 0, 0xff, static_cast<std::uint8_t>(input[at] ^ 1u << value % 8)};
        const std::size_t choice = random() % 5;
        if (choice == std::size(values))
            input.resize(at);
        else
            input[at] = values[choice];
    }
    return input;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 2) return 2;
    const int mutations = argc > 2 ? atoi(argv[2]) : 200;
    const unsigned seed = argc > 3 ? static_cast<unsigned>(strtoul(argv[3], nullptr, 0)) : 1;
    LLVMFuzzerInitialize(&argc, &argv);
    std::set<std::filesystem::path> corpus;  // sorted, so that a seed names the same run everywhere
    for (const auto &entry : std::filesystem::directory_iterator(argv[1])) corpus.insert(entry.path());
    std::mt19937 random(seed);
    for (const auto &path : corpus) {
        const Input input = read(path);
        run(input);
        for (int i = 0; i < mutations; ++i) run(mutated(input, random));
    }
    printf("%zu inputs, %d mutations of each, seed %u\n", corpus.size(), mutations, seed);
    return corpus.empty() ? 1 : 0;
}
