"""Completion at a shell's prompt: what it completes to is what nbdctl then takes."""

import os
import pathlib
import pty
import select
import subprocess
import time
import unittest

from support import images, processes
from support.service import Service

COMPLETION = pathlib.Path(__file__).resolve().parents[2] / "packaging" / "completion"
PROMPT = b"ready> "


# What the prompt's line looks like is nobody's business here, but where it ends is.
ZSHRC = f"""
zmodload zsh/zle && unset zle_bracketed_paste
unsetopt prompt_sp prompt_cr auto_list
PS1='{PROMPT.decode()}'
fpath=({COMPLETION} $fpath)
autoload -U compinit
compinit -u -D
"""


class Shell:
    """An interactive shell on a terminal of its own."""

    def __init__(self, test, command, environment):
        self.terminal, end = pty.openpty()
        test.addCleanup(os.close, self.terminal)
        programs = os.path.dirname(processes.program("nbdctl"))
        environment = {
            **environment,
            "PATH": f"{programs}:{os.environ['PATH']}",
            "PS1": PROMPT.decode(),
            "TERM": "dumb",
            "INPUTRC": "/dev/null",
        }
        self.process = subprocess.Popen(
            command,
            env=environment,
            stdin=end,
            stdout=end,
            stderr=end,
            start_new_session=True,
            preexec_fn=processes.die_with_parent,
        )
        os.close(end)
        test.addCleanup(processes.end, self.process)
        self.await_prompt()

    def await_prompt(self):
        seen = b""
        deadline = time.monotonic() + processes.LIMIT_SECONDS
        while not seen.endswith(PROMPT):
            ready, _, _ = select.select([self.terminal], [], [], max(0, deadline - time.monotonic()))
            if not ready:
                raise TimeoutError(f"no prompt after {seen!r}")
            seen += os.read(self.terminal, 4096)
        return seen.decode(errors="replace")

    def type(self, text):
        """Types a line and returns what the terminal showed until the next prompt."""
        os.write(self.terminal, text.encode())
        return self.await_prompt()


class Names:
    """Names of nodes: the same with every shell. `service` and `shell` are there."""

    def expect_added(self, typed, node):
        seen = self.shell.type(typed)
        with self.service.control() as control:
            ids = control.ExportList()["ids"]
            nodes = [control.ExportInfo(id=number)["info"]["descriptor"]["node"] for number in ids]
            self.assertIn(str(node), nodes, seen)

    def test_names_of_every_kind_reach_nbdctl_whole(self):
        for name in ("a.img", "b c.img", 'c"d.img', "e\\f.img", "g'h.img", "i$j&k;(l).img", "m  \\\"' n.img", "ö ü.img"):
            node = self.service.images / name
            images.write_zeros(node)
            self.expect_added(f"nbdctl add {self.service.images}/{name[0]}\t\n", node)

    def test_words_that_are_quoted_already(self):
        for quote in ("'", '"'):
            node = self.service.images / f"{ord(quote)} x\\y.img"
            images.write_zeros(node)
            self.expect_added(f"nbdctl add {quote}{self.service.images}/{ord(quote)}\t\n", node)

    def test_folders_are_gone_through(self):
        folder = self.service.images / "a folder" / "in it"
        folder.mkdir(parents=True)
        images.write_zeros(folder / "a disk.img")
        self.expect_added(f"nbdctl add {self.service.images}/a\ti\ta\t\n", folder / "a disk.img")

    def test_what_names_have_in_common_is_completed(self):
        for name in ("two disks.1", "two disks.2"):
            images.write_zeros(self.service.images / name)
        self.expect_added(f"nbdctl add {self.service.images}/two\t2\t\n", self.service.images / "two disks.2")


class Numbers:
    """IDs and the other words of commands."""

    def test_numbers_are_those_of_the_command_s_own_kind(self):
        programs = self.service.images / "programs"
        programs.mkdir()
        stub = programs / "nbdctl"
        stub.write_text(
            "#!/bin/sh\n"
            'case "$*" in\n'
            'list) printf "Exports: 1\\n  ID 11 | ID 99 | x\\n     - node: ID 5 | y\\n" ;;\n'
            'ilist) printf "Imports: 1\\n  ID 22 | x\\n" ;;\n'
            '*) echo "asked: $*" ;;\n'
            "esac\n"
        )
        stub.chmod(0o755)
        self.shell.type(f"PATH={programs}:$PATH\n")
        for command in ("enable", "disable", "remove", "stat"):
            self.assertIn(f"asked: {command} 11", self.shell.type(f"nbdctl {command} \t\n"))
        for command in ("ienable", "idisable", "iremove", "ilistnodes"):
            self.assertIn(f"asked: {command} 22", self.shell.type(f"nbdctl {command} \t\n"))
        self.assertIn("asked: disable 3 force", self.shell.type("nbdctl disable 3 f\t\n"))
        self.assertIn("asked: idisable 3 f\r", self.shell.type("nbdctl idisable 3 f\t\n"))


class Bash(Names, Numbers, unittest.TestCase):
    def setUp(self):
        self.service = Service(self).start()
        self.shell = Shell(self, ["bash", "--norc", "--noprofile", "-i"], self.service.environment)
        self.shell.type(f"source {COMPLETION}/nbdctl.bash\n")


class Zsh(Names, Numbers, unittest.TestCase):
    def setUp(self):
        self.service = Service(self).start()
        (self.service.root / ".zshrc").write_text(ZSHRC)
        environment = {**self.service.environment, "ZDOTDIR": str(self.service.root)}
        self.shell = Shell(self, [processes.tool("zsh"), "-d", "-i"], environment)


if __name__ == "__main__":
    unittest.main()
