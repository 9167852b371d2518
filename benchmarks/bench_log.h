// A log configuration of the benchmark's own: libzukhal at level info, as a terminal has it, its
// lines into a file that goes away with the process.
#ifndef BENCH_LOG_H
#define BENCH_LOG_H

// Writes the configuration, points the library at it and logs one line, so that it is read. False
// (said on stderr) when that fails. Once, in main, before the first log call.
bool bench_log_at_info();

#endif
