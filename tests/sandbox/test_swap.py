"""The swap file on the main partition, and what else swaps when the daemon ends.

No swap can be switched on in here: the kernel's answers are made up, and so is its table.
"""

import os
import re

import pytest

from machine.drives import write

MIB = 1 << 20
HEAD = "Filename\t\t\t\tType\t\tSize\t\tUsed\t\tPriority\n"
EPERM, ENOENT, EBUSY, EINVAL = 1, 2, 16, 22


def swaps(*areas):
    """What the kernel's table of active swap says."""
    write("/proc/.swaps", HEAD + "".join(f"{area} file\t\t1024\t\t0\t\t-2\n" for area in areas))
    os.rename("/proc/.swaps", "/proc/swaps")


def swap_file(size=MIB, path="/mnt/sdb1/swap.img"):
    write(path, "")
    os.truncate(path, size)


def answers(call, **when):
    """Keys for machine.start: what the kernel says to swapon or swapoff.

    first=ERRNO, then=0: the first call fails, what comes after it succeeds.
    """
    if "then" in when:
        return {
            "refuse": [(call, when["first"])],
            "trace": ("-e", f"trace={call}", "-e", f"inject={call}:retval=0:when=2+"),
        }
    if when["first"]:
        return {"refuse": [(call, when["first"])], "trace": ("-e", f"trace={call}")}
    return {"trace": ("-e", f"trace={call}", "-e", f"inject={call}:retval=0")}


def main_partition(machine, name="swap.img", **keys):
    """A daemon that has found sdb1, a tmpfs that somebody has mounted, to be the main partition."""
    machine.plug("usb", "sdb", MIB)
    machine.part("sdb1", 65536)
    os.makedirs("/mnt/sdb1", exist_ok=True)
    machine.mount_table(["/dev/sdb1 /mnt/sdb1 tmpfs"])
    write("/mnt/sdb1/.claimsig", "SIG\n")
    machine.configure(f"main partition signature=SIG\nswap name={name}\n")
    daemon = machine.start(**keys)
    daemon.wait_for("Found main partition on sdb part sdb1\n")
    return daemon


def said(daemon):
    """Its lines about swap."""
    words = r"(Setting|setting|Swap|mkswap|Cannot (enable|set|remove)|Warning: cannot enable) ?"
    return [line for line in daemon.stderr_lines() if re.match(words, line)]


def kernel_calls(daemon, call):
    """What the kernel was asked to switch."""
    return [line.split('"')[1] for line in daemon.trace() if f"{call}(" in line]


# Switching on.


def test_the_swap_file_is_switched_on_when_the_main_partition_is_found(machine):
    swap_file(5 * MIB + 1)
    daemon = main_partition(machine, **answers("swapon", first=0))
    assert said(daemon) == [
        "Setting up swapfile on main drive.",
        "Swap file exists (5MB)",
        "setting up swap",
    ]
    assert kernel_calls(daemon, "swapon") == ["/mnt/sdb1/swap.img"]
    assert any('swapon("/mnt/sdb1/swap.img", 0)' in line for line in daemon.trace())


def test_a_swap_file_of_exactly_one_mebibyte_is_used(machine):
    swap_file(1048576)
    daemon = main_partition(machine, **answers("swapon", first=0))
    assert kernel_calls(daemon, "swapon") == ["/mnt/sdb1/swap.img"]
    assert "Swap file exists (1MB)\n" in daemon.stderr()
    assert not os.path.exists("/mnt/sdb1/swap.img.discard")


@pytest.mark.parametrize("size", [1048575, 1, 0])
def test_a_smaller_swap_file_is_set_aside_and_kept(machine, size):
    """That is no failure: there is no swap, and the file lies beside its old place."""
    swap_file(size)
    daemon = main_partition(machine, **answers("swapon", first=0))
    assert said(daemon) == [
        "Setting up swapfile on main drive.",
        "Swap file exists (0MB)",
        "Swap file too small to be useful",
    ]
    assert not os.path.exists("/mnt/sdb1/swap.img")
    assert os.path.getsize("/mnt/sdb1/swap.img.discard") == size
    assert kernel_calls(daemon, "swapon") == []
    assert machine.ask("swapon") == "OK swap enabled\n"


def test_a_missing_swap_file_is_no_failure_and_is_not_made(machine):
    daemon = main_partition(machine, **answers("swapon", first=0))
    assert said(daemon) == ["Setting up swapfile on main drive."]
    assert machine.ask("swapon") == "OK swap enabled\n"
    assert kernel_calls(daemon, "swapon") == []
    assert os.listdir("/mnt/sdb1") == [".claimsig"]


@pytest.mark.parametrize("where", ["in a user's directory", "below a file"])
def test_a_missing_swap_file_is_no_failure_wherever_it_is_missing(machine, where):
    os.makedirs("/mnt/sdb1")
    os.chown("/mnt/sdb1", 1000, 1000)
    name = "swap.img" if where == "in a user's directory" else ".claimsig/swap.img"
    daemon = main_partition(machine, name=name)
    assert said(daemon) == ["Setting up swapfile on main drive."]
    assert machine.ask("swapon") == "OK swap enabled\n"


def test_without_a_swap_name_nothing_is_switched_on(machine):
    swap_file()
    daemon = main_partition(machine, name="", **answers("swapon", first=0))
    assert said(daemon) == ["Cannot enable swap: main_partition=sdb1 name="]
    assert machine.ask("swapon") == "OK swap enabled\n"
    assert kernel_calls(daemon, "swapon") == []


def test_a_swap_name_without_a_main_partition_is_told(machine):
    machine.configure("swap name=swap.img\n")
    daemon = machine.start()
    assert machine.ask("swapon") == "OK swap enabled\n"
    assert said(daemon) == [
        "Cannot enable swap: main_partition= name=swap.img",
        "Setting up swapfile on main drive.",
    ]


def test_without_any_name_swapon_says_nothing(machine):
    daemon = machine.start()
    assert machine.ask("swapon") == "OK swap enabled\n"
    assert said(daemon) == []


def test_a_file_without_a_swap_signature_is_formatted_and_used(machine):
    swap_file()
    machine.stand_in("mkswap")
    daemon = main_partition(machine, **answers("swapon", first=EINVAL, then=0))
    assert machine.calls("mkswap") == ["/mnt/sdb1/swap.img"]
    assert kernel_calls(daemon, "swapon") == ["/mnt/sdb1/swap.img"] * 2
    assert said(daemon) == [
        "Setting up swapfile on main drive.",
        "Swap file exists (1MB)",
        "setting up swap",
    ]


def test_the_real_mkswap_makes_a_swap_signature(machine):
    swap_file()
    main_partition(machine, **answers("swapon", first=EINVAL, then=0))
    with open("/mnt/sdb1/swap.img", "rb") as file:
        assert file.read(4096)[-10:] == b"SWAPSPACE2"


def test_a_swap_name_with_blanks_is_one_word_for_mkswap(machine):
    swap_file(path="/mnt/sdb1/my swap")
    machine.stand_in("mkswap", '[ "$#" = 1 ]\n')
    daemon = main_partition(machine, name="my swap", **answers("swapon", first=EINVAL, then=0))
    assert machine.calls("mkswap") == ["/mnt/sdb1/my swap"]
    assert "mkswap error" not in daemon.stderr()


def test_a_file_that_cannot_be_formatted_is_not_tried_again(machine):
    swap_file()
    machine.stand_in("mkswap", "exit 1\n")
    daemon = main_partition(machine, **answers("swapon", first=EINVAL, then=0))
    assert said(daemon)[-2:] == ["mkswap error", "Warning: cannot enable swap"]
    assert kernel_calls(daemon, "swapon") == ["/mnt/sdb1/swap.img"]


def test_a_missing_mkswap_is_an_error_of_mkswap(machine):
    swap_file()
    machine.stand_in("mkswap")
    os.unlink("/usr/sbin/mkswap")
    daemon = main_partition(machine, **answers("swapon", first=EINVAL))
    assert said(daemon)[-2:] == ["mkswap error", "Warning: cannot enable swap"]
    assert machine.ask("swapon") == "ERR swap enable failed\n"


def test_what_a_link_leads_to_is_never_formatted(machine):
    """A drive could carry a link to another drive's node."""
    swap_file(path="/root/precious")
    write("/mnt/sdb1/.keep", "")
    os.symlink("/root/precious", "/mnt/sdb1/swap.img")
    machine.stand_in("mkswap")
    daemon = main_partition(machine, **answers("swapon", first=EINVAL, then=0))
    assert said(daemon)[-2:] == ["mkswap error", "Warning: cannot enable swap"]
    assert machine.calls("mkswap") == []
    assert kernel_calls(daemon, "swapon") == ["/mnt/sdb1/swap.img"]


@pytest.mark.parametrize("what", ["directory", "FIFO"])
def test_what_is_no_file_is_never_formatted(machine, what):
    """It has no size worth the name: it is set aside as a file would be."""
    os.makedirs("/mnt/sdb1")
    machine.stand_in("mkswap")
    if what == "directory":
        os.mkdir("/mnt/sdb1/swap.img")
    else:
        os.mkfifo("/mnt/sdb1/swap.img")
    daemon = main_partition(machine, **answers("swapon", first=EINVAL))
    assert machine.calls("mkswap") == []
    assert kernel_calls(daemon, "swapon") == []
    assert os.path.lexists("/mnt/sdb1/swap.img.discard")


def open_to_others(what):
    """Makes a swap file, or a way to it, that somebody else than root can change."""
    os.makedirs("/mnt/sdb1/folder")
    name = "folder/swap.img"
    swap_file(path=f"/mnt/sdb1/{name}")
    if what == "the root of the partition":
        os.chown("/mnt/sdb1", 1000, 1000)
    elif what == "its folder, by the group":
        os.chown("/mnt/sdb1/folder", 0, 1000)
        os.chmod("/mnt/sdb1/folder", 0o775)
    elif what == "its folder, by all":
        os.chmod("/mnt/sdb1/folder", 0o777)
    elif what == "a user's file":
        os.chown("/mnt/sdb1/folder/swap.img", 1000, 1000)
    elif what == "a file for all":
        os.chmod("/mnt/sdb1/folder/swap.img", 0o666)
    elif what == "a link to a user's folder":
        os.makedirs("/home/guest")
        os.chown("/home/guest", 1000, 1000)
        swap_file(path="/home/guest/swap.img")
        os.symlink("../../../home/guest/swap.img", "/mnt/sdb1/link")
        name = "link"
    return name


@pytest.mark.parametrize(
    "what",
    [
        "the root of the partition",
        "its folder, by the group",
        "its folder, by all",
        "a user's file",
        "a file for all",
        "a link to a user's folder",
    ],
)
def test_a_swap_file_that_others_can_change_is_not_used(machine, what):
    name = open_to_others(what)
    machine.stand_in("mkswap")
    daemon = main_partition(machine, name=name, **answers("swapon", first=EINVAL, then=0))
    assert said(daemon) == [
        "Setting up swapfile on main drive.",
        "Swap file can be changed by others than root, it is not used",
        "Warning: cannot enable swap",
    ]
    assert kernel_calls(daemon, "swapon") == [] and machine.calls("mkswap") == []
    assert machine.ask("swapon") == "ERR swap enable failed\n"


@pytest.mark.parametrize(
    "name", ["folder/swap.img", "./folder//swap.img", "link", "sticky/swap.img"]
)
def test_a_swap_file_that_root_alone_can_change_is_used(machine, name):
    os.makedirs("/mnt/sdb1/folder")
    os.chmod("/mnt/sdb1/folder", 0o775)
    os.mkdir("/mnt/sdb1/sticky")
    os.chmod("/mnt/sdb1/sticky", 0o1777)
    swap_file(path="/mnt/sdb1/folder/swap.img")
    swap_file(path="/mnt/sdb1/sticky/swap.img")
    os.symlink("folder/../folder/swap.img", "/mnt/sdb1/link")
    daemon = main_partition(machine, name=name, **answers("swapon", first=0))
    assert kernel_calls(daemon, "swapon") == [f"/mnt/sdb1/{name}"]


@pytest.mark.parametrize("formatted", [False, True])
def test_a_file_that_is_in_use_as_swap_already_is_a_success(machine, formatted):
    """Right away, or after it was formatted: the kernel knows better than its table."""
    swap_file()
    machine.stand_in("mkswap")
    keys = answers("swapon", first=EBUSY)
    if formatted:
        inject = "inject=swapon:error=EINVAL:when=1"
        keys["trace"] = ("-e", "trace=swapon", "-e", inject)
    daemon = main_partition(machine, **keys)
    assert len(machine.calls("mkswap")) == int(formatted)
    assert said(daemon)[-1] == "setting up swap"


def test_a_file_that_the_kernel_refuses_after_formatting_is_a_failure(machine):
    swap_file()
    machine.stand_in("mkswap")
    daemon = main_partition(machine, **answers("swapon", first=EINVAL))
    assert said(daemon)[-2:] == [
        "Cannot set up swap Invalid argument",
        "Warning: cannot enable swap",
    ]
    assert kernel_calls(daemon, "swapon") == ["/mnt/sdb1/swap.img"] * 2
    assert machine.ask("swapon") == "ERR swap enable failed\n"


def test_any_other_refusal_is_a_failure_at_once(machine):
    swap_file()
    machine.stand_in("mkswap")
    daemon = main_partition(machine, **answers("swapon", first=EPERM))
    assert said(daemon)[-2:] == [
        "Cannot set up swap Operation not permitted",
        "Warning: cannot enable swap",
    ]
    assert machine.calls("mkswap") == []


def test_a_file_that_is_active_is_not_switched_on_again(machine):
    swap_file()
    swaps("/mnt/sdb1/swap.img")
    daemon = main_partition(machine, **answers("swapon", first=EPERM))
    assert machine.ask("swapon") == "OK swap enabled\n"
    assert said(daemon) == []
    assert kernel_calls(daemon, "swapon") == []


def test_only_the_whole_path_makes_a_file_active(machine):
    swap_file()
    swaps("/mnt/sdb1/swap.img2", "/mnt/sdb1/swap", "/mnt/sdb/swap.img", "\\040/mnt/sdb1/swap.img")
    daemon = main_partition(machine, **answers("swapon", first=0))
    assert kernel_calls(daemon, "swapon") == ["/mnt/sdb1/swap.img"]


def test_a_missing_table_means_that_nothing_is_active(machine):
    swap_file()
    os.unlink("/proc/swaps")
    daemon = main_partition(machine, **answers("swapon", first=0))
    assert kernel_calls(daemon, "swapon") == ["/mnt/sdb1/swap.img"]
    assert machine.ask("swapoff") == "OK swap disabled\n"
    machine.stop()
    assert "Shutting down" not in daemon.stderr()


def test_a_main_directory_behind_a_link_is_found_in_the_table(machine):
    """/mnt/sdb1 may be a link: the kernel's table has where it leads."""
    os.makedirs("/root/data")
    os.symlink("/root/data", "/mnt/sdb1")
    swap_file()
    swaps("/root/data/swap.img")
    daemon = main_partition(machine, **answers("swapon", first=EPERM))
    assert said(daemon) == []


# /mnt in memory.


def mnt_in_memory():
    os.makedirs("/tmpfs/.mnt/sdb1")
    os.rmdir("/mnt")
    os.symlink("/tmpfs/.mnt", "/mnt")
    swap_file()


def test_with_mnt_in_memory_the_table_has_the_path_there(machine):
    mnt_in_memory()
    swaps("/tmpfs/.mnt/sdb1/swap.img")
    daemon = main_partition(machine, **answers("swapon", first=EPERM))
    assert said(daemon) == []
    assert machine.ask("swapon") == "OK swap enabled\n"


def test_with_mnt_in_memory_the_path_below_mnt_is_another(machine):
    mnt_in_memory()
    swaps("/mnt/sdb1/swap.img")
    daemon = main_partition(machine, **answers("swapon", first=0))
    assert kernel_calls(daemon, "swapon") == ["/mnt/sdb1/swap.img"]


# Switching off.


@pytest.mark.parametrize("error", [0, EINVAL, ENOENT])
def test_swapoff_switches_the_file_off(machine, error):
    """A file that is not there, or does not swap, is as good as switched off."""
    swap_file()
    swaps("/mnt/sdb1/swap.img")
    daemon = main_partition(machine, **answers("swapoff", first=error))
    assert machine.ask("swapoff") == "OK swap disabled\n"
    line = "SwapOff: switching off main drive swapfile /mnt/sdb1/swap.img"
    assert said(daemon) == [line]
    assert kernel_calls(daemon, "swapoff") == ["/mnt/sdb1/swap.img"]


def test_swapoff_that_the_kernel_refuses_is_a_failure(machine):
    swap_file()
    swaps("/mnt/sdb1/swap.img")
    daemon = main_partition(machine, **answers("swapoff", first=EPERM))
    assert machine.ask("swapoff") == "ERR swap disable failed\n"
    assert said(daemon)[-1] == "Cannot remove swap"


def test_swapoff_of_what_is_off_asks_nobody(machine):
    swap_file()
    swaps("/dev/dm-1")
    daemon = main_partition(machine, **answers("swapoff", first=EPERM))
    assert machine.ask("swapoff") == "OK swap disabled\n"
    assert kernel_calls(daemon, "swapoff") == []


def test_swapoff_without_a_main_partition_asks_nobody(machine):
    machine.configure("swap name=swap.img\n")
    swaps("/dev/dm-1")
    daemon = machine.start(**answers("swapoff", first=EPERM))
    assert machine.ask("swapoff") == "OK swap disabled\n"
    assert kernel_calls(daemon, "swapoff") == []


def test_swap_without_mnt_is_off(machine):
    machine.configure("swap name=swap.img\n")
    os.rmdir("/mnt")
    daemon = machine.start()
    assert machine.ask("swapoff") == "OK swap disabled\n"
    assert daemon.stderr_lines()[-2:] == [
        "WARNING: Cannot resolve path /mnt/",
        "Cannot stat /mnt",
    ]


@pytest.mark.parametrize("user", ["guest", "schedule", "nobody"])
def test_only_root_switches_swap(machine, user):
    swap_file()
    swaps("/mnt/sdb1/swap.img")
    daemon = main_partition(machine, trace=("-e", "trace=swapon,swapoff"))
    for command in ("swapon", "swapoff"):
        assert machine.ask(command, user) == "ERR auth required\n"
    assert kernel_calls(daemon, "swapo") == []
    assert said(daemon) == []


# At exit.


def lines_of_the_end(daemon):
    lines = daemon.stderr_lines()
    first = next(i for i, line in enumerate(lines) if line.startswith(("Shutting", "SwapOff:")))
    return lines[first:]


def test_every_area_is_switched_off_at_exit_and_once_more(machine):
    """First the daemon's own file, then what else is on the main partition, then everything."""
    mnt_in_memory()
    mine, other = "/tmpfs/.mnt/sdb1/swap.img", "/tmpfs/.mnt/sdb1/other"
    areas = [mine, other, "/tmpfs/.mnt/sdb10/x", "/tmpfs/.mnt/sdb1", "/dev/dm-1"]
    swaps(*areas)
    daemon = main_partition(machine, **answers("swapoff", first=EPERM))
    machine.mount_table([])
    machine.stop()

    def refused(path):
        return [f" --> {path}", "      ! Operation not permitted"]

    once = [
        "SwapOff: switching off main drive swapfile /mnt/sdb1/swap.img",
        "Cannot remove swap",
        "Shutting down any other swap files on the main drive",
        *refused(mine),
        *refused(other),
        "Shutting down any other swap files on other drives",
    ]
    for area in areas:
        once += refused(area)
    assert lines_of_the_end(daemon) == once * 2
    calls = ["/mnt/sdb1/swap.img", mine, other, *areas]
    assert kernel_calls(daemon, "swapoff") == calls * 2


def test_what_the_kernel_switches_off_is_told_without_a_reason(machine):
    swaps("/dev/dm-1", "/swapfile")
    daemon = machine.start(**answers("swapoff", first=0))
    machine.stop()
    once = [
        "Shutting down any other swap files on the main drive",
        "Shutting down any other swap files on other drives",
        " --> /dev/dm-1",
        " --> /swapfile",
    ]
    assert lines_of_the_end(daemon) == once * 2
    assert kernel_calls(daemon, "swapoff") == ["/dev/dm-1", "/swapfile"] * 2


def test_a_table_without_a_last_line_end_and_with_long_lines(machine):
    """A path longer than a line that is read is cut; the last line counts without its end."""
    write("/proc/swaps", f"{HEAD}/{'x' * 2000} file 1 0 -2\n/swapfile file 1 0 -2")
    daemon = machine.start(**answers("swapoff", first=0))
    machine.stop()
    assert f" --> /{'x' * 1022}\n" in daemon.stderr()
    assert daemon.stderr().count(" --> /swapfile\n") == 2


def test_swap_is_off_before_anything_is_unmounted(machine):
    """Every area twice; and the swap file once more, lest it keep its partition busy."""
    swap_file()
    swaps("/mnt/sdb1/swap.img", "/dev/dm-1")
    trace = ("-e", "trace=swapoff,umount2", "-e", "inject=swapoff,umount2:retval=0")
    daemon = main_partition(machine, trace=trace)
    machine.stop()
    calls = [line.split('"') for line in daemon.trace() if "off(" in line or "umount2(" in line]
    assert [call[1] for call in calls] == [
        *["/mnt/sdb1/swap.img", "/mnt/sdb1/swap.img", "/dev/dm-1"] * 2,
        "/mnt/sdb1/swap.img",
        "/mnt/sdb1",
    ]
    assert "umount2" in calls[-1][0]
