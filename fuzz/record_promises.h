// What holds of the registry's records between any two steps of the daemon.
#ifndef QUARRYD_FUZZ_RECORD_PROMISES_H
#define QUARRYD_FUZZ_RECORD_PROMISES_H

// Promises that names, references and the drives' lists of partitions fit together.
void check_records();

#endif
