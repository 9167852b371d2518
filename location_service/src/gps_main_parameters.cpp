// Readers of the control parameter file. Words are separated by white space; a key is followed by
// its value, the last occurrence counts. Each reader opens the file anew.
#include "gps_main.h"
#include "ls_file.h"
#include "ls_log.h"
#include "ls_paths.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>

static constexpr char log_module[] = "gps_main";

namespace {

constexpr size_t WORD_SIZE = 151;

// Reads the value behind `key` with `read_value` (true when it was found), or appends
// `default_line`. `word_format` reads one word of at most WORD_SIZE - 1 characters.
template <typename ReadWord, typename ReadValue>
void read_parameter(const char *key, const char *default_line, ReadWord read_word,
                    ReadValue read_value) {
    const ls_file file(fopen(LS_PATH_CONTROL_PARAMETERS, "a+e"));
    if (!file) {
        log_error("%s file open failed\n", LS_PATH_CONTROL_PARAMETERS);
        return;
    }
    fseek(file.get(), 0, SEEK_SET);
    bool found = false;
    std::array<char, WORD_SIZE> word = {};
    while (read_word(file.get(), word.data()) == 1) {
        if (strcmp(word.data(), key) == 0) {
            read_value(file.get());
            found = true;
        }
    }
    if (!found) {
        fseek(file.get(), 0, SEEK_END);
        fputs(default_line, file.get());
    }
}

// The ":" never matches: a word has swallowed it. A key written with a colon is another word.
int read_short_word(FILE *file, char *word) {
    return fscanf(file, "%100s:", word);
}

int read_word(FILE *file, char *word) {
    return fscanf(file, "%150s:", word);
}

// A value that does not parse leaves `value` as it is.
void read_double(FILE *file, double *value) {
    double read = 0;
    if (fscanf(file, "%lf", &read) == 1)
        *value = read;
}

} // namespace

int32_t get_rffe_req_sem_wait_time() {
    int32_t value = 15;
    read_parameter("RFFE_REQUEST_SEMAPHORE_WAIT_TIME", "RFFE_REQUEST_SEMAPHORE_WAIT_TIME 15\n",
                   read_short_word, [&value](FILE *file) {
                       // "%d" cuts what is too large on one machine and saturates on another.
                       long long read = 0;
                       if (fscanf(file, "%lld", &read) == 1)
                           value = static_cast<int32_t>(
                               std::clamp<long long>(read, std::numeric_limits<int32_t>::min(),
                                                     std::numeric_limits<int32_t>::max()));
                   });
    log_info("%s: rffe_req_sem_wait_time = %d\n", __func__, value);
    return value;
}

double get_gps_pos_buffer_time() {
    double value = 5.0;
    const char *name = __func__;
    read_parameter("GPS_GET_POS_BUFFER_TIME", "GPS_GET_POS_BUFFER_TIME 5.0\n", read_word,
                   [&value, name](FILE *file) {
                       read_double(file, &value);
                       log_info("%s: reading value from file, buffer_time = %lf", name, value);
                   });
    log_info("%s: gps_get_pos buffer time = %f\n", __func__, value);
    return value;
}

double get_loc_hist_offset_time() {
    double value = 120.0;
    const char *name = __func__;
    read_parameter("LOCATION_HISTORY_BOOT_TIME_OFFSET", "LOCATION_HISTORY_BOOT_TIME_OFFSET 120.0\n",
                   read_word, [&value, name](FILE *file) {
                       read_double(file, &value);
                       log_info("%s: reading value from file, offset_time = %lf", name, value);
                   });
    log_info("%s: location history boot offset time = %f\n", __func__, value);
    return value;
}
