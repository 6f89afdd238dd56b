// Running the label probe program and reading its answer.
#include "inspect/label_probe.h"

#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <strings.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/child_process.h"
#include "base/small_files.h"
#include "base/words.h"
#include "inspect/raid_members.h"

static const size_t answer_limit = 4095;

// A single blank: not empty, so that nobody asks again.
static void set_unknown(std::string *filesystem)
{
    if (filesystem)
        filesystem->assign(1, ' ');
}

// In the child: never returns.
[[noreturn]] static void become_probe(const std::string &path, int read_end, int write_end)
{
    close(read_end);
    int null_fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (null_fd >= 0) {
        dup2(null_fd, STDIN_FILENO);
        dup2(null_fd, STDERR_FILENO);
    }
    dup2(write_end, STDOUT_FILENO);
    close(write_end);
    const char *const arguments[] = {probe_program, path.c_str(), "--fs", nullptr};
    execv(probe_program, const_cast<char *const *>(arguments));
    _exit(1);
}

// Waits until the child is gone. Its wait status, or -1 when somebody else reaped it.
static int reap_probe(pid_t child)
{
    int status = -1;
    int patience = 15;
    while (kill(child, 0) == 0) {
        if (--patience <= 0)
            kill(child, SIGKILL);
        // Once it is reaped its number may belong to another process: never signal that.
        if (waitpid(child, &status, 0) == child)
            break;
        usleep(1000);
    }
    return status;
}

void parse_probe_answer(const std::string &answer, std::string &label, std::string *filesystem)
{
    LineReader lines(answer);
    std::string_view line;
    if (!lines.Next(line))
        line = std::string_view();
    label = std::string(line);
    fprintf(stderr, "Label: '%s'\n", label.c_str());
    while (lines.Next(line)) {
        size_t start = line.find_first_not_of(" \t");
        if (start == std::string_view::npos)
            continue;
        line.remove_prefix(start);
        size_t colon = line.find(':');
        if (colon == std::string_view::npos)
            continue;
        const std::string key(line.substr(0, colon));
        std::string_view value = line.substr(colon + 1);
        if (value.starts_with(' '))
            value.remove_prefix(1);
        const std::string value_text(value);
        if (filesystem && strcasecmp(key.c_str(), "filesystem") == 0)
            *filesystem = value_text;
        fprintf(stderr, "  '%s' = '%s'\n", key.c_str(), value_text.c_str());
    }
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): a caller may hand over a field of the record
int probe_label(std::string name, std::string &label, std::string *filesystem)
{
    if (is_raid_member(name)) {
        label.clear();
        set_unknown(filesystem);
        return 0;
    }
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) < 0)
        return 0;
    // The pipe stays open here, on purpose: an empty name is a caller's bug, and it shows as
    // descriptors that pile up.
    if (name.empty())
        return 0;
    const std::string path = name[0] == '/' ? name : "/dev/" + name;
    set_unknown(filesystem);

    const pid_t child = fork_child();
    if (child < 0) {
        close(ends[0]);
        close(ends[1]);
        return 0;
    }
    if (child == 0)
        become_probe(path, ends[0], ends[1]);
    close(ends[1]);
    // One read: the program writes its whole answer at once, and what is too long for it is noise.
    char answer[answer_limit + 1];
    ssize_t got = read(ends[0], answer, answer_limit);
    answer[got < 0 ? 0 : got] = '\0';
    int status = reap_probe(child);
    close(ends[0]);
    if (status != 0) {
        fprintf(stderr, "volsniffer failed for %s, return value %u\n", path.c_str(),
                static_cast<unsigned>((status >> 8) & 255));
        return 0;
    }
    parse_probe_answer(answer, label, filesystem);
    return 1;
}
