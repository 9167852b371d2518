// Every fixed path of the daemon, spelled once.
//
// LS_ROOT is a build constant: empty for the terminal, "." for a workstation, where the daemon then
// lives in the directory it is started in.
#ifndef LS_PATHS_H
#define LS_PATHS_H

#ifndef LS_ROOT
#error "LS_ROOT must be defined by the build (empty for the terminal)"
#endif

#define LS_PATH_UART LS_ROOT "/dev/ttymxc2"
#define LS_PATH_GPIO LS_ROOT "/sys/class/gpio"
#define LS_PATH_CONTROL_PARAMETERS LS_ROOT "/user/gps_control_prm.txt"
#define LS_PATH_STUB_LOCATION_DIR LS_ROOT "/user/stub_location/"
#define LS_PATH_STUB_LOCATION LS_PATH_STUB_LOCATION_DIR "stub_loc.gps"
#define LS_PATH_HISTORY_DIR LS_ROOT "/user/location"
#define LS_PATH_HISTORY LS_PATH_HISTORY_DIR "/location_history"
#define LS_PATH_HISTORY_EXPORT LS_PATH_HISTORY_DIR "/location_history.txt"

// What reply 1013 says, the same text in every build: clients know the file by this name.
#define LS_HISTORY_EXPORT_NAME "/user/location/location_history.txt"

#endif
