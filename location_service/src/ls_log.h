// Log calls of the daemon. Every source file names its module once:
//     static constexpr char log_module[] = "gps_uart";
// The format must be a literal; the platform library decides by level what becomes of the line.
#ifndef LS_LOG_H
#define LS_LOG_H

#include "zukhal.h"

enum ls_log_level : int {
    LS_LOG_ERROR = 3,
    LS_LOG_WARNING = 4,
    LS_LOG_INFO = 6,
    LS_LOG_DEBUG = 7,
};

#define LS_LOG(level, format, ...)                                                                 \
    zuk_log_tmplt(level, format, log_module, __LINE__ __VA_OPT__(, ) __VA_ARGS__)
#define log_error(...) LS_LOG(LS_LOG_ERROR, __VA_ARGS__)
#define log_warning(...) LS_LOG(LS_LOG_WARNING, __VA_ARGS__)
#define log_info(...) LS_LOG(LS_LOG_INFO, __VA_ARGS__)
#define log_debug(...) LS_LOG(LS_LOG_DEBUG, __VA_ARGS__)

#endif
