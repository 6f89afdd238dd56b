// quarryd: start-up, the main loop and shutdown, in the order in which they happen.
#include <csignal>
#include <cstdio>
#include <ctime>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include "base/daemon_state.h"
#include "core/boot_drive.h"
#include "core/configuration.h"
#include "core/inherited_state.h"
#include "core/main_partition_search.h"
#include "core/options.h"
#include "core/single_instance.h"
#include "core/site_scripts.h"
#include "mount/kernel_tables.h"
#include "mount/mnt_housekeeping.h"
#include "mount/quotas_and_acls.h"
#include "mount/unmount_all.h"
#include "protocol/control_socket.h"
#include "registry/connection_types.h"
#include "registry/device_list.h"
#include "swap/swap_file.h"

static const useconds_t idle_sleep = 50000; // microseconds
static const time_t full_rescan_seconds = 60;

static const char main_partition_link[] = "/mnt/main";

static void request_termination(int signal_number)
{
    if (signal_number == SIGTERM || signal_number == SIGINT || signal_number == SIGQUIT)
        terminate_requested = 1;
}

static void look_up_users()
{
    const passwd *user = getpwnam("nobody");
    if (!user)
        fprintf(stderr, "Cannot get credentials for nobody\n");
    nobody_uid = user ? static_cast<int>(user->pw_uid) : -1;
    nobody_gid = user ? static_cast<int>(user->pw_gid) : -1;
    fprintf(stderr, "user nobody:   uid=%d gid=%d\n", nobody_uid, nobody_gid);

    user = getpwnam("schedule");
    if (user) {
        schedule_uid = static_cast<int>(user->pw_uid);
        schedule_gid = static_cast<int>(user->pw_gid);
    } else {
        fprintf(stderr, "Cannot get credentials for schedule\n");
        schedule_uid = -1; // the group stays 0: no rule asks for it
    }
    fprintf(stderr, "user schedule: uid=%d gid=%d\n", schedule_uid, schedule_gid);
}

static void make_directories()
{
    // They may be there already; the scripts in the last two run as root, so only root looks in.
    mkdir("/var/quarryd", 0755);
    mkdir("/var/quarryd/mount-notify", 0700);
    mkdir("/var/quarryd/device-notify", 0700);
}

// Everything up to the main loop. 0 to go on, otherwise the daemon ends with status 1.
static int start_up(int argc, const char *const *argv)
{
    put_inherited_state_right();
    hotplug_mode = hotplug_present();
    if (parse_options(argc, argv))
        return 1;
    init_connection_types();
    printf(hotplug_mode ? "Hotplug mode enabled\n" : "Polling mode enabled\n");
    look_up_users();
    if (comment_on_options(argc, argv))
        return 1;
    if (another_instance_runs()) {
        fprintf(stderr, "Sorry, quarryd is already running\n");
        return 1;
    }
    unlink(main_partition_link);
    make_directories();
    openlog("quarryd", LOG_PID | LOG_NDELAY, LOG_DAEMON);
    syslog(LOG_INFO, "Quarryd disk tracker starting");
    if (!init_socket()) {
        fprintf(stderr, "Socket initialization failed\n");
        return 1;
    }
    if (!read_configuration())
        fprintf(stderr, "Configuration file error, check /etc/quarryd.conf. Continuing with "
                        "defaults\n");
    read_kernel_tables();
    detect_boot_drive();
    UpdateBlockDeviceList();
    for (int number : {SIGTERM, SIGQUIT, SIGINT})
        signal(number, request_termination);
    if (!settings.main_drive_model.empty())
        fprintf(stderr, "Warning: drive model specification feature deprecated. main drive search "
                        "matches by signature now.\n");
    printf("Main part sig: '%s'\n", settings.main_partition_signature.c_str());
    printf("Main label: '%s'\n", settings.main_partition_label.c_str());
    return 0;
}

// One child a pass: the others are still there in the next.
static void reap_one_child()
{
    const pid_t child = waitpid(-1, nullptr, WNOHANG);
    if (child <= 0)
        return;
    fprintf(stderr, "Process %d died\n", child);
    if (child == startup_child_pid)
        startup_child_pid = -1;
}

// One pass of the search; true when it is over.
static bool take_main_partition()
{
    if (!search_main_partition())
        return false;
    if (!SwapOn())
        fprintf(stderr, "Warning: cannot enable swap\n");
    const std::string directory = "/mnt/" + main_partition;
    enable_quotas(main_partition, directory);
    enable_acls(main_partition, directory);
    fprintf(stderr, "Found main partition on %s part %s\n", main_drive.c_str(),
            main_partition.c_str());
    return true;
}

static void run_until_terminated(time_t start_time)
{
    time_t tick_1s = start_time; // kernel tables, and in polling mode the drives
    time_t tick_4s = start_time; // hotplug mode: a look at the known drives
    time_t tick_5s = 0;          // housekeeping of /mnt; due in the first pass
    // The start script waits for the main partition, when there is one to be found.
    bool main_search_pending =
        !settings.main_partition_signature.empty() || !settings.main_partition_label.empty();
    bool startup_done = false;

    while (!terminate_requested) {
        if (main_search_pending) {
            main_search_pending = !take_main_partition();
        } else if (!startup_done) {
            run_startup();
            startup_done = true;
        }
        if (!serve_control_socket())
            usleep(idle_sleep);
        const time_t now = time(nullptr);
        if (now >= tick_1s) {
            read_kernel_tables();
            if (!hotplug_mode)
                UpdateBlockDeviceList();
            tick_1s += 1; // not now + 1: after a stall it catches up, one step a pass
        }
        if (now >= tick_4s) {
            if (hotplug_mode)
                refresh_drives();
            tick_4s += 4;
        }
        if (hotplug_mode && now >= next_full_rescan) {
            UpdateBlockDeviceList();
            next_full_rescan = now + full_rescan_seconds;
        }
        reap_one_child();
        if (now >= tick_5s) {
            tidy_mnt();
            tick_5s = now + 5;
        }
    }
}

static void switch_swap_off()
{
    if (SwapFileActive())
        SwapOff();
    SwapOffMainDriveOthers();
    SwapOffAll();
}

static void shut_down()
{
    syslog(LOG_INFO, "Quarryd disk tracker terminating");
    run_shutdown();
    switch_swap_off();
    switch_swap_off(); // once more: what had no room in memory the first time may have it now
    unmount_all();
    close_control_socket();
    FreeBlockDeviceList();
    unlink(main_partition_link);
}

int main(int argc, char **argv)
{
    const time_t start_time = time(nullptr);
    if (start_up(argc, argv))
        return 1;
    run_until_terminated(start_time);
    shut_down();
    return 0;
}
