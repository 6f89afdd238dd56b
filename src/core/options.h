// The command line.
#ifndef QUARRYD_CORE_OPTIONS_H
#define QUARRYD_CORE_OPTIONS_H

// What runs the files of the hook's folder at each event, and the hook.
inline constexpr char hotplug_program[] = "/sbin/hotplug";
inline constexpr char hotplug_hook[] = "/etc/hotplug.d/block/quarryd.hotplug";

// Whether the system's own hotplug machinery is there to tell the daemon about drives: both of its
// files are regular and executable. Prints a line on stdout for each that is.
int hotplug_present();

// Sets hotplug_mode and no_force_shutdown by the switches; any number of leading '-' will do. 0 to
// go on; 1 to stop, after one line (or the usage text) on stderr.
int parse_options(int argc, const char *const *argv);

// A second look at the same arguments, which only comments on them. 0 to go on, 1 to stop.
int comment_on_options(int argc, const char *const *argv);

#endif
