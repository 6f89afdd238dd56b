// What keeps the kernel from running a script, and who may change it.
#ifndef QUARRYCTL_CHECK_SCRIPTS_H
#define QUARRYCTL_CHECK_SCRIPTS_H

#include <string>

#include "check.h"

// Adds a finding for the path and for each folder above it that others than root may write.
void check_who_may_write(const Installation &installation, const std::string &path,
                         Findings &findings);

// The start or the stop script; path "" means that it is not set.
void check_site_script(const Installation &installation, const char *key, const std::string &path,
                       Findings &findings);

#endif
