// /proc/partitions.
#include <cstdio>
#include <cstdlib>

#include "harness.h"
#include "inspect/proc_partitions.h"
#include "machine_in_memory.h"

static std::string dumped()
{
    char *text = nullptr;
    size_t size = 0;
    FILE *stream = open_memstream(&text, &size);
    DumpProcPartitions(stream);
    fclose(stream);
    const std::string copy(text, size);
    free(text);
    return copy;
}

void examine(Input &input)
{
    MemoryMachine machine;
    const std::string stranger = input.Text();
    machine.Write("/proc/partitions", input.Rest());
    ReadProcPartitions();
    std::string table = "major minor  #blocks  name\n\n";
    bool is_listed = false;
    for (const ProcPartition &row : proc_partitions) {
        PROMISE(row.major != 0 && row.name.find_first_of(" \n") == std::string::npos);
        const ProcPartition *found = FindProcPartition(row.name);
        PROMISE(found && found <= &row && found->name == row.name);
        is_listed = is_listed || row.name == stranger;
        table += "   " + std::to_string(row.major) + "        " + std::to_string(row.minor) + " " +
                 std::to_string(row.blocks) + " " + row.name + "\n";
    }
    PROMISE(is_listed == (FindProcPartition(stranger) != nullptr));

    // The same table in the kernel's own form reads the same.
    const std::string first = dumped();
    machine.Write("/proc/partitions", table);
    ReadProcPartitions();
    PROMISE(table.size() > 16383 || dumped() == first);
    machine.Remove("/proc/partitions");
    ReadProcPartitions();
    PROMISE(table.size() > 16383 || dumped() == first);
}
