"""The rig itself, where it has been wrong."""

DISKS = []


def test_a_command_ends_with_its_own_status(fresh):
    """A command whose process has the number of an orphan that was killed before."""
    orphan = fresh.sh("(exec sleep 100) & echo $!").out.strip()
    fresh.sh("kill %s; while [ -e /proc/%s ]; do sleep 0.02; done" % (orphan, orphan))
    seen = []
    for before in [2, 3, 4, 5] * 3:  # the agent's own threads take numbers, too
        fresh.sh("echo %d >/proc/sys/kernel/ns_last_pid" % (int(orphan) - before))
        result = fresh.sh("echo $$", check=False)
        assert result.rc == 0, result
        if result.out.strip() == orphan:
            return
        seen.append(result.out.strip())
    raise AssertionError("no command had the number %s, but %s" % (orphan, seen))
