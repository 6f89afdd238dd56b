// Closing of held descriptors.
#include "base/descriptor.h"

#include <cerrno>
#include <unistd.h>

Descriptor::~Descriptor()
{
    if (fd_ < 0)
        return;
    int saved_errno = errno; // a caller may still want to print why something failed
    close(fd_);
    errno = saved_errno;
}
