// What the daemon reads from files that people write: the static location, and the control
// parameters. The first byte chooses.
#include "fuzz_target.h"

#include "fake_platform.h"
#include "gps_main.h"
#include "gps_service.h"
#include "ls_paths.h"
#include "ls_state.h"
#include "lsctl_static_file.h"

namespace {

void read_parameters(const std::string &text) {
    scratch_dir::write(LS_PATH_CONTROL_PARAMETERS, text);
    get_rffe_req_sem_wait_time();
    get_gps_pos_buffer_time();
    get_loc_hist_offset_time();
    const std::string after = scratch_dir::read(LS_PATH_CONTROL_PARAMETERS);
    // One that cannot be told from what stands before it is added once more.
    fuzz_expect(after.starts_with(text) && after.size() <= text.size() + 256,
                "what people wrote stays, and what is missing is added");
}

void read_static_location(const std::string &text) {
    scratch_dir::write(LS_PATH_STUB_LOCATION, text);
    fuzz_expect(ls_read_stub_location() == 0, "the file is read");
    const static_state told = static_read(text);
    fuzz_expect(told.is_on == (stub_location_on_g == 1), "lsctl reads the switch as the service");
    gps_pos_data position = {};
    const bool found = stub_location_on_g == 1 && gps_get_pos(&position) == 0;
    fuzz_expect(found || !told.place, "what lsctl takes for a place the service does, too");
}

} // namespace

void fuzz(fuzz_input input) {
    fake::reset();
    const bool parameters = input.number<char>() == 'p';
    (parameters ? read_parameters : read_static_location)(std::string(input.rest));
}
