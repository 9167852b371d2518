// lsctl settings: what other commands want to know of the stored settings.
#ifndef LSCTL_SETTINGS_H
#define LSCTL_SETTINGS_H

#include <string>

#include "dbhandler_admin.h"

// All settings, or the defaults where none are stored yet; touches no file. False: they cannot be
// read, and nobody is told.
bool lsctl_look_at_settings(db_settings *stored);

// Path of the settings database; empty where the terminal's libdbhandler does not say.
std::string lsctl_settings_file();

#endif
