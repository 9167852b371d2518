// In every fuzz target: the way in, for libFuzzer or a plain test. And nothing waits for a disk or
// a while, and nothing reaches the machine's log.
#include "fuzz_target.h"
#include "ls_export.h"

#include <cerrno>
#include <chrono>
#include <ctime>
#include <memory>
#include <random>
#include <set>
#include <sys/socket.h>
#include <vector>

LS_EXPORT int fsync(int) {
    return 0;
}
LS_EXPORT int fdatasync(int) {
    return 0;
}
LS_EXPORT int nanosleep(const timespec *, timespec *) {
    return 0;
}
// The libraries' way to the log; the bus has another one.
LS_EXPORT ssize_t sendto(int, const void *, size_t, int, const sockaddr *, socklen_t) {
    errno = ENOENT;
    return -1;
}

#ifdef LS_FUZZ
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const scratch_dir dir;
    fuzz({{reinterpret_cast<const char *>(data), size}});
    return 0;
}
#else
namespace {

constexpr std::chrono::seconds duration{1};
constexpr size_t longest_input = 4096;

void run(const std::string &input) {
    // A block of the exact size, also when that is 0: the sanitizer sees a read behind its end.
    const auto exact = std::make_unique<char[]>(input.size());
    input.copy(exact.get(), input.size());
    fuzz({{exact.get(), input.size()}});
}

void mutate(std::string &input, const std::string &other, std::mt19937 &random) {
    if (random() % 2 == 0 && !input.empty()) {
        char &one = input[random() % input.size()];
        one = static_cast<char>(one ^ (1 << random() % 8));
    } else { // the beginning of one and the end of another; of itself: bytes missing, or twice
        input.resize(random() % (input.size() + 1));
        input += other.substr(random() % (other.size() + 1));
    }
    input.resize(std::min(input.size(), longest_input));
}

} // namespace

// Each file of the corpus, then mutations of them, the same in every run, until the time is up.
int main(int argc, char **argv) {
    fuzz_expect(argc == 2, "usage: a directory with the corpus");
    const scratch_dir dir;
    const std::filesystem::directory_iterator directory(argv[1]);
    std::vector<std::string> corpus;
    for (const auto &file : std::set<std::filesystem::path>(begin(directory), end(directory)))
        run(corpus.emplace_back(scratch_dir::read(file)));
    fuzz_expect(!corpus.empty(), "there is a corpus");
    std::mt19937 random(1);
    const auto end = std::chrono::steady_clock::now() + duration;
    while (std::chrono::steady_clock::now() < end) {
        std::string input = corpus[random() % corpus.size()];
        for (size_t changes = 1 + random() % 4; changes != 0; --changes)
            mutate(input, corpus[random() % corpus.size()], random);
        run(input);
    }
    return 0;
}
#endif
