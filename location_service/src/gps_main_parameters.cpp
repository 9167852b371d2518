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

// The ":" never matches: a word has swallowed it. A key written with a colon is another word.
int read_short_word(FILE *file, char *word) {
    return fscanf(file, "%100s:", word);
}

int read_word(FILE *file, char *word) {
    return fscanf(file, "%150s:", word);
}

// Readers of a value. One that does not parse leaves `value` as it is.

void read_wait_time(FILE *file, double *value) {
    // "%d" cuts what is too large on one machine and saturates on another.
    long long read = 0;
    if (fscanf(file, "%lld", &read) == 1)
        *value = static_cast<double>(std::clamp<long long>(
            read, std::numeric_limits<int32_t>::min(), std::numeric_limits<int32_t>::max()));
}

void read_double(FILE *file, double *value) {
    double read = 0;
    if (fscanf(file, "%lf", &read) == 1)
        *value = read;
}

void read_buffer_time(FILE *file, double *value) {
    read_double(file, value);
    log_info("%s: reading value from file, buffer_time = %lf", "get_gps_pos_buffer_time", *value);
}

void read_offset_time(FILE *file, double *value) {
    read_double(file, value);
    log_info("%s: reading value from file, offset_time = %lf", "get_loc_hist_offset_time", *value);
}

struct parameter {
    const char *key;
    const char *default_line; // appended when the key is missing
    double default_value;
    int (*read_word)(FILE *file, char *word); // word: WORD_SIZE bytes
    void (*read_value)(FILE *file, double *value);
};

constexpr parameter wait_time = {"RFFE_REQUEST_SEMAPHORE_WAIT_TIME",
                                 "RFFE_REQUEST_SEMAPHORE_WAIT_TIME 15\n", 15, read_short_word,
                                 read_wait_time};
constexpr parameter buffer_time = {"GPS_GET_POS_BUFFER_TIME", "GPS_GET_POS_BUFFER_TIME 5.0\n", 5.0,
                                   read_word, read_buffer_time};
constexpr parameter offset_time = {"LOCATION_HISTORY_BOOT_TIME_OFFSET",
                                   "LOCATION_HISTORY_BOOT_TIME_OFFSET 120.0\n", 120.0, read_word,
                                   read_offset_time};

// A full disk shows only when the stream is emptied.
void append_default(FILE *file, const parameter &wanted) {
    fseek(file, 0, SEEK_END);
    if (fputs(wanted.default_line, file) < 0 || fflush(file) != 0)
        log_error("%s: %s could not be added: %m\n", LS_PATH_CONTROL_PARAMETERS, wanted.key);
}

double read_parameter(const parameter &wanted) {
    double value = wanted.default_value;
    const ls_file file =
        ls_open_regular_stream(LS_PATH_CONTROL_PARAMETERS, O_RDWR | O_APPEND | O_CREAT, "a+");
    if (!file) {
        log_error("%s file open failed\n", LS_PATH_CONTROL_PARAMETERS);
        return value;
    }
    fseek(file.get(), 0, SEEK_SET);
    bool found = false;
    std::array<char, WORD_SIZE> word = {};
    while (wanted.read_word(file.get(), word.data()) == 1) {
        if (strcmp(word.data(), wanted.key) == 0) {
            wanted.read_value(file.get(), &value);
            found = true;
        }
    }
    if (!found)
        append_default(file.get(), wanted);
    return value;
}

} // namespace

int32_t get_rffe_req_sem_wait_time() {
    const auto value = static_cast<int32_t>(read_parameter(wait_time));
    log_info("%s: rffe_req_sem_wait_time = %d\n", __func__, value);
    return value;
}

double get_gps_pos_buffer_time() {
    const double value = read_parameter(buffer_time);
    log_info("%s: gps_get_pos buffer time = %f\n", __func__, value);
    return value;
}

double get_loc_hist_offset_time() {
    const double value = read_parameter(offset_time);
    log_info("%s: location history boot offset time = %f\n", __func__, value);
    return value;
}
