// Making and removing label links.
#include "registry/label_links.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "base/words.h"
#include "inspect/label_probe.h"
#include "registry/block_device.h"

static std::string label_of(const std::string &name)
{
    BlockDevice *device = find_device(name);
    if (!device)
        return std::string();
    if (device->label.empty() || device->filesystem.empty())
        probe_label(name, device->label, &device->filesystem);
    return device->label;
}

// A label comes from the medium: "x/../../run/y" must not lead out of /mnt.
static bool names_a_file(const std::string &label)
{
    return label.find('/') == std::string::npos;
}

void make_label_link(const std::string &name)
{
    const std::string device = strip_dev(name);
    const std::string label = label_of(device);
    if (label.empty())
        return;
    const std::string link_path = "/mnt/^" + label;
    int error = 0;
    if (!names_a_file(label))
        error = ENOENT;
    else if (symlink(device.c_str(), link_path.c_str()) < 0)
        error = errno;
    if (error != 0 && error != EEXIST)
        fprintf(stderr, "Cannot create drive label symlink %s, %s\n", link_path.c_str(),
                strerror(error));
}

void remove_label_link(const std::string &name)
{
    const size_t target_limit = 127;
    const std::string device = strip_dev(name);
    const std::string label = label_of(device);
    if (label.empty() || !names_a_file(label))
        return;
    const std::string link_path = "/mnt/^" + label;
    char target[target_limit];
    ssize_t length = readlink(link_path.c_str(), target, target_limit);
    if (length >= 0) {
        if (device.compare(0, std::string::npos, target, static_cast<size_t>(length)) == 0)
            unlink(link_path.c_str());
    } else if (errno == EINVAL) {
        // No link: an empty directory goes, and rmdir() leaves everything else as it is. Nothing is
        // asked about the entry itself, which might be a mount that no longer answers.
        rmdir(link_path.c_str());
    }
}
