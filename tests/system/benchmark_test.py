"""bench/run works: its measurements come out as a table. How fast anything was is not looked at."""

import os
import signal
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

from support import processes

RUN = Path(__file__).resolve().parents[2] / "bench" / "run"


class BenchmarkTool(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory(prefix="talvek-")
        self.addCleanup(directory.cleanup)
        self.images = Path(directory.name)

    def command(self, *words):
        places = ["--bin", os.environ["TALVEK_BIN"], "--memory", self.images, "--disk", self.images]
        return [sys.executable, RUN, "--quick", *places, *words]

    def test_every_row_is_documented(self):
        said = processes.run([sys.executable, RUN, "--help"]).out
        listing = "".join(said.split("only these, by comma:", 1)[1].split("--servers", 1)[0].split())
        documented = (RUN.parents[1] / "docs" / "benchmarks.md").read_text()
        rows = listing.split(",")
        self.assertGreater(len(rows), 20, said)
        self.assertEqual([row for row in rows if f"`{row}`" not in documented], [])

    def test_a_quick_run_ends_with_a_table(self):
        rows = "read-4k-d1,clients-1000,idle-1000"
        out = processes.run(self.command("--rows", rows, "--servers", "nbdkit -t 2"), limit=600).out
        table = [line.split(" | ") for line in out.splitlines() if line.startswith("| ")]
        found = {line[0].removeprefix("| "): line for line in table}
        # The first holds the throughputs, the CPU and the memory; the second holds the other aims.
        for work in ("4 KiB random read, 1 connection, depth 1", "4 KiB random read, 1,000 connections, depth 1"):
            self.assertIn(work, found, out)
            self.assertRegex(found[work][1], r"^[0-9.]+k/s$")
            self.assertRegex(found[work][2], r"^nbdkit -t 2 file, [0-9.]+k/s$")
            self.assertEqual(len(found[work]), 7)
        self.assertTrue(any(work.startswith("1,000 idle connections") for work in found), out)
        self.assertRegex(out, r"\d of 3 rows meet their aims\.")
        self.assertNotIn("failed", out)
        self.assertEqual(list(self.images.iterdir()), [])

    def test_imports_are_measured_beside_other_ways(self):
        rows = "import-read-4k,import-socket-4k,import-far"
        out = processes.run(self.command("--rows", rows), limit=600).out
        self.assertRegex(out, r"\n  nbdfuse +\d+")
        self.assertRegex(out, r"speed against no import \d")
        self.assertRegex(out, r"speed against one synchronous reader \d")
        self.assertNotIn("failed", out)
        self.assertEqual(list(self.images.iterdir()), [])

    def test_nothing_is_left_of_an_interrupted_run(self):
        run = subprocess.Popen(
            self.command("--rows", "read-4k-d1", "--servers", "nbd-server"),
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            preexec_fn=processes.die_with_parent,
        )
        self.addCleanup(processes.end, run)
        self.assertTrue(run.stdout.readline())
        processes.wait_until(lambda: any(self.images.iterdir()), "the images")
        run.send_signal(signal.SIGINT)
        run.communicate(timeout=processes.LIMIT_SECONDS)
        self.assertEqual(run.returncode, 130)
        self.assertEqual(list(self.images.iterdir()), [])


if __name__ == "__main__":
    unittest.main()
