// One daemon at a time.
#ifndef QUARRYD_CORE_SINGLE_INSTANCE_H
#define QUARRYD_CORE_SINGLE_INSTANCE_H

// 1 when another process runs this very program file (or when /proc cannot be searched for it), 0
// when none does or when the own file cannot be told. What was found is printed on stderr.
int another_instance_runs();

#endif
