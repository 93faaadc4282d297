"""How nbdd comes, stays and goes: on demand, by hand, and under a service manager."""

import fcntl
import os
import shutil
import signal
import socket
import subprocess
import threading
import unittest

from support import images, nbd, processes
from support.service import Service
from support.varlink import Failed

PORT_IN_USE, ADDRESS_NOT_AVAILABLE, CONFIGURATION_WRONG = 0x40, 0x41, 0x44
ANOTHER_RUNS = 3

# Does in the child what a service manager does: the variables carry the process's own number.
ACTIVATE = 'exec 3<&"$1"; shift; export LISTEN_PID=$$ LISTEN_FDS=1; exec "$@"'


class OnDemand(unittest.TestCase):
    """nbdctl starts nbdd when nothing listens, and nbdd leaves when it has nothing to do."""

    def pid(self, service):
        with service.control() as control:
            return control.peer()

    def test_nbdctl_starts_it_and_it_leaves_when_idle(self):
        service = Service(self, NBDD_IDLE_SECONDS="1")
        self.assertEqual(service.nbdctl("list"), "Exports: 0\n")
        pid = self.pid(service)
        processes.wait_for_end_of(pid)
        self.assertFalse(service.socket.exists(), "the control socket was left behind")
        self.assertIn("nothing to do", (service.state / "nbdd.log").read_text())

    def test_it_stays_while_there_is_something_to_do(self):
        service = Service(self, NBDD_IDLE_SECONDS="1")
        images.write_zeros(service.images / "a.img")
        out = service.nbdctl(stdin=f"add {service.images}/a.img\nenable 1\nstart\n")
        pid = self.pid(service)
        for expected in ("OK! Export ID: 1", "Enabling export with ID 1... OK!", "Starting server... OK!"):
            self.assertIn(expected, out)
        with nbd.Client(service.port, "a.img") as client:
            self.assertEqual(client.request(nbd.READ, 0, 16), (0, bytes(16)))
        self.assertEqual(self.pid(service), pid)
        service.nbdctl(stdin="stop\ndisable 1\n")
        processes.wait_for_end_of(pid)
        self.assertIn("a.img", service.nbdctl("list"), "the export is forgotten")

    def test_many_nbdctl_at_once_share_one(self):
        service = Service(self)
        answers = [None] * 8
        threads = [
            threading.Thread(target=lambda at=at: answers.__setitem__(at, service.nbdctl("list")))
            for at in range(len(answers))
        ]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(answers, ["Exports: 0\n"] * len(answers))

    def test_a_start_up_error_reaches_the_operator(self):
        service = Service(self)
        service.configuration.write_text("[server]\nprot = 1\n")
        command = [processes.program("nbdctl"), "list"]
        result = processes.run(command, environment=service.environment, check=False)
        self.assertIn("Service not available: 0x", result.out)
        self.assertIn("prot", result.err)
        self.assertNotEqual(result.status, 0)


    def test_a_socket_of_somebody_else_is_told_of_in_words(self):
        service = Service(self)
        service.runtime.mkdir()
        # For root too it is somebody else's without the capability to open what he may not.
        wrapper = [processes.tool("setpriv"), "--bounding-set=-all", "--inh-caps=-all"] if os.geteuid() == 0 else []
        with socket.socket(socket.AF_UNIX) as listener:
            listener.bind(str(service.socket))
            service.socket.chmod(0)
            listener.listen()
            command = [*wrapper, processes.program("nbdctl"), "list"]
            result = processes.run(command, environment=service.environment, check=False)
        self.assertEqual(result.out, "Service not available: 0x5\n")
        self.assertIn(f"nbdctl: no permission to use {service.socket}", result.err)
        self.assertIn("group nbd", result.err)

    def test_a_program_that_is_missing_is_told_of_in_words(self):
        service = Service(self)
        alone = service.root / "nbdctl"
        shutil.copy(processes.program("nbdctl"), alone)
        result = processes.run([alone, "list"], environment={**service.environment, "PATH": "/nowhere"}, check=False)
        self.assertEqual(result.out, "Service not available: 0x1\n")
        self.assertIn("no nbdd is found", result.err)


class FailedOperations(unittest.TestCase):
    """What nbdctl tells by a number, or not at all, is explained in the log."""

    def test_the_log_says_why(self):
        service = Service(self).start()
        self.assertIn("error 0x21", service.nbdctl("add", "/does/not/exist"))
        self.assertIn("failed!", service.nbdctl("rlist", "localhost"))
        log = service.log_text()
        self.assertRegex(log, r"ExportAdd failed: .*/does/not/exist.*\(nodeNotFound, 0x21\)")
        self.assertRegex(log, r"FetchRemoteExports failed: .*\(invalidArgument, 0x10\)")

    def test_that_nobody_reserved_the_server_is_no_failure(self):
        service = Service(self).start()
        self.assertIn("error 0x60", service.nbdctl("rescheck"))
        self.assertIn("FAIL! (0x60)", service.nbdctl("unreserve", "127.0.0.1"))
        failed = [line for line in service.log_text().splitlines() if " failed: " in line]
        self.assertEqual(len(failed), 1, failed)
        self.assertIn("ServerUnreserveRemote", failed[0])


class Signals(unittest.TestCase):
    def setUp(self):
        self.service = Service(self).start().start_server()
        self.node = self.service.images / "disk.img"
        images.write_random(self.node)
        self.number, self.name = self.service.publish(self.node)

    def test_sigterm_lets_running_requests_finish(self):
        with nbd.Client(self.service.port, self.name) as client:
            data = images.random_bytes(images.MIB, seed=7)
            sent = [
                client.submit(nbd.WRITE, offset, data=data, flags=nbd.FUA)
                for offset in range(0, 4 * images.MIB, images.MIB)
            ]
            first, error, _ = client.receive()
            self.assertEqual(error, 0)
            self.service.process.send_signal(signal.SIGTERM)
            acknowledged = [first]
            try:
                while len(acknowledged) < len(sent):
                    cookie, error, _ = client.receive()
                    self.assertIn(error, (0, nbd.ESHUTDOWN))
                    if error == 0:
                        acknowledged.append(cookie)
            except nbd.ConnectionEnded:
                pass
        self.assertEqual(self.service.process.wait(processes.LIMIT_SECONDS), 0)
        content = images.content(self.node)
        for cookie in acknowledged:
            offset = sent.index(cookie) * images.MIB
            self.assertEqual(images.first_difference(content[offset : offset + images.MIB], data), "")

    def test_idle_clients_do_not_hold_up_the_end(self):
        clients = [nbd.Client(self.service.port, self.name) for _ in range(10)]
        self.assertEqual(self.service.stop(), 0)
        for client in clients:
            with self.assertRaises(nbd.ConnectionEnded):
                client.receive()
            client.close()

    def test_sigint_ends_it_too(self):
        self.service.process.send_signal(signal.SIGINT)
        self.assertEqual(self.service.process.wait(processes.LIMIT_SECONDS), 0)
        self.assertFalse(self.service.socket.exists())

    def test_everything_is_back_after_a_restart(self):
        before = self.service.info(self.number)
        self.assertEqual(self.service.stop(), 0)
        self.service.start()
        self.assertEqual(self.service.info(self.number), before)
        with nbd.Client(self.service.port, self.name) as client:
            self.assertEqual(client.request(nbd.READ, 0, 512)[1], images.content(self.node)[:512])

    def test_a_node_that_its_predecessor_lets_go_late_is_served(self):
        """The kernel may hold the files of a killed service for a moment."""
        self.service.kill()
        with open(self.node, "rb") as holder:
            fcntl.flock(holder, fcntl.LOCK_EX)
            self.service.spawn()
            processes.wait_until(lambda: "waits for its node" in self.service.log_text(), "nbdd to wait")
        self.assertTrue(self.service.await_ready())
        self.assertEqual(self.service.info(self.number)["state"], "enabled")

    def test_sighup_keeps_clients_and_a_wrong_configuration_changes_nothing(self):
        with nbd.Client(self.service.port, self.name) as client:
            for text, expected in (
                ("[server]\nport = 0\n", "read again"),
                ("[server]\nport = true\n", "stays as it was"),
            ):
                self.service.configuration.write_text(text)
                self.service.process.send_signal(signal.SIGHUP)
                processes.wait_until(lambda e=expected: e in self.service.log_text(), f"“{expected}” in the log")
                self.assertEqual(client.request(nbd.READ, 0, 512)[0], 0)


class TwoServices(unittest.TestCase):
    def test_the_second_one_gives_way(self):
        first = Service(self).start()
        second = processes.run([processes.program("nbdd")], environment=first.environment, check=False)
        self.assertEqual(second.status, ANOTHER_RUNS, str(second))
        self.assertIn("another nbdd", second.err)
        self.assertEqual(first.nbdctl("list"), "Exports: 0\n")

    def test_a_second_one_on_the_same_state_gives_way(self):
        first = Service(self).start()
        environment = {**first.environment, "NBDD_RUNTIME_DIR": str(first.root / "other")}
        second = processes.run([processes.program("nbdd")], environment=environment, check=False)
        self.assertEqual(second.status, ANOTHER_RUNS, str(second))

    def test_nbdctl_says_once_who_is_in_its_way(self):
        first = Service(self).start()
        environment = {**first.environment, "NBDD_RUNTIME_DIR": str(first.root / "other")}
        result = processes.run([processes.program("nbdctl"), "list"], environment=environment, check=False)
        self.assertNotEqual(result.status, 0)
        self.assertEqual(result.err.count("another nbdd"), 1, str(result))
        self.assertIn(f"(process {first.process.pid})", result.err)
        # The last nbdd that nbdctl started may still hope; it must not get its chance when the first one ends.
        with open(first.root / "other" / "nbdd.lock", "rb") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)

    def test_whoever_lost_the_runtime_directory_is_served_again(self):
        service = Service(self).start()
        with service.control() as control:
            pid = control.peer()
        for _ in range(5):
            shutil.rmtree(service.runtime)
            result = processes.run([processes.program("nbdctl"), "list"], environment=service.environment)
            self.assertEqual((result.out, result.err), ("Exports: 0\n", ""))
            with service.control() as control:
                self.assertEqual(control.peer(), pid)

    def test_each_in_its_own_directories(self):
        first, second = Service(self).start().start_server(), Service(self).start().start_server()
        self.assertNotEqual(first.port, second.port)


class StartServer(unittest.TestCase):
    """A server that cannot listen as configured says why, and nothing of it is started."""

    def expect_code(self, service, code):
        with service.control() as control:
            with self.assertRaises(Failed) as failed:
                control.ServerStart()
        self.assertEqual(failed.exception.code, code, failed.exception)
        self.assertEqual(service.nbdctl("start"), f"Starting server... error 0x{code:x}\n")
        self.assertNotIn("port", service.properties(), "half started")

    def test_a_taken_port(self):
        with socket.create_server(("127.0.0.1", 0)) as taken:
            port = taken.getsockname()[1]
            service = Service(self, listen=("::1", "127.0.0.1"), port=port).start()
            self.expect_code(service, PORT_IN_USE)
            # The number is all that nbdctl shows; the log has the sentence.
            self.assertRegex(service.log_text(), rf"ServerStart failed: .*{port}.*\(portInUse, 0x40\)")
            with self.assertRaises(ConnectionRefusedError):  # the address that was free is not listened on
                socket.create_connection(("::1", port), timeout=processes.LIMIT_SECONDS)
        service.start_server()
        self.assertEqual(service.port, port)

    def test_the_configuration_is_read_again(self):
        with socket.create_server(("127.0.0.1", 0)) as taken:
            service = Service(self, listen=("127.0.0.1",), port=taken.getsockname()[1]).start()
            self.expect_code(service, PORT_IN_USE)
            with socket.create_server(("127.0.0.1", 0)) as another:
                free = another.getsockname()[1]
            service.configure(("127.0.0.1",), free)
            service.start_server()
            self.assertEqual(service.port, free)
        service.nbdctl("stop")
        service.configure(("127.0.0.1",), free, more='[tls]\nmode = "required"\n')
        self.expect_code(service, CONFIGURATION_WRONG)
        self.assertIn("has nothing to prove the server with", service.log_text())
        service.configure(("127.0.0.1",), 0, more='[server.unknown]\n')
        self.expect_code(service, CONFIGURATION_WRONG)
        service.configure(("127.0.0.1",), free)
        service.start_server()
        service.configure(("127.0.0.1",), "wrong")
        self.assertIn("OK!", service.nbdctl("start"), "a started server has no use for the configuration")

    def test_a_lost_address(self):
        # 198.51.100.0/24 is for documentation: no host has an address of it.
        service = Service(self, listen=("127.0.0.1", "198.51.100.77")).start()
        self.expect_code(service, ADDRESS_NOT_AVAILABLE)

    def test_nothing_is_remembered_of_a_failed_start(self):
        service = Service(self, listen=("198.51.100.77",)).start()
        self.expect_code(service, ADDRESS_NOT_AVAILABLE)
        service.stop()
        service.configure(("127.0.0.1",), 0)
        service.start()
        self.assertNotIn("port", service.properties())

    def test_a_port_that_is_taken_after_a_restart_is_tried_again(self):
        service = Service(self, listen=("127.0.0.1",)).start().start_server()
        port = service.port
        service.stop()
        service.configure(("127.0.0.1",), port)
        with socket.create_server(("127.0.0.1", port)):
            service.start()
            self.assertNotIn("port", service.properties())
        processes.wait_until(lambda: "port" in service.properties(), "the server to listen again")
        self.assertEqual(service.port, port)

    def test_stop_ends_clients_and_is_remembered(self):
        service = Service(self).start().start_server()
        images.write_zeros(service.images / "a.img")
        _, name = service.publish(service.images / "a.img")
        with nbd.Client(service.port, name) as client:
            self.assertEqual(service.nbdctl("stop"), "Stopping server... OK!\n")
            with self.assertRaises(nbd.ConnectionEnded):
                client.receive()
        service.stop()
        service.start()
        self.assertNotIn("port", service.properties())


class ServiceManager(unittest.TestCase):
    """What systemd does, done by the test."""

    def setUp(self):
        self.service = Service(self)
        path = self.service.root / "notify"
        self.notify = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.notify.settimeout(processes.LIMIT_SECONDS)
        self.notify.bind(str(path))
        self.addCleanup(self.notify.close)
        self.service.environment["NOTIFY_SOCKET"] = str(path)

    def expect(self, what):
        """Waits for a message with this line."""
        while what not in (lines := self.notify.recv(4096).decode().splitlines()):
            pass
        return lines

    def test_readiness_reload_and_end_are_told(self):
        self.service.start()
        self.assertTrue(any(line.startswith("STATUS=") for line in self.expect("READY=1")))
        self.service.process.send_signal(signal.SIGHUP)
        reloading = self.expect("RELOADING=1")
        self.assertTrue(any(line.startswith("MONOTONIC_USEC=") for line in reloading), reloading)
        self.expect("READY=1")
        self.assertEqual(self.service.stop(), 0)
        self.expect("STOPPING=1")

    def test_the_watchdog_is_told(self):
        self.service.environment["WATCHDOG_USEC"] = "200000"
        self.service.start()
        for _ in range(3):
            self.expect("WATCHDOG=1")

    def test_socket_activation(self):
        self.service.runtime.mkdir(mode=0o700)
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as listener:
            listener.bind(str(self.service.socket))
            listener.listen()
            # Whoever connects before nbdd is there waits in the queue and is served then.
            with self.service.control() as early:
                environment = self.service.environment
                process = subprocess.Popen(
                    ["bash", "-c", ACTIVATE, "activate", str(listener.fileno()), processes.program("nbdd")],
                    env=environment,
                    pass_fds=[listener.fileno()],
                    stderr=subprocess.DEVNULL,
                    preexec_fn=processes.die_with_parent,
                )
                self.addCleanup(processes.end, process)
                self.assertEqual(early.ExportList(), {"ids": []})
            self.expect("READY=1")
            process.terminate()
            self.assertEqual(process.wait(processes.LIMIT_SECONDS), 0)
            self.assertTrue(self.service.socket.exists(), "the socket belongs to the service manager")


class StartUpErrors(unittest.TestCase):
    """One sentence on standard error, and an exit status other than 0."""

    def setUp(self):
        self.service = Service(self)

    def expect(self, *words, status=1):
        command = [processes.program("nbdd")]
        result = processes.run(command, environment=self.service.environment, check=False)
        self.assertEqual(result.status, status, str(result))
        self.assertEqual(len(result.err.splitlines()), 1, str(result))
        self.assertTrue(result.err.startswith("nbdd: "), str(result))
        for word in words:
            self.assertIn(word, result.err)

    def test_a_wrong_configuration(self):
        self.service.configuration.write_text("[server]\n\nprot = 10809\n")
        self.expect("prot", "3")

    def test_a_configuration_that_is_named_and_missing(self):
        self.service.configuration.unlink()
        self.expect(str(self.service.configuration))

    def test_a_damaged_state_is_refused_and_kept(self):
        self.service.state.mkdir(mode=0o700)
        for text in ("{", "", '{"format":"org.talvek.NBD.state","version":99}'):
            (self.service.state / "state.json").write_text(text)
            self.expect("state.json")
            self.assertEqual((self.service.state / "state.json").read_text(), text)

    def test_an_unusable_runtime_directory(self):
        self.service.runtime.write_text("")
        self.expect(str(self.service.runtime))

    def test_a_state_directory_that_cannot_be_made(self):
        (self.service.root / "file").write_text("")
        self.service.environment["NBDD_STATE_DIR"] = str(self.service.root / "file" / "state")
        self.expect(f"{self.service.root}/file/state", "NBDD_STATE_DIR")

    def test_an_unknown_way_to_wait_for_storage(self):
        self.service.environment["NBDD_IO"] = "magic"
        self.expect("NBDD_IO")

    def test_unknown_options(self):
        result = processes.run(
            [processes.program("nbdd"), "--nonsense"], environment=self.service.environment, check=False
        )
        self.assertEqual(result.status, 2, str(result))


class Interrupted(unittest.TestCase):
    """The service is killed under an nbdctl that runs: its next command finds or starts another one."""

    def test_nbdctl_goes_on(self):
        service = Service(self).start()
        nbdctl = subprocess.Popen(
            [processes.program("nbdctl")],
            env=service.environment,
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            text=True,
            preexec_fn=processes.die_with_parent,
        )
        self.addCleanup(processes.end, nbdctl)
        nbdctl.stdin.write("list\n")
        nbdctl.stdin.flush()
        self.assertIn("Exports: 0", nbdctl.stdout.readline() + nbdctl.stdout.readline())
        service.kill()
        out, _ = nbdctl.communicate("list\n", timeout=processes.LIMIT_SECONDS)
        self.assertIn("Exports: 0", out)


if __name__ == "__main__":
    unittest.main()
