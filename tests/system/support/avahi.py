"""A stock DNS-SD responder on a host, with a message bus of its own, and its tools."""

import os
import subprocess

from support import processes

_BUS = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path={path}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow own="*"/><allow user="*"/><allow send_destination="*"/><allow receive_sender="*"/>
  </policy>
</busconfig>
"""

_DAEMON = """[server]
use-ipv4=yes
use-ipv6=yes
enable-dbus=yes
[publish]
publish-workstation=no
publish-hinfo=no
"""


class Avahi:
    """avahi-daemon on `host`, which others find as HOST.local."""

    def __init__(self, test, host, directory):
        self.host = host
        path = directory / f"{host.name}.bus"
        self.log = directory / f"{host.name}.avahi"
        bus, daemon = directory / f"{host.name}.bus.conf", directory / f"{host.name}.avahi.conf"
        bus.write_text(_BUS.format(path=path))
        daemon.write_text(_DAEMON)
        self.environment = {**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={path}"}
        host.spawn([processes.tool("dbus-daemon"), f"--config-file={bus}", "--nofork"], stdout=subprocess.DEVNULL,
                   stderr=subprocess.DEVNULL)
        processes.wait_until(path.exists, "the message bus")
        # Its place for run-time files is compiled in, so it gets a /run of its own.
        script = (f"mount -t tmpfs none /run && mkdir /run/avahi-daemon && "
                  f"exec {processes.tool('avahi-daemon')} -f {daemon} --no-drop-root --no-rlimits --no-chroot --debug")
        with open(self.log, "wb") as log:
            self.process = host.spawn([processes.tool("unshare"), "--mount", "sh", "-c", script], stdout=log, stderr=log,
                                      env=self.environment)
        processes.wait_until(lambda: "Server startup complete" in self.log_text(), f"avahi-daemon: {self.log}")

    def log_text(self):
        return self.log.read_text(errors="replace")

    def publish(self, name, port, *text):
        """Announces a service of type _nbd._tcp, until the process that this returns ends."""
        process = self.host.spawn([processes.tool("avahi-publish"), "-s", name, "_nbd._tcp", port, *text],
                                  env=self.environment, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
        line = process.stderr.readline()
        assert "Established" in line, line
        process.stderr.close()
        return process

    def browse(self):
        """What avahi-browse shows of _nbd._tcp: a dictionary for each service that it could resolve."""
        result = self.host.run([processes.tool("avahi-browse"), "--resolve", "--parsable", "--terminate", "_nbd._tcp"],
                               environment=self.environment)
        keys = ("event", "interface", "protocol", "name", "type", "domain", "host", "address", "port", "text")
        lines = (line.split(";", 9) for line in result.out.splitlines())
        return [dict(zip(keys, words)) for words in lines if words[0] == "="]
