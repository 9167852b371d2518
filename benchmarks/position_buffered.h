// The buffered position of board type 2 beside a bare server. See the source.
#ifndef POSITION_BUFFERED_H
#define POSITION_BUFFERED_H

// Measures and prints. False (said on stderr) when something did not run.
bool buffered_position(bool brief);

// The bare server on a socket of that path; never returns but for an error. A process of its own.
int bare_server(const char *path);

#endif
