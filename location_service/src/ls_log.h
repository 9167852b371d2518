// Log calls of the daemon. Every source file names its module once:
//     static constexpr char log_module[] = "gps_uart";
// The format must be a literal, whole as people and log services search for it; the platform
// library decides by level what becomes of the line.
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

// A format that stands in a table and is logged from one place. It takes nothing, or one "%s" for
// the operation's name: checked where the table is written.
class ls_log_text {
  public:
    consteval ls_log_text(const char *text) : format(text) {
        int names = 0;
        for (const char *p = text; *p != '\0'; ++p)
            if (*p == '%' && (*++p != 's' || ++names > 1))
                takes_more_than_a_name();
    }
    const char *format;

  private:
    static void takes_more_than_a_name(); // not constexpr: reaching it is an error of the compiler
};

inline void ls_log_with_name(int level, ls_log_text text, const char *module, int line,
                             const char *name) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral" // checked by ls_log_text
    zuk_log_tmplt(level, text.format, module, line, name);
#pragma GCC diagnostic pop
}

#define log_text(level, text, name) ls_log_with_name(level, text, log_module, __LINE__, name)

#endif
