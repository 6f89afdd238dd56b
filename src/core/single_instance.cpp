// Looks for another process with the same program file.
#include "core/single_instance.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <unistd.h>

#include "base/directory.h"
#include "base/small_files.h"

static std::string program_of(int pid)
{
    const size_t path_limit = 511;
    const std::string link = "/proc/" + std::to_string(pid) + "/exe";
    return read_link_at(AT_FDCWD, link.c_str(), path_limit);
}

int another_instance_runs()
{
    const int own_pid = getpid();
    const std::string own_program = program_of(own_pid);
    if (own_program.empty()) {
        fprintf(stderr, "Cannot read /proc entry on what my EXE is. There is nothing to prevent "
                        "multiple instance of me from running!\n");
        return 0;
    }
    fprintf(stderr, "My EXE path: %s\n", own_program.c_str());
    Directory processes(AT_FDCWD, "/proc");
    if (!processes.IsOpen()) {
        fprintf(stderr, "cannot opendir proc, assuming the worst...\n");
        return 1;
    }
    while (const char *name = processes.NextName()) {
        const int pid = atoi(name);
        if (pid >= 1 && pid != own_pid && program_of(pid) == own_program) {
            fprintf(stderr, "Another instance of myself is running. Quitting\n");
            return 1;
        }
    }
    return 0;
}
