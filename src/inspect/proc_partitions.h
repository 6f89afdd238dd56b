// The kernel's list of partitions, as last read from /proc/partitions.
#ifndef QUARRYD_INSPECT_PROC_PARTITIONS_H
#define QUARRYD_INSPECT_PROC_PARTITIONS_H

#include <cstdio>
#include <string>
#include <vector>

// One row: "   8        1  488384512 sda1".
class ProcPartition {
public:
    int major = -1;
    int minor = -1;
    unsigned long long blocks = 0; // of 1 KiB
    std::string name;
};

extern std::vector<ProcPartition> proc_partitions; // in the kernel's order

// Reads the table again. When it cannot be opened, one line on stderr and the table stays.
void ReadProcPartitions();

// First row of that name, or null. The pointer dies at the next ReadProcPartitions().
ProcPartition *FindProcPartition(const std::string &name);

// Writes the table for people.
void DumpProcPartitions(FILE *stream);

#endif
