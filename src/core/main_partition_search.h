// The search for the main partition, by what it holds.
#ifndef QUARRYD_CORE_MAIN_PARTITION_SEARCH_H
#define QUARRYD_CORE_MAIN_PARTITION_SEARCH_H

#include <cstddef>

// As much of a signature file is read.
inline constexpr size_t signature_limit = 255;

// One pass over the drives of the registry. True when the main partition was found: main_drive and
// main_partition are set, the partition is mounted read-write at "/mnt/" + its name, and /mnt/main
// leads there. Each device is examined once (its `scanned` is then set), by mounting it read-only
// for a moment when nobody has; a pass without anything new costs no system call. Says on stderr
// what it does. The working directory is "/" after an examination.
bool search_main_partition();

#endif
