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
#include <set>
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

void mutate(bytes &input, const bytes &other, std::mt19937 &random) {
    constexpr uint8_t telling[] = {0x00, 0x01, 0x0A, 0x0D, '$',  '*',
                                   ',',  0x62, 0xB5, 0x7F, 0x80, 0xFF};
    const auto some = [&random](size_t limit) {
        return static_cast<std::ptrdiff_t>(limit == 0 ? 0 : random() % limit);
    };
    const auto here = input.begin() + some(input.size());
    const size_t left = static_cast<size_t>(input.end() - here);
    switch (left == 0 ? 3 : random() % 5) {
    case 0: // a changed bit
        *here = static_cast<uint8_t>(*here ^ (1u << (random() % 8)));
        break;
    case 1: // a byte that means something
        *here = telling[random() % std::size(telling)];
        break;
    case 2: // bytes missing
        input.erase(here, here + some(std::min<size_t>(left + 1, 16)));
        break;
    case 3: // one byte many times
        input.insert(here, random() % 256, static_cast<uint8_t>(random()));
        break;
    default: // the rest of another input
        input.erase(here, input.end());
        input.insert(input.end(), other.begin() + some(other.size()), other.end());
    }
    input.resize(std::min(input.size(), longest_input));
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s CORPUS_DIRECTORY\n", argv[0]);
        return 2;
    }
    const std::filesystem::directory_iterator directory(argv[1]);
    const std::set<std::filesystem::path> files(begin(directory), end(directory));
    fuzz_expect(!files.empty(), "there is a corpus");
    std::vector<bytes> corpus;
    for (const std::filesystem::path &file : files) {
        std::ifstream in(file, std::ios::binary);
        corpus.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
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
