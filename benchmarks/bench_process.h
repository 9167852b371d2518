// A child process of a benchmark and its scratch directory. Main thread.
#ifndef BENCH_PROCESS_H
#define BENCH_PROCESS_H

#include <string>
#include <sys/types.h>
#include <vector>

// A directory with a short name (sockets lie in it) that goes away with the object.
class bench_dir {
  public:
    bench_dir();
    ~bench_dir();
    bench_dir(const bench_dir &) = delete;
    bench_dir &operator=(const bench_dir &) = delete;
    const std::string path;
};

// Runs a program, found by PATH, in a directory, its output in `output`. Stopped by SIGTERM, after
// 60 s by SIGKILL (a tool that counts instructions takes its time), when the object goes, or this
// process.
class bench_process {
  public:
    bench_process(const std::vector<std::string> &words, const std::string &dir,
                  const std::string &output);
    ~bench_process();
    bench_process(const bench_process &) = delete;
    bench_process &operator=(const bench_process &) = delete;

  private:
    pid_t pid;
};

// Standard output of a command; empty when it failed.
std::string bench_output_of(const std::string &command);

double bench_now(); // seconds, steady

#endif
