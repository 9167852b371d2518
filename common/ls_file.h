// A FILE that closes itself. Open with "e" in the mode: every descriptor is close-on-exec.
#ifndef LS_FILE_H
#define LS_FILE_H

#include <cstdio>
#include <memory>

struct ls_file_closer {
    void operator()(FILE *file) const { fclose(file); }
};
using ls_file = std::unique_ptr<FILE, ls_file_closer>;

#endif
