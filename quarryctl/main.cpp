// quarryctl: asks quarryd from the command line.
#include <CLI/CLI.hpp>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "busy.h"
#include "check.h"
#include "connection.h"
#include "verbs.h"
#include "watch.h"

static const char about[] = "quarryctl: lists, mounts and watches the drives of this machine, by "
                            "asking quarryd, the daemon\n"
                            "that manages them.\n";

static const char footnote[] =
    "`quarryctl VERB --help` tells more of a verb.\n"
    "\n"
    "DEVICE is a name (sdb1), a path (/dev/sdb1), or ^ and a label (^HOLIDAY, '^my disk').\n"
    "\n"
    "Exit status:\n"
    "  0  done\n"
    "  1  the daemon refused or failed and stderr says why, or the output could not be written\n"
    "  2  called in a wrong way\n"
    "  3  there is no daemon that runs as root, or its answer was cut off or garbled\n"
    "  4  no answer in time; what was asked for may still be carried out\n"
    "\n"
    "Examples:\n"
    "  quarryctl list\n"
    "  cd \"$(quarryctl mount rw ^HOLIDAY)\"\n"
    "  quarryctl umount --force sdb1\n"
    "  quarryctl list --json | jq -r '.blockdevices[].children[]? | "
    "select(.fstype==\"fat\").name'\n";

static const char list_footnote[] =
    "The table has a row for each drive and below it one for each of its partitions; what does "
    "not\n"
    "fit into the terminal is cut. Sizes count in steps of 1000, as drives are sold. NO_COLOR in "
    "the\n"
    "environment switches colours off.\n"
    "\n"
    "--plain prints a line for each, with these fields between tabs, \"-\" where there is "
    "nothing:\n"
    "  name, drive (of a partition), type, connection, label, size in bytes, model, place, raid,\n"
    "  filesystem, mount point\n"
    "What a terminal could obey is written as \\x1b or \\u202e, a backslash as \\\\.\n"
    "\n"
    "--json prints {\"blockdevices\": [{\"name\": ..., \"children\": [...]}]} with the keys name, "
    "path,\n"
    "type (disk, part, rom, lvm), kind, connection, label, size (bytes), model, place, raid, "
    "fstype,\n"
    "mountpoints; null where nothing is known.\n";

static const char enumerate_footnote[] =
    "Drives whose connection is not known, and those of NVMe and the volume manager, are not told "
    "of\n"
    "here; `quarryctl list` has all.\n"
    "\n"
    "--plain prints a line for each, with these fields between tabs, \"-\" where there is "
    "nothing:\n"
    "  name, drive (of a partition), type (of the drive), connection, label, model, place, path\n"
    "  below /sys\n"
    "\n"
    "--json has the form of `quarryctl list --json` and the key sysfs_path.\n";

static const char mount_footnote[] =
    "Prints the mount point and nothing else; what the daemon has to say besides is on stderr. A\n"
    "device that is mounted in the other mode is remounted. Waits for up to two minutes, for a "
    "drive\n"
    "may be slow, and so may the scripts that are run for each mount.\n";

static const char watch_footnote[] =
    "On a terminal: the table, kept up to date; + came, - went, * changed. q or Ctrl-C ends it.\n"
    "Elsewhere: a line for each device that is there (\"present\"), then one for each change "
    "(\"added\",\n"
    "\"removed\", \"changed\"), followed by a tab and the fields of `quarryctl list --plain`.\n";

static const char busy_footnote[] =
    "DEVICE may be a mount point, too; a drive brings its partitions along. No daemon is asked, "
    "and\n"
    "no filesystem: a mount that hangs is no obstacle. Root sees what all processes hold; anybody\n"
    "else is told of how many he could not learn that.\n"
    "\n"
    "What HOLDS says:\n"
    "  directory, root, program   a process's working directory, its root, the program that it "
    "runs\n"
    "  file, mapping              an open file, a file mapped into memory\n"
    "  device                     the device itself is open\n"
    "  bystander                  nothing of the device, but the daemon would end the process: it\n"
    "                             compares paths as texts, and /mnt/sdb1 is the beginning of "
    "/mnt/sdb10\n"
    "  mount                      a mount on a folder of the device's filesystem\n"
    "  swap                       the device, or a file on it, is a swap area\n"
    "  loop, stacked              a loop device with a file on it; a volume or array made of it\n"
    "  namespace                  another mount namespace has it mounted\n"
    "\n"
    "ENDED BY says whom the daemon would end, by its own rule: rudeoff, when it clears the mount "
    "(for\n"
    "`quarryctl umount --force`; when the device is pulled, and at the daemon's end, unless it "
    "runs\n"
    "with --nfsx); rudero, also for `quarryctl remount --force ro`.\n"
    "\n"
    "--plain prints a line for each holder, with these fields between tabs, \"-\" where there is\n"
    "nothing:\n"
    "  holds, device, pid, user, command, ended by (rudeoff, or rudeoff,rudero), what, more\n"
    "What a terminal could obey is written as \\x1b or \\u202e, a backslash as \\\\.\n"
    "\n"
    "--json prints {\"devices\": [...], \"holders\": [...]} with the keys name, mounts, cleared "
    "(the\n"
    "mount point that the daemon would clear), active_unmounted; kind, device, pid, uid, user, "
    "command,\n"
    "what, more, ended_by; and unseen_processes, unread_memory, list_is_partial: what is not "
    "known.\n"
    "\n"
    "The exit status is 0 whether or not anything holds it, and 1 when there is no such device.\n";

static const char check_footnote[] =
    "Examines the configuration file, the scripts, the programs that the daemon runs, /mnt, and\n"
    "whoever passes the kernel's events on; of this machine also the kernel and the owner of the\n"
    "daemon's socket. Nothing is changed, and no daemon is asked. Run it as root: others may not\n"
    "look everywhere.\n"
    "\n"
    "A line for each finding: severity, place, what will happen; what to do about it.\n"
    "  error    something that is installed or asked for does not work, or is unsafe\n"
    "  warning  something is probably not what was meant\n"
    "  note     worth knowing\n"
    "\n"
    "With --root the owner of DIR counts as root: he is preparing the tree.\n"
    "\n"
    "--plain prints these fields between tabs, \"-\" where there is nothing:\n"
    "  severity, code, place, line, what will happen, what to do\n"
    "\n"
    "--json prints {\"findings\": [...], \"errors\": 0, \"warnings\": 0, \"notes\": 0} with the "
    "keys\n"
    "severity, code, place, line, effect, remedy. Codes stay; new ones may come.\n"
    "\n"
    "The exit status is 0 without errors and warnings, otherwise 1.\n";

static const char raw_footnote[] =
    "The reply is printed as it comes: lines that begin \"OK-\" and a last one that begins \"OK "
    "\"; a\n"
    "refusal is on stderr. To a terminal nothing goes that it could obey.\n";

static const char wait_footnote[] =
    "Waits for up to two minutes, unless --timeout says otherwise.\n";

// A positional that is spelt otherwise than by its name shows its own text; nothing is marked
// "REQUIRED", since the others are in brackets.
class Formatter : public CLI::Formatter {
public:
    Formatter()
    {
        column_width(24);
    }

    std::string make_option_opts(const CLI::Option *option) const override
    {
        const std::string &type = option->get_type_name();
        const bool has_value = option->get_type_size() != 0 && !option->get_positional();
        return has_value ? " " + type : std::string();
    }
};

// What the command line says.
struct Wishes {
    double timeout = -1; // seconds; negative: the verb's own
    double interval = 2;
    bool is_plain = false;
    bool is_json = false;
    bool is_forced = false;
    std::string mode;
    std::string device;
    std::string action;
    std::string root = "/";
    std::vector<std::string> words;

    std::function<ExitStatus()> run;

    double Patience(double usual = usual_patience) const
    {
        return timeout < 0 ? usual : timeout;
    }

    OutputForm Form() const
    {
        if (is_json)
            return FORM_JSON;
        return is_plain ? FORM_PLAIN : FORM_TABLE;
    }
};

// A number of seconds that a clock can count. Empty when the text is one, as the library wants it.
static std::string check_seconds(const std::string &text)
{
    double seconds = 0;
    const char *const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, seconds);
    const bool is_number = result.ec == std::errc() && result.ptr == end;
    const double longest = 1e6;
    if (is_number && seconds >= 0 && seconds <= longest)
        return std::string();
    return "not a number of seconds from 0 to a million: " + text;
}

// Likewise a number of seconds between two questions: each costs the daemon something.
static std::string check_interval(const std::string &text)
{
    std::string complaint = check_seconds(text);
    const double shortest = 0.1;
    if (!complaint.empty() || strtod(text.c_str(), nullptr) >= shortest)
        return complaint;
    return "the shortest is a tenth of a second, not " + text;
}

static CLI::App *add_verb(CLI::App &app, Wishes &wishes, const char *name, const char *description,
                          std::function<ExitStatus()> run)
{
    CLI::App *verb = app.add_subcommand(name, description);
    verb->group("Verbs");
    verb->footer("");
    verb->callback([&wishes, run = std::move(run)] { wishes.run = run; });
    return verb;
}

// A verb that is one word of the protocol and nothing else.
static CLI::App *add_simple_verb(CLI::App &app, Wishes &wishes, const char *name,
                                 const char *description, double patience = usual_patience)
{
    return add_verb(app, wishes, name, description, [&wishes, name, patience] {
        return run_request({name}, wishes.Patience(patience));
    });
}

static void add_forms(CLI::App *verb, Wishes &wishes)
{
    CLI::Option *plain = verb->add_flag("--plain", wishes.is_plain, "for scripts: fields and tabs");
    verb->add_flag("--json", wishes.is_json, "for programs")->excludes(plain);
}

static void add_device(CLI::App *verb, Wishes &wishes)
{
    verb->add_option("DEVICE", wishes.device, "a name, a path, or ^ and a label")->required();
}

static void add_mode(CLI::App *verb, Wishes &wishes)
{
    verb->add_option("MODE", wishes.mode, "ro or rw: to read, or to write too")
        ->required()
        ->check(CLI::IsMember({"ro", "rw"}));
}

static void add_listings(CLI::App &app, Wishes &wishes)
{
    CLI::App *list = add_verb(app, wishes, "list", "List all drives and their partitions",
                              [&] { return run_list(wishes.Form(), wishes.Patience()); });
    add_forms(list, wishes);
    list->footer(list_footnote);

    CLI::App *watch = add_verb(app, wishes, "watch", "Show the list and what changes in it",
                               [&] { return run_watch(wishes.interval, wishes.Patience()); });
    watch->add_option("--interval", wishes.interval, "how often to look; 2 unless given")
        ->type_name("SECONDS")
        ->check(check_interval);
    watch->footer(watch_footnote);

    CLI::App *enumerate =
        add_verb(app, wishes, "enumerate", "List drives by how they are connected",
                 [&] { return run_enumerate(wishes.Form(), wishes.Patience()); });
    add_forms(enumerate, wishes);
    enumerate->footer(enumerate_footnote);
}

static void add_mounting(CLI::App &app, Wishes &wishes)
{
    CLI::App *mount =
        add_verb(app, wishes, "mount", "Mount a device below /mnt and print where",
                 [&] { return run_mount(wishes.mode, wishes.device, wishes.Patience()); });
    add_mode(mount, wishes);
    add_device(mount, wishes);
    mount->footer(mount_footnote);

    CLI::App *remount =
        add_verb(app, wishes, "remount", "Make a mounted device read-only or writable", [&] {
            if (!wishes.is_forced)
                return run_remount(wishes.mode, wishes.device, wishes.Patience());
            if (wishes.mode == "ro")
                return run_remount("rudero", wishes.device, wishes.Patience());
            complain("--force goes with ro: nobody is in the way of writing");
            return EXIT_USAGE;
        });
    add_mode(remount, wishes);
    add_device(remount, wishes);
    remount->add_flag("--force", wishes.is_forced, "with ro: end the processes that write to it");
    remount->footer(mount_footnote);

    CLI::App *umount = add_verb(app, wishes, "umount", "Unmount a device", [&] {
        if (wishes.is_forced)
            return run_request({"mount", "rudeoff", wishes.device}, wishes.Patience());
        return run_request({"umount", wishes.device}, wishes.Patience());
    });
    add_device(umount, wishes);
    umount->add_flag("--force", wishes.is_forced, "end the processes that use it first");
    umount->footer(wait_footnote);
}

static void add_examinations(CLI::App &app, Wishes &wishes)
{
    CLI::App *busy =
        add_verb(app, wishes, "busy", "Show who holds a device, and whom that would cost",
                 [&] { return run_busy(wishes.Form(), wishes.device); });
    add_forms(busy, wishes);
    add_device(busy, wishes);
    busy->footer(busy_footnote);

    CLI::App *check = add_verb(app, wishes, "check", "Look for mistakes in the installation",
                               [&] { return run_check(wishes.Form(), wishes.root); });
    add_forms(check, wishes);
    check->add_option("--root", wishes.root, "of an installation below this folder")
        ->type_name("DIR");
    check->footer(check_footnote);
}

static void add_trays(CLI::App &app, Wishes &wishes)
{
    static const struct {
        const char *name;
        const char *description;
    } trays[] = {
        {"eject", "Open the tray of an optical drive"},
        {"retract", "Close the tray of an optical drive"},
    };
    for (const auto &tray : trays) {
        CLI::App *verb = add_verb(app, wishes, tray.name, tray.description, [&wishes, &tray] {
            return run_request({tray.name, wishes.device}, wishes.Patience());
        });
        verb->add_option("DEVICE", wishes.device, "a name (sr0) or a path (/dev/sr0)")->required();
        verb->footer(wait_footnote);
    }
}

static void add_rarer_verbs(CLI::App &app, Wishes &wishes)
{
    static const char swap_footnote[] = "Root alone may. Waits for up to 15 minutes, unless "
                                        "--timeout says otherwise.\n";
    add_simple_verb(app, wishes, "swapon", "Switch the swap file on the main partition on",
                    swap_patience)
        ->footer(swap_footnote);
    add_simple_verb(app, wishes, "swapoff", "Switch the swap file on the main partition off",
                    swap_patience)
        ->footer(swap_footnote);
    add_simple_verb(app, wishes, "refresh", "Look for drives and partitions at once")
        ->footer("Also for members of arrays and for what is mounted. Root alone may.\n");
    add_simple_verb(app, wishes, "hotplug", "Follow drives by the kernel's events")
        ->footer("Somebody must pass the events on (`notify`). Root alone may.\n");
    add_simple_verb(app, wishes, "polling", "Follow drives by looking every second")
        ->footer("Root alone may.\n");

    CLI::App *notify =
        add_verb(app, wishes, "notify", "Pass an event of the kernel on, in hotplug mode", [&] {
            return run_request({"notify", wishes.action, wishes.device}, wishes.Patience());
        });
    notify->add_option("ACTION", wishes.action, "add, or remove")->required();
    notify->add_option("DEVPATH", wishes.device, "the device's path in sysfs: /block/sdb/sdb1")
        ->required();
    notify->footer("Root alone may.\n");

    add_simple_verb(app, wishes, "help", "Show what requests the daemon itself knows")
        ->footer("`quarryctl --help` is for this program.\n");

    CLI::App *raw = add_verb(app, wishes, "raw", "Send a request as it is", [&] {
        std::string line;
        for (const std::string &word : wishes.words)
            line += (line.empty() ? "" : " ") + word;
        return run_raw(line, wishes.Patience());
    });
    raw->add_option("LINE", wishes.words, "the request; several words are joined by blanks")
        ->required();
    raw->footer(raw_footnote);
}

static void describe(CLI::App &app, Wishes &wishes)
{
    app.formatter(std::make_shared<Formatter>());
    app.get_formatter()->label("SUBCOMMAND", "VERB");
    app.get_formatter()->label("Subcommands", "Verbs");
    app.set_help_flag("-h,--help", "print this help");
    app.set_version_flag("--version", "quarryctl " QUARRYD_VERSION, "print the version");
    app.add_option("--timeout", wishes.timeout, "how long to wait for an answer; 0 is for ever")
        ->type_name("SECONDS")
        ->check(check_seconds);
    app.footer(footnote);
    app.fallthrough(); // an option of the program may stand behind the verb, too
    app.require_subcommand(1);
    add_listings(app, wishes);
    add_mounting(app, wishes);
    add_examinations(app, wishes);
    add_trays(app, wishes);
    add_rarer_verbs(app, wishes);
}

static ExitStatus run(int argc, char **argv)
{
    Wishes wishes;
    CLI::App app(about, "quarryctl");
    describe(app, wishes);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        if (error.get_exit_code() == 0) // what was asked for is a text
            return app.exit(error) == 0 ? EXIT_DONE : EXIT_USAGE;
        // The library would print the words that it complains of as they are.
        complain(error.what());
        fputs("Run with --help for more information.\n", stderr);
        return EXIT_USAGE;
    }
    return wishes.run();
}

int main(int argc, char **argv)
{
    ExitStatus status = EXIT_REFUSED;
    try {
        status = run(argc, argv);
    } catch (const std::exception &error) {
        complain(error.what());
    }
    if ((fflush(stdout) != 0 || ferror(stdout)) && status == EXIT_DONE) {
        complain(std::string("cannot write: ") + strerror(errno));
        status = EXIT_REFUSED;
    }
    return status;
}
