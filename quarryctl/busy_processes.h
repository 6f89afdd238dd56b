// The processes that hold devices.
#ifndef QUARRYCTL_BUSY_PROCESSES_H
#define QUARRYCTL_BUSY_PROCESSES_H

#include <vector>

#include "busy.h"
#include "busy_target.h"
#include "mount_info.h"

// Looks at every process but this one and adds to the report what it holds of the targets, whether
// the daemon would end it, and the mount namespaces other than this one that hold a target's mount.
// targets and report.devices belong together one by one; table is this process's own.
void examine_processes(const std::vector<BusyTarget> &targets, const MountInfoTable &table,
                       BusyReport &report);

#endif
