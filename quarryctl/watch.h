// `quarryctl watch`: the list of drives, kept up to date.
#ifndef QUARRYCTL_WATCH_H
#define QUARRYCTL_WATCH_H

#include <chrono>
#include <string>
#include <vector>

#include "connection.h"
#include "listing.h"

enum Mark { MARK_NONE, MARK_CAME, MARK_WENT, MARK_CHANGED };

// A device with what happened to it lately.
struct WatchedDevice {
    ListedDevice listed;
    Mark mark = MARK_NONE;
    std::chrono::steady_clock::time_point marked; // when it happened; nothing without a mark
};

// How long a mark is shown, and a device that went stays.
constexpr std::chrono::seconds mark_lifetime(10);

// What is there now, with marks for what differs from before. Devices that went stay where they
// were. Marks whose time is over are gone, and with them those devices.
std::vector<WatchedDevice> follow(const std::vector<WatchedDevice> &before,
                                  const std::vector<ListedDevice> &now,
                                  std::chrono::steady_clock::time_point time);

// On a terminal the table, drawn again and again until the user ends it; elsewhere a line for each
// device that is there at first ("present"), and then one for each that came, went or changed:
//   present|added|removed|changed, and behind a tab the fields of `list --plain`
// EXIT_DONE when a signal or the user ended it. Whatever the way, the terminal is as it was found.
// Once the first list has come a daemon that is gone is waited for.
ExitStatus run_watch(double interval, double seconds);

#endif
