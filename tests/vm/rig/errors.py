"""What can go wrong in the rig, as opposed to in the daemon."""


class RigError(Exception):
    """Something in the rig (not the daemon) went wrong."""


class NotUp(RigError):
    """The machine was started, and nothing in it has answered in time."""


class GuestError(RigError, OSError):
    """An operation in the guest failed with an errno."""


class CommandError(RigError):
    """vm.sh(check=True) ended with a status other than 0."""


class ReplyTimeout(RigError, TimeoutError):
    """No whole reply in time; .partial holds what came."""
    partial = ""


class ConnectionEnded(RigError):
    """The daemon closed the connection before a whole reply; .partial holds what came."""
    partial = ""
