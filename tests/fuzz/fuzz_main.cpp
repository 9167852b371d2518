// Runs a fuzz target without libFuzzer: each file of its corpus, then mutations of them, the same
// in every run, until the time is up. The input of a finding is left in the file "finding".
#include "fuzz_target.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using bytes = std::vector<uint8_t>;

constexpr std::chrono::seconds duration{2};
constexpr size_t longest_input = 4096;

// The input under test; read by the handler when the process is about to die.
const bytes *current = nullptr;
std::string finding_path;

void keep_finding(int signal) {
    const int fd = open(finding_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd >= 0 && current != nullptr && write(fd, current->data(), current->size()) >= 0)
        close(fd);
    std::signal(signal, SIG_DFL);
    raise(signal);
}

void run(const bytes &input) {
    current = &input;
    // A block of the exact size, also when that is 0: the sanitizer sees a read behind its end.
    const auto exact = std::make_unique<uint8_t[]>(input.size());
    std::copy(input.begin(), input.end(), exact.get());
    LLVMFuzzerTestOneInput(exact.get(), input.size());
}

size_t below(std::mt19937 &random, size_t limit) {
    return limit == 0 ? 0 : random() % limit;
}

void mutate(bytes &input, const bytes &other, std::mt19937 &random) {
    constexpr uint8_t telling[] = {0x00, 0x01, 0x0A, 0x0D, '$',  '*',
                                   ',',  0x62, 0xB5, 0x7F, 0x80, 0xFF};
    const size_t at = below(random, input.size());
    const auto here = input.begin() + static_cast<std::ptrdiff_t>(at);
    switch (random() % 6) {
    case 0: // a changed bit
        if (!input.empty())
            input[at] = static_cast<uint8_t>(input[at] ^ (1u << (random() % 8)));
        break;
    case 1: // a byte that means something
        if (!input.empty())
            input[at] = telling[random() % std::size(telling)];
        break;
    case 2: // bytes missing
        input.erase(here, here + static_cast<std::ptrdiff_t>(
                                     std::min(input.size() - at, below(random, 16))));
        break;
    case 3: // one byte many times
        input.insert(here, below(random, 256), static_cast<uint8_t>(random()));
        break;
    case 4: { // the rest of another input
        const size_t from = below(random, other.size());
        input.resize(at);
        input.insert(input.end(), other.begin() + static_cast<std::ptrdiff_t>(from), other.end());
        break;
    }
    default: { // a part twice
        const bytes part(here, here + static_cast<std::ptrdiff_t>(
                                          std::min(input.size() - at, below(random, 64))));
        input.insert(input.end(), part.begin(), part.end());
        break;
    }
    }
    input.resize(std::min(input.size(), longest_input));
}

std::vector<bytes> read_corpus(const char *directory) {
    std::vector<std::filesystem::path> files;
    for (const auto &entry : std::filesystem::directory_iterator(directory))
        files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    std::vector<bytes> corpus;
    for (const std::filesystem::path &file : files) {
        std::ifstream in(file, std::ios::binary);
        corpus.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    return corpus;
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s CORPUS_DIRECTORY\n", argv[0]);
        return 2;
    }
    const std::vector<bytes> corpus = read_corpus(argv[1]);
    if (corpus.empty()) {
        fprintf(stderr, "%s: no corpus\n", argv[1]);
        return 1;
    }
    finding_path = std::filesystem::absolute("finding").string();
    std::signal(SIGABRT, keep_finding);
    for (const bytes &input : corpus)
        run(input);

    std::mt19937 random(1);
    size_t runs = 0;
    const auto end = std::chrono::steady_clock::now() + duration;
    for (; std::chrono::steady_clock::now() < end; ++runs) {
        bytes input = corpus[random() % corpus.size()];
        for (size_t changes = 1 + random() % 4; changes != 0; --changes)
            mutate(input, corpus[random() % corpus.size()], random);
        run(input);
    }
    printf("%zu files, %zu mutations\n", corpus.size(), runs);
    return 0;
}
