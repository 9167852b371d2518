// Location history: a ring file of text lines, its export, and the acquisition that fills it.
//
// The file: 8 bytes of header (two little-endian u32: wrap_offset, write_offset), then lines, 2 MiB
// at most. Until the first wrap wrap_offset is 8; from then on both point behind the newest line,
// where the oldest surviving data begins. The first of the older lines may be a partial one. The
// file is never truncated.
//
// Both files are regular files by their own names, or they are not touched. A failed operation may
// leave the file open; the next open then uses it where it stands.
#ifndef GPS_HISTORY_H
#define GPS_HISTORY_H

#include "gps_data.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>

constexpr uint32_t LS_HISTORY_FILE_SIZE = 2'097'152; // header included
constexpr size_t LS_HISTORY_LINE_SIZE = 60;          // longest line and its NUL

using ls_history_line = std::array<char, LS_HISTORY_LINE_SIZE>;

// --- gps_history_file.cpp: the file. Every call is made under this lock, but for start-up's.
extern std::mutex ls_history_file_lock;

// A missing file is made, empty; one that cannot be opened stays as it is (logged).
void ls_history_file_open();
void ls_history_file_close();

// Sets the header in memory to that of an empty file.
void ls_hal_metadata_default();

// 0 when a whole header was read that fits the file, -1 otherwise.
int ls_hal_read_metadata_from_file();

// 0 when the whole header is on the disk, and the name of an empty file with it; -1 otherwise.
int ls_hal_write_metadata_to_file();

// Appends the line of a position to a zeroed buffer: local time, fix, place, accuracy, satellites.
void ls_position_to_string(const gps_pos_data *pos, ls_history_line *line);

// Appends one line to the file. 0: no power loss takes it back. -1 (logged).
int ls_write_to_file(const char *line);

// Exports the lines, oldest first, to the text file. 0; 255 when something could not be written;
// -1 when it could not be begun, or the ring could not be read to its end (logged).
int ls_hal_read_history_data();

// --- gps_history.cpp: acquisition and its settings. Any thread.

// Start-up: starts acquisition when the settings say so and the receiver is on, else makes sure
// that the file has a header. 0, or -1 (logged).
int ls_hal_init_gps_history();

// Reads the settings again and starts, restarts or stops acquisition. 0 applied; 1 settings
// unreadable or invalid; -1 the timer could not be deleted.
int ls_hal_history_config();

// Timer callback: acquires one position, fresh or buffered, and writes its line. Always 0.
int ls_history_periodic_timer_handler(void *timer_id);

// Shutdown. 0, or -1 when no timer runs or it could not be deleted (logged).
int ls_hal_deinit_gps_history();

#endif
