"""A small virtual machine: Debian's kernel with its modules, an initial RAM file system with programs of this host,
and a script that runs in it. Nothing of it needs a network or a disk, and nothing of this host is in its reach.

The kernel comes from Debian's package, which is unpacked below the build, never installed.
"""

import os
import re
import select
import shutil
import subprocess
import sys
import time
from pathlib import Path

from support import processes

KERNEL_PACKAGE = "linux-image-cloud-amd64"

# Where the hardware helps, the machine's script begins within this time; what takes longer is not worth waiting for.
HARDWARE_SECONDS = 30

GUEST = Path(__file__).resolve().parents[1] / "guest"


def _cache():
    return Path(os.environ["TALVEK_BIN"]).parents[1] / "machine"


class Kernel:
    """The kernel's image and its modules."""

    def __init__(self):
        cache = _cache()
        found = sorted(cache.glob("kernel/boot/vmlinuz-*"))
        if not found:
            self._fetch(cache)
            found = sorted(cache.glob("kernel/boot/vmlinuz-*"))
        if len(found) != 1:
            raise RuntimeError(f"{cache}/kernel holds {len(found)} kernels, not one: remove it and try again")
        self.image = found[0]
        self.version = self.image.name.removeprefix("vmlinuz-")
        self.modules = cache / "kernel/lib/modules" / self.version / "kernel"

    @staticmethod
    def _fetch(cache):
        fresh = cache / f"fresh.{os.getpid()}"
        shutil.rmtree(fresh, ignore_errors=True)
        fresh.mkdir(parents=True)
        try:
            depends = processes.run([processes.tool("apt-cache"), "depends", KERNEL_PACKAGE]).out
            package = re.search(r"Depends: (linux-image-\S+)", depends)
            if not package:
                raise RuntimeError(f"apt knows no kernel for {KERNEL_PACKAGE}: run apt-get update")
            fetched = processes.run([processes.tool("apt-get"), "download", package[1]], cwd=fresh, check=False)
            if fetched.status != 0:
                raise RuntimeError(
                    f"The machine needs the kernel of Debian's package {package[1]}, and apt cannot download it; is there "
                    f"a way to a Debian mirror?\n{fetched}"
                )
            [archive] = fresh.glob("*.deb")
            processes.run([processes.tool("dpkg-deb"), "-x", archive, fresh / "kernel"])
            # Two that come here at once have fetched the same.
            if not (cache / "kernel").exists():
                (fresh / "kernel").rename(cache / "kernel")
        finally:
            shutil.rmtree(fresh, ignore_errors=True)

    def module(self, name):
        found = list(self.modules.rglob(f"{name}.ko*"))
        if len(found) != 1:
            raise RuntimeError(f"the kernel in {self.modules} has no module {name}")
        return found[0]


class Image:
    """What the machine finds in its root directory."""

    def __init__(self, directory):
        self.root = directory / "root"
        self.root.mkdir()
        for name in ("bin", "dev", "proc", "sys", "tmp", "run", "etc", "mnt", "modules", "srv"):
            (self.root / name).mkdir()
        os.symlink("bin", self.root / "sbin")
        os.symlink("/proc/self/mounts", self.root / "etc/mtab")
        self._archive = directory / "initramfs"

    def add(self, source, place=None):
        """A file of this host, at the same path or at `place`; links are followed."""
        target = self.root / str(place or source).lstrip("/")
        target.parent.mkdir(parents=True, exist_ok=True)
        if not target.exists():
            shutil.copy2(source, target)
        return target

    def add_program(self, source, name=None):
        """A program in /bin, and the libraries that it is linked with at their own paths."""
        source = Path(source)
        self.add(source, f"/bin/{name or source.name}")
        self.add_libraries(source)

    def add_libraries(self, source):
        listed = processes.run([processes.tool("ldd"), source], check=False).out
        for library in re.findall(r"(/\S+) \(0x", listed):
            self.add(library)

    def add_busybox(self):
        """A shell, and small tools where no others were added before."""
        # Busybox's own shell would prefer busybox's tools to all others.
        self.add_program(processes.tool("dash"), "sh")
        self.add(processes.tool("busybox"), "/bin/busybox")
        for name in processes.run([processes.tool("busybox"), "--list"]).out.split():
            if not (self.root / "bin" / name).exists():
                os.symlink("busybox", self.root / "bin" / name)

    def add_python(self, script):
        """A Python program, at /guest, with the modules that it imports; to be run with -S."""
        listing = "import runpy, sys; runpy.run_path(sys.argv[1]); print(*(m.__file__ for m in set(sys.modules.values()) "
        listing += "if getattr(m, '__file__', None) and not m.__spec__.origin == 'frozen'), sep='\\n')"
        environment = {**os.environ, "PYTHONPATH": str(GUEST.parent)}
        # Copied from where they lie, so that Python finds them there; ours go beside the script.
        files = processes.run([sys.executable, "-S", "-c", listing, script], environment=environment).out.split()
        library = Path(os.__file__).parent
        for file in [*files, *library.glob("encodings/*.py"), library / "os.py"]:
            file = Path(file)
            if file.is_relative_to(GUEST.parent):
                self.add(file, f"/guest/{file.relative_to(GUEST.parent)}")
            else:
                self.add(file)
                if file.suffix == ".so":
                    self.add_libraries(file)
        self.add(script, f"/guest/{script.name}")
        self.add_program(os.path.realpath(sys.executable), "python3")

    def add_modules(self, kernel, *names):
        """Modules where modprobe finds them; only such as need no others."""
        place = f"/lib/modules/{kernel.version}"
        for name in names:
            self.add(kernel.module(name), f"{place}/{name}.ko")
        self.write(f"{place}/modules.dep", "".join(f"{name}.ko:\n" for name in names))

    def write(self, place, text, mode=0o644):
        target = self.root / place.lstrip("/")
        target.parent.mkdir(parents=True, exist_ok=True)
        target.write_text(text)
        target.chmod(mode)

    def pack(self):
        with open(self._archive, "wb") as archive:
            names = subprocess.run(["find", ".", "-print0"], cwd=self.root, check=True, stdout=subprocess.PIPE)
            subprocess.run(
                [processes.tool("cpio"), "--null", "--create", "--format=newc", "--quiet", "--owner=+0:+0"],
                cwd=self.root,
                check=True,
                input=names.stdout,
                stdout=archive,
            )
        return self._archive


def _boot(kernel, archive, accelerator, seconds, log):
    """Runs the machine to its end, or for so long; returns what it wrote to its console, and whether it ended."""
    command = [
        processes.tool("qemu-system-x86_64"),
        *("-machine", f"pc,accel={accelerator}"),
        *("-cpu", "host" if accelerator == "kvm" else "max"),
        *("-m", "2048", "-smp", "2", "-display", "none", "-serial", "stdio", "-monitor", "none", "-nic", "none"),
        *("-no-reboot", "-kernel", str(kernel.image), "-initrd", str(archive)),
        *("-append", "console=ttyS0 panic=-1 quiet loglevel=4 random.trust_cpu=on"),
    ]
    end = time.monotonic() + seconds
    began = time.monotonic() + HARDWARE_SECONDS if accelerator == "kvm" else end
    said = b""
    process = subprocess.Popen(
        command,
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        preexec_fn=processes.die_with_parent,
    )
    try:
        while time.monotonic() < end:
            if b"machine: up" not in said and time.monotonic() > began:
                break
            if not select.select([process.stdout], [], [], 1)[0]:
                continue
            part = os.read(process.stdout.fileno(), 65536)
            if not part:
                process.wait(processes.LIMIT_SECONDS)
                return said.decode(errors="replace"), process.returncode == 0
            said += part
            log.write(part)
            log.flush()
    finally:
        process.kill()
        process.wait()
        process.stdout.close()
    return said.decode(errors="replace"), False


def run(image, seconds, log):
    """Boots a machine with this image and lets it run to its end: what it said, and whether it switched itself off.

    It runs on the hardware where that is fast enough to tell, and is emulated elsewhere.
    """
    kernel = Kernel()
    archive = image.pack()
    with open(log, "wb") as out:
        if os.access("/dev/kvm", os.R_OK | os.W_OK):
            said, ended = _boot(kernel, archive, "kvm", seconds, out)
            if "machine: up" in said:
                return said, ended
            out.write(b"\n--- The hardware does not help; emulated.\n")
        return _boot(kernel, archive, "tcg", seconds, out)


def check(test, image, script, seconds, log):
    """Runs the machine; fails the test unless it ran every check of the script to its end, and none failed."""
    said, ended = run(image, seconds, log)
    totals = re.search(r"^machine: (\d+) passed, (\d+) failed\r?$", said, re.MULTILINE)
    test.assertTrue(totals, f"the machine did not come to its end, see {log}:\n{said[-8000:]}")
    test.assertEqual(int(totals[2]), 0, f"see {log}:\n{said[-8000:]}")
    # A check that is in a loop counts once here, so there may be more, but none may be left out.
    asked = set(re.findall(r'^ *check "([^"$]*)"', script.read_text(), re.MULTILINE))
    passed = set(re.findall(r"^ok - (.*?)\r?$", said, re.MULTILINE))
    test.assertEqual(asked - passed, set(), f"these were not made, see {log}")
    test.assertTrue(ended, "the machine did not switch itself off")
