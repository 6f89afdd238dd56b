"""The rig itself, where it has been wrong."""
from rig import Disk
from rig.channels import Agent

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


def test_a_machine_that_does_not_come_up_is_started_once_more(vm_factory, monkeypatch):
    """With all its drives."""
    answers = [lambda agent, seconds: False, Agent.wait_hello]
    monkeypatch.setattr(Agent, "wait_hello",
                        lambda agent, seconds: answers.pop(0)(agent, seconds))
    machine = vm_factory([Disk("usb", 1 << 20, id="stick"), Disk("sata", 1 << 20, id="disk")])
    assert not answers
    assert machine.present("stick") and machine.present("disk")
    assert machine.sh("echo here").out == "here\n"
