// /proc/partitions.
#include <cstdio>
#include <cstdlib>
#include <sstream>

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

// The rows of a table, each as the numbers and the word that it begins with. No more of the table
// is read than one read gives.
static std::vector<ProcPartition> rows_by_hand(const std::string &table)
{
    std::vector<ProcPartition> rows;
    std::istringstream lines(table.substr(0, std::min<size_t>(table.find('\0'), 16383)));
    for (std::string line; std::getline(lines, line);) {
        char *rest = line.data();
        ProcPartition row;
        row.major = line.starts_with('#') ? 0 : static_cast<int>(strtol(rest, &rest, 10));
        if (row.major == 0)
            continue;
        row.minor = static_cast<int>(strtol(rest, &rest, 10));
        row.blocks = strtoull(rest, &rest, 0);
        const std::string words = rest;
        const size_t start = words.find_first_not_of(' ');
        if (start != std::string::npos)
            row.name = words.substr(start, words.find(' ', start) - start);
        rows.push_back(row);
    }
    return rows;
}

static bool is_same_row(const ProcPartition &one, const ProcPartition &other)
{
    return one.major == other.major && one.minor == other.minor && one.blocks == other.blocks &&
           one.name == other.name;
}

void examine(Input &input)
{
    MemoryMachine machine;
    const std::string stranger = input.Text();
    const std::string said_by_kernel = input.Rest();
    machine.Write("/proc/partitions", said_by_kernel);
    ReadProcPartitions();
    const std::vector<ProcPartition> expected = rows_by_hand(said_by_kernel);
    PROMISE(std::equal(proc_partitions.begin(), proc_partitions.end(), expected.begin(),
                       expected.end(), is_same_row));
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
