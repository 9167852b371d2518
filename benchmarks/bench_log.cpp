#include "bench_log.h"

#include "zukhal.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

bool bench_log_at_info() {
    std::string dir = (std::filesystem::temp_directory_path() / "ls-bench-XXXXXX").string();
    if (mkdtemp(dir.data()) == nullptr) {
        perror("mkdtemp");
        return false;
    }
    const std::string conf = dir + "/terminal.conf";
    const std::string log = dir + "/terminal.log";
    std::ofstream(conf) << "[board]\ntype=1\n[log]\nlevel=info\ntarget=file\nfile=" << log << "\n";
    setenv("ZUKHAL_CONF", conf.c_str(), 1);
    zuk_log_tmplt(6, "%s", "benchmark", __LINE__, "started");
    zuk_log_tmplt(7, "%s", "benchmark", __LINE__, "not to be written");

    std::ifstream lines(log);
    std::string text((std::istreambuf_iterator<char>(lines)), {});
    // The library keeps the open file; the names may go.
    std::filesystem::remove_all(dir);
    const bool at_info = text.find("started") != std::string::npos &&
                         text.find("not to be written") == std::string::npos;
    if (!at_info)
        fputs("the log library is not at level info\n", stderr);
    return at_info;
}
