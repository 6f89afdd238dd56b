// The links "/mnt/^" + label, which name mounted devices by their filesystem's label.
//
// A device is given by its name, with or without "/dev/" before it. When the registry does not know
// its label or filesystem yet, the label probe program is run first (its answer goes to the record
// and to stderr). A device without a label, or one that the registry does not know, has no link.
#ifndef QUARRYD_REGISTRY_LABEL_LINKS_H
#define QUARRYD_REGISTRY_LABEL_LINKS_H

#include <string>

// Makes the link. Its target is the bare device name, so that it leads to the mount directory
// beside it. Whatever is at its place already stays, silently; any other failure is one line on
// stderr. A label with a slash in it names no file below /mnt: no link is made.
void make_label_link(const std::string &name);

// Removes the link, when its target is this very device, or an empty directory at its place.
// Anything else is left alone. Prints nothing.
void remove_label_link(const std::string &name);

#endif
