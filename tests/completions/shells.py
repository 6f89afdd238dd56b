"""Shells that complete a command line as they would for somebody at a keyboard."""
import os
import pty
import select
import shlex
import subprocess
import time

COMPLETIONS = os.path.join(os.path.dirname(__file__), "..", "..", "completions")
PATIENCE = 30

INSERT_ALL = "\x07"     # the keys that the shells below are told
SAVE_LINE = "\x18\x04"
CLEAR_LINE = "\x18\x0b"


class ShellOnTerminal:
    """An interactive shell on a pseudo-terminal."""

    def __init__(self, command, folder, environment):
        self.saved = os.path.join(folder, "line")
        self.pid, self.terminal = pty.fork()
        if self.pid == 0:
            os.execvpe(command[0], command, environment)
        self.unread = b""

    def type(self, text):
        os.write(self.terminal, text.encode())

    def wait_for(self, is_there, what):
        """Reads what the shell says until is_there() holds; it would stop writing otherwise."""
        deadline = time.monotonic() + PATIENCE
        while not is_there():
            assert time.monotonic() < deadline, "no %s: %r" % (what, self.unread[-2000:])
            if select.select([self.terminal], [], [], 0.02)[0]:
                self.unread += os.read(self.terminal, 65536)

    def run(self, line):
        """Runs a command and waits for its end."""
        done = os.path.join(os.path.dirname(self.saved), "done")
        self.type(" %s; : >%s\r" % (line, shlex.quote(done)))
        self.wait_for(lambda: os.path.exists(done), "end of " + line)
        os.unlink(done)

    def line_after(self, keys):
        """Types the keys and returns the command line that is there then."""
        self.type(keys + SAVE_LINE)
        self.wait_for(lambda: os.path.exists(self.saved), "line after %r" % keys)
        with open(self.saved, encoding="utf-8") as file:
            line = file.read()
        os.unlink(self.saved)
        self.type(CLEAR_LINE)
        return line

    def offers(self, line):
        """All words that the last one of the line can become."""
        words_before = len(shlex.split(line + "x")) - 1
        return sorted(shlex.split(self.line_after(line + INSERT_ALL))[words_before:])

    def close(self):
        os.close(self.terminal)     # the shell is hung up on
        os.waitpid(self.pid, 0)


class Bash(ShellOnTerminal):
    def __init__(self, folder, environment):
        super().__init__(["bash", "--norc", "--noprofile", "-i"], folder, environment)
        self.run("bind 'set bell-style none'; bind '\"\\C-g\": insert-completions'")
        self.run("bind -x '\"\\C-x\\C-d\": save'; bind '\"\\C-x\\C-k\": kill-whole-line'")
        self.run("save() { printf %%s \"$READLINE_LINE\" >%s.new; mv %s.new %s; }" % (
            (shlex.quote(self.saved),) * 3))
        self.run(". %s/quarryctl.bash" % shlex.quote(COMPLETIONS))


class Zsh(ShellOnTerminal):
    def __init__(self, folder, environment):
        super().__init__(["zsh", "-f", "-i"], folder, environment)
        self.run("unsetopt beep prompt_sp; stty -ixon")
        self.run("fpath=(%s $fpath)" % shlex.quote(COMPLETIONS))
        self.run("autoload -U compinit; compinit -D -u")
        # A completer that puts all that it finds into the line.
        self.run("zle -C all complete-word _generic; bindkey '^G' all")
        self.run("zstyle ':completion:all:*' completer _all_matches _complete")
        self.run("zstyle ':completion:all:*' insert yes")
        self.run("save() { print -rn -- $BUFFER >%s.new; mv %s.new %s }; zle -N save" % (
            (shlex.quote(self.saved),) * 3))
        self.run("bindkey '^X^D' save; bindkey '^X^K' kill-buffer")


class Fish:
    """Fish tells what it would offer when it is asked."""

    def __init__(self, folder, environment):
        self.environment = dict(environment, HOME=folder, XDG_CONFIG_HOME=folder)

    def offers(self, line):
        result = subprocess.run(
            ["fish", "--no-config", "-c", "source $argv[1]; complete -C $argv[2]",
             os.path.join(COMPLETIONS, "quarryctl.fish"), line],
            env=self.environment, stdin=subprocess.DEVNULL, capture_output=True, text=True,
            timeout=PATIENCE, check=True)
        assert result.stderr == ""
        return sorted(offer.split("\t")[0] for offer in result.stdout.splitlines())

    def close(self):
        pass
