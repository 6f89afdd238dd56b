"""Virtual machines to test the daemon in. README.md beside this package tells how to use them."""
from .errors import (CommandError, ConnectionEnded, GuestError, ReplyTimeout,  # noqa: F401
                     RigError)
from .hardware import Disk  # noqa: F401
from .vm import VM  # noqa: F401

NOBODY, SCHEDULE, GUEST = 65534, 901, 1001         # uids of the guest's users
