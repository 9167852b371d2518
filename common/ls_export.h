// Marks a C function that a shared library of this project exports; its name stands in the
// library's version script, too.
#ifndef LS_EXPORT_H
#define LS_EXPORT_H

#define LS_EXPORT extern "C" [[gnu::visibility("default")]]

#endif
