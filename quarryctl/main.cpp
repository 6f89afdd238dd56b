// quarryctl: asks quarryd from the command line.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <functional>
#include <string>
#include <vector>

#include "connection.h"
#include "verbs.h"

static const char about[] =
    "Lists, mounts and watches the drives of this machine, by asking quarryd, its disk management "
    "daemon.";

static const char footnote[] =
    "DEVICE is a name (sdb1), a path (/dev/sdb1), or ^ and a label (^HOLIDAY; quote a label with "
    "blanks: '^my disk').\n\n"
    "Exit status:\n"
    "  0  done\n"
    "  1  the daemon refused or failed; its reason is on stderr\n"
    "  2  called in a wrong way\n"
    "  3  no daemon that runs as root, or its answer was cut off or garbled\n"
    "  4  no answer in time\n\n"
    "`quarryctl VERB --help` tells more of a verb.";

// What the command line says.
struct Wishes {
    double timeout = -1; // seconds; negative: the verb's own
    bool plain = false;
    bool json = false;
    bool force = false;
    std::string mode;
    std::string device;
    std::vector<std::string> words;

    std::function<ExitStatus()> run;

    double Patience(double usual) const
    {
        return timeout < 0 ? usual : timeout;
    }

    OutputForm Form() const
    {
        if (json)
            return FORM_JSON;
        return plain ? FORM_PLAIN : FORM_TABLE;
    }
};

static CLI::App *add_verb(CLI::App &app, Wishes &wishes, const char *name, const char *description,
                          std::function<ExitStatus()> run)
{
    CLI::App *verb = app.add_subcommand(name, description);
    verb->callback([&wishes, run = std::move(run)] { wishes.run = run; });
    return verb;
}

static void add_forms(CLI::App *verb, Wishes &wishes)
{
    CLI::Option *plain = verb->add_flag("--plain", wishes.plain, "for scripts: one line each");
    verb->add_flag("--json", wishes.json, "for programs: JSON")->excludes(plain);
}

static void add_listings(CLI::App &app, Wishes &wishes)
{
    CLI::App *list = add_verb(app, wishes, "list", "List drives and their partitions",
                              [&] { return run_list(wishes.Form(), wishes.Patience(60)); });
    add_forms(list, wishes);
    CLI::App *enumerate =
        add_verb(app, wishes, "enumerate", "List drives by how they are connected",
                 [&] { return run_enumerate(wishes.Form(), wishes.Patience(60)); });
    add_forms(enumerate, wishes);
}

static void add_verbs(CLI::App &app, Wishes &wishes)
{
    add_listings(app, wishes);
}

static ExitStatus run(int argc, char **argv)
{
    Wishes wishes;
    CLI::App app(about, "quarryctl");
    app.footer(footnote);
    app.set_version_flag("--version", "quarryctl " QUARRYD_VERSION);
    app.add_option("--timeout", wishes.timeout, "how long to wait for the daemon; 0 is for ever")
        ->type_name("SECONDS")
        ->check(CLI::NonNegativeNumber);
    app.fallthrough(); // an option of the program may stand behind the verb, too
    app.require_subcommand(1);
    add_verbs(app, wishes);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? EXIT_DONE : EXIT_USAGE;
    }
    return wishes.run();
}

int main(int argc, char **argv)
{
    try {
        return run(argc, argv);
    } catch (const std::exception &error) {
        fprintf(stderr, "quarryctl: %s\n", error.what());
        return EXIT_NO_DAEMON;
    }
}
