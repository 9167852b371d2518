// The serial line to the receiver on boards of type 1: open, write one command, read one answer.
//
// One process-wide descriptor, which outlives its last user. A line failure is reported to WS as an
// alarm notification, once per failing call.
//
// One read is one answer: the driver hands an answer over whole, when the line falls idle behind
// it. With one that hands over byte by byte every query fails.
#ifndef GPS_UART_H
#define GPS_UART_H

#include <cstdint>
#include <mutex>

// One write and its read at a time: held over each exchange by the receiver request and by the
// configuration at power-on. The calls below do not take it.
extern std::mutex ls_uart_lock;

// Opens and configures the line: 9600 8N1 raw, reads give up after 3 s of silence. 0, or -1.
int ls_hal_uart_init();

// The descriptor closes when the last read or write that is under way returns.
void ls_hal_uart_close();

// The time from registration on the bus to the end of the receiver's configuration, when requests
// may come but the line is not theirs yet. Main thread.
void ls_hal_uart_begin_configuration();
void ls_hal_uart_end_configuration();
// Waits for that time to be over, 3 s at most. Any thread.
void ls_hal_uart_wait_configured();

// Empties the receive scratch buffer. Any thread.
void ls_hal_clear_rx_buffer();

// Writes `length` bytes with one call; a short write counts as success. When the first byte is '$'
// the buffer must be a string. 0 written; 1 null buffer or line failure; -1 line failure that could
// not be reported because there is no bus connection.
int ls_hal_tty_write(const uint8_t *buffer, int32_t length);

// One read. *length: in, bytes wanted (at most 400 are read, `buffer` must hold them); out, what
// the read returned. 0 data; 2 nothing before the time-out; 1 and -1 as for write.
int ls_hal_tty_read(uint8_t *buffer, int32_t *length);

// Something may come in, or lie there, that answers no later command: read and write say so of
// themselves after a time-out, a failure or a full buffer; callers say it of an answer to another
// command and of a receiver that was just switched on. Any thread.
void ls_hal_tty_doubt();

// Drops what has come in and was not read, if there is doubt about it. Under ls_uart_lock.
void ls_hal_tty_discard_doubtful();

#endif
