// The serial line to the receiver on boards of type 1: open, write one command, read one answer.
//
// One process-wide descriptor. Takes no lock: callers serialise each write-and-read pair (the UART
// lock of the receiver request; the power-on sequence runs alone). A line failure is reported to WS
// as an alarm notification, once per failing call.
#ifndef GPS_UART_H
#define GPS_UART_H

#include <cstdint>

// Opens and configures the line: 9600 8N1 raw, reads give up after 3 s of silence. 0, or -1.
int ls_hal_uart_init();

void ls_hal_uart_close();

// Empties the receive scratch buffer. Any thread.
void ls_hal_clear_rx_buffer();

// Writes `length` bytes with one call; a short write counts as success. When the first byte is '$'
// the buffer must be a string. 0 written; 1 null buffer or line failure; -1 line failure that could
// not be reported because there is no bus connection.
int ls_hal_tty_write(const uint8_t *buffer, int32_t length);

// Drops what has come in and was not read: the rest of a long answer, or a late one.
void ls_hal_tty_discard();

// One read. *length: in, bytes wanted (at most 400 are read, `buffer` must hold them); out, what
// the read returned. 0 data; 2 nothing before the time-out; 1 and -1 as for write.
int ls_hal_tty_read(uint8_t *buffer, int32_t *length);

#endif
