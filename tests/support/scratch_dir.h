// A directory of the test's own that is also its working directory; gone with all in it at the end.
#ifndef SCRATCH_DIR_H
#define SCRATCH_DIR_H

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <unistd.h>

class scratch_dir {
  public:
    scratch_dir() : before(std::filesystem::current_path()) {
        std::string name = (std::filesystem::temp_directory_path() / "ls-test-XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr)
            std::abort();
        dir = name;
        std::filesystem::current_path(dir);
    }
    ~scratch_dir() {
        std::filesystem::current_path(before);
        std::filesystem::remove_all(dir);
    }
    scratch_dir(const scratch_dir &) = delete;
    scratch_dir &operator=(const scratch_dir &) = delete;

    const std::filesystem::path &path() const { return dir; }

    static void write(const std::filesystem::path &file, const std::string &text) {
        if (file.has_parent_path())
            std::filesystem::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << text;
    }

    static std::string read(const std::filesystem::path &file) {
        std::ifstream in(file, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }

  private:
    std::filesystem::path before;
    std::filesystem::path dir;
};

#endif
