// Start values of the process-wide state.
#include "base/daemon_state.h"

volatile std::sig_atomic_t terminate_requested = 0;
int hotplug_mode = 0;
int no_force_shutdown = 0;
int nobody_uid = 0;
int nobody_gid = 0;
int schedule_uid = 0;
int schedule_gid = 0;
pid_t startup_child_pid = -1;
time_t next_full_rescan = 0;
std::string boot_drive;
std::string boot_partition;
std::string main_drive;
std::string main_partition;
std::string swap_path;
Settings settings;
