// Runs a fuzz target without libFuzzer: each file of its corpus, then mutations of them, the same
// in every run, until the time is up.
#include "fuzz_target.h"

#include <chrono>
#include <memory>
#include <random>
#include <set>
#include <vector>

namespace {

using bytes = std::vector<uint8_t>;

constexpr std::chrono::seconds duration{1};
constexpr size_t longest_input = 4096;

void run(const bytes &input) {
    // A block of the exact size, also when that is 0: the sanitizer sees a read behind its end.
    const auto exact = std::make_unique<uint8_t[]>(input.size());
    std::copy(input.begin(), input.end(), exact.get());
    LLVMFuzzerTestOneInput(exact.get(), input.size());
}

void mutate(bytes &input, const bytes &other, std::mt19937 &random) {
    const auto some = [&random](size_t limit) {
        return static_cast<std::ptrdiff_t>(random() % (limit + 1));
    };
    if (random() % 2 == 0 && !input.empty()) {
        uint8_t &one = input[random() % input.size()];
        one = static_cast<uint8_t>(one ^ (1u << (random() % 8)));
    } else { // the beginning of one and the end of another; of itself: bytes missing, or twice
        input.erase(input.begin() + some(input.size()), input.end());
        input.insert(input.end(), other.begin() + some(other.size()), other.end());
    }
    input.resize(std::min(input.size(), longest_input));
}

} // namespace

int main(int argc, char **argv) {
    fuzz_expect(argc == 2, "usage: a directory with the corpus");
    const std::filesystem::directory_iterator directory(argv[1]);
    const std::set<std::filesystem::path> files(begin(directory), end(directory));
    fuzz_expect(!files.empty(), "there is a corpus");
    std::vector<bytes> corpus;
    for (const std::filesystem::path &file : files) {
        const std::string content = scratch_dir::read(file);
        corpus.emplace_back(content.begin(), content.end());
        run(corpus.back());
    }
    std::mt19937 random(1);
    const auto end = std::chrono::steady_clock::now() + duration;
    while (std::chrono::steady_clock::now() < end) {
        bytes input = corpus[random() % corpus.size()];
        for (size_t changes = 1 + random() % 4; changes != 0; --changes)
            mutate(input, corpus[random() % corpus.size()], random);
        run(input);
    }
    return 0;
}
