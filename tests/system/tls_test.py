"""TLS with stock clients and servers, and what it must keep out."""

import contextlib
import multiprocessing
import os
import resource
import select
import signal
import socket
import ssl
import struct
import threading
import types
import unittest
from pathlib import Path

from support import certificates, images, nbd, processes, remotes, tls
from support.processes import run, tool, wait_until
from support.service import Service
from support.varlink import Failed

REMOTE_PROTOCOL_ERROR, REMOTE_WITHOUT_TLS, REMOTE_DEMANDS_TLS, TLS_FAILED = 0x53, 0x58, 0x59, 0x5A
SIZE = 8 << 20


def nested(options):
    """Options of a block driver as those of the one below it."""
    return ",".join(f"file.{option}" for option in options.split(","))


@contextlib.contextmanager
def liar(words):
    """A server that offers TLS and answers whatever it is asked with `words`; yields its port."""
    with socket.create_server(("127.0.0.1", 0)) as listener:

        def serve():
            with listener.accept()[0] as connection:
                connection.sendall(b"NBDMAGICIHAVEOPT\0\3")
                connection.recv(4 + 16)
                connection.sendall(words)
                while connection.recv(4096):
                    pass

        thread = threading.Thread(target=serve, daemon=True)
        thread.start()
        yield listener.getsockname()[1]
        thread.join(processes.LIMIT_SECONDS)


def write_configuration(service, text):
    """The addresses of loopback, and `text`."""
    service.configure(("127.0.0.1", "::1"), 0)
    service.configuration.write_text(service.configuration.read_text() + text)


class Secured:
    """A service with an authority, a certificate, keys of alice and bob, and one export."""

    mode = "required"
    more = ""

    def setUp(self):
        self.service = Service(self)
        root = self.service.root
        self.authority = certificates.Authority(root / "authority")
        self.files = self.authority.issue(root / "server", "server", "server")
        self.client = self.authority.issue(root / "client", "client", "alice")
        self.keys = root / "keys.psk"
        certificates.make_key(self.keys, "alice", "bob")
        self.configure()
        self.service.start().start_server()
        self.content = images.random_bytes(SIZE, 1)
        self.node = self.service.images / "disk.img"
        self.node.write_bytes(self.content)
        self.number, self.name = self.service.publish(self.node)

    def configure(self, more=None):
        more = self.more if more is None else more
        text = f'[tls]\nmode = "{self.mode}"\ndirectory = "{self.files}"\nkeys = "{self.keys}"\n{more}'
        write_configuration(self.service, text)

    def reload(self):
        """Has the configuration and the certificates read again, and waits until they are."""
        lines = self.service.log_text().count("\n")
        self.service.process.send_signal(signal.SIGHUP)

        def told():
            new = self.service.log_text().splitlines()[lines:]
            return [line for line in new if "configuration was read again" in line or "stays as it was" in line]

        return wait_until(told, "the configuration to be read again")[0]

    def uri(self, user="", **parameters):
        query = "&".join(f"{name}={value}" for name, value in parameters.items())
        return f"nbds://{user and user + '@'}127.0.0.1:{self.service.port}/{self.name}?{query}"

    def by_certificate(self, directory=None):
        return self.uri(**{"tls-certificates": directory or self.client})

    def by_key(self, user="alice", keys=None):
        return self.uri(user, **{"tls-psk-file": keys or self.keys})

    def info(self, uri):
        return run([tool("nbdinfo"), "--size", uri], check=False)

    def expect_served(self, uri):
        self.assertEqual(run([tool("nbdinfo"), "--size", uri]).out, f"{SIZE}\n")

    def expect_refused(self, uri, *said):
        """The client gets nothing, and the log says why."""
        self.assertNotEqual(self.info(uri).status, 0)
        wait_until(lambda: all(text in self.service.log_text() for text in said), f"{said} in the log")

    def client_names(self):
        with self.service.control() as control:
            return control.ExportGetClients(id=self.number)["clients"]


class StockClients(Secured, unittest.TestCase):
    def test_nbdinfo_sees_that_the_connection_is_secured(self):
        for uri in (self.by_certificate(), self.by_key()):
            self.assertIn("with TLS", run([tool("nbdinfo"), uri]).out)

    def test_nbdcopy_reads_and_writes(self):
        copy, new = self.service.root / "copy", images.random_bytes(SIZE, 2)
        for uri, number in ((self.by_certificate(), 3), (self.by_key(), 4)):
            run([tool("nbdcopy"), uri, copy])
            self.assertEqual(copy.read_bytes(), self.node.read_bytes())
            new = images.random_bytes(SIZE, number)
            copy.write_bytes(new)
            run([tool("nbdcopy"), "--flush", copy, uri])
            self.assertEqual(self.node.read_bytes(), new)

    def test_qemu_img_reads_and_writes(self):
        target = f"driver=nbd,host=127.0.0.1,port={self.service.port},export={self.name},tls-creds=tls"
        keys = self.service.root / "for-qemu"
        keys.mkdir()
        (keys / "keys.psk").write_bytes(self.keys.read_bytes())
        for credentials in (
            f"tls-creds-x509,id=tls,endpoint=client,dir={self.client}",
            f"tls-creds-psk,id=tls,endpoint=client,username=bob,dir={keys}",
        ):
            copy = self.service.root / "copy"
            copy.unlink(missing_ok=True)
            words = [tool("qemu-img"), "convert", "--object", credentials]
            run([*words, "--image-opts", target, "-O", "raw", copy])
            self.assertEqual(copy.read_bytes(), self.node.read_bytes())
            copy.write_bytes(images.random_bytes(SIZE, 5))
            run([*words, "-n", "-f", "raw", "--target-image-opts", copy, f"driver=raw,{nested(target)}"])
            self.assertEqual(copy.read_bytes(), self.node.read_bytes())

    def test_fio_verifies_what_it_wrote(self):
        parameters = {"tls-verify-peer": "false"}  # fio lets no URI name files
        job = ["--name=verify", "--ioengine=nbd", f"--uri={self.uri(**parameters)}", "--rw=randrw", "--bsrange=512-1m"]
        job += [f"--size={SIZE}", "--iodepth=16", "--verify=crc32c", "--verify_backlog=64", "--bs_unaligned"]
        run([tool("fio"), *job, "--io_size=64m", "--blockalign=512"], cwd=self.service.root)

    def test_the_operator_sees_how_a_client_is_secured(self):
        with tls.Client(self.service.port).secure(tls.context(self.authority)) as client:
            self.assertEqual(client.ask(tls.GO, tls.go_data(self.name))[-1], tls.ACK)
            details = wait_until(self.client_names, "the client")[0]["details"]
            self.assertEqual(details[0]["name"], "security")
            self.assertTrue(details[0]["text"].startswith("TLS1.3, AES-128-GCM"), details)
        self.assertEqual(self.service.properties()["TLS"]["text"], "required")


class Downgrade(Secured, unittest.TestCase):
    def test_nothing_is_told_before_tls(self):
        self.assertNotEqual(self.info(f"nbd://127.0.0.1:{self.service.port}/{self.name}").status, 0)
        for code in (tls.LIST, tls.INFO, tls.GO, tls.STRUCTURED_REPLY, 9, 10, 11, 0x7777):
            with tls.Client(self.service.port) as client:
                self.assertEqual(client.ask(code, tls.go_data(self.name)), [tls.TLS_REQUIRED])
        with tls.Client(self.service.port) as client:
            client.send(tls.option(tls.EXPORT_NAME, self.name.encode()))
            self.assertEqual(client.rest(), b"")

    def test_what_is_sent_behind_starttls_ends_the_connection(self):
        for injected in (tls.option(tls.LIST), tls.option(tls.GO, tls.go_data(self.name)), b"\x16", bytes(300)):
            with tls.Client(self.service.port) as client:
                client.send(tls.option(tls.START_TLS) + injected)
                # Perhaps the acknowledgement and an alert of TLS; never an answer to what was injected.
                answer = client.rest()
                self.assertLessEqual(answer.count(struct.pack(">Q", 0x0003E889045565A9)), 1, answer)
                self.assertNotIn(struct.pack(">I", tls.SERVER), answer)

    def test_a_client_in_the_clear_behind_the_acknowledgement_is_cut_off(self):
        with tls.Client(self.service.port) as client:
            self.assertEqual(client.ask(tls.START_TLS), [tls.ACK])
            client.send(tls.option(tls.GO, tls.go_data(self.name)))
            answer = client.rest()
            self.assertNotIn(struct.pack(">Q", 0x0003E889045565A9), answer)
        self.expect_served(self.by_certificate())

    def test_tls_is_not_begun_twice(self):
        with tls.Client(self.service.port).secure(tls.context(self.authority)) as client:
            self.assertEqual(client.ask(tls.START_TLS), [tls.INVALID])
            self.assertEqual(client.ask(tls.LIST), [tls.SERVER, tls.ACK])

    def test_old_versions_are_not_spoken(self):
        for version, good in ((ssl.TLSVersion.TLSv1_1, False), (ssl.TLSVersion.TLSv1_2, True)):
            context = tls.context(self.authority)
            context.set_ciphers("ALL:@SECLEVEL=0")
            context.minimum_version = ssl.TLSVersion.TLSv1
            context.maximum_version = version
            with tls.Client(self.service.port) as client:
                if good:
                    self.assertEqual(client.secure(context).socket.version(), "TLSv1.2")
                    self.assertEqual(client.ask(tls.LIST), [tls.SERVER, tls.ACK])
                else:
                    self.assertRaises((ssl.SSLError, ConnectionResetError), client.secure, context)

    def test_what_was_agreed_on_in_the_clear_is_void(self):
        self.mode = "allowed"
        self.configure()
        self.reload()
        with tls.Client(self.service.port) as client:
            self.assertEqual(client.ask(tls.STRUCTURED_REPLY), [tls.ACK])
            client.secure(tls.context(self.authority))
            query = struct.pack(">I", len(self.name)) + self.name.encode() + struct.pack(">I", 0)
            self.assertEqual(client.ask(9, query), [tls.INVALID])


class Verified(Secured, unittest.TestCase):
    """Clients must show a certificate, or know a key."""

    more = "client-certificates = true\n"

    def test_who_shows_nothing_is_refused(self):
        nothing = self.service.root / "nothing"
        nothing.mkdir()
        (nothing / "ca-cert.pem").write_bytes(self.authority.certificate.read_bytes())
        self.expect_refused(self.by_certificate(nothing), "it showed no certificate")
        self.expect_served(self.by_certificate())
        self.expect_served(self.by_key())

    def test_an_expired_certificate_is_refused(self):
        expired = self.authority.issue(self.service.root / "expired", "client", "alice", expired=True)
        self.expect_refused(self.by_certificate(expired), "its certificate is not accepted: it has expired")

    def test_a_certificate_of_another_authority_is_refused(self):
        other = certificates.Authority(self.service.root / "other", "another authority")
        foreign = other.issue(self.service.root / "foreign", "client", "alice")
        # Clients that look at what the server asks for would not even show it.
        with tls.Client(self.service.port) as client:
            self.assertRaises(
                (ssl.SSLError, EOFError, ConnectionResetError),
                lambda: client.secure(tls.context(self.authority, foreign)).ask(tls.LIST),
            )
        said = "no authority that is trusted here has signed it"
        wait_until(lambda: said in self.service.log_text(), "the refusal in the log")

    def test_a_servers_certificate_is_no_clients(self):
        borrowed = self.service.root / "borrowed"
        borrowed.mkdir()
        for file in self.files.iterdir():
            (borrowed / file.name.replace("server", "client")).write_bytes(file.read_bytes())
        self.expect_refused(self.by_certificate(borrowed), "it is for another purpose")

    def test_a_wrong_key_and_an_unknown_name_are_refused_alike(self):
        wrong = self.service.root / "wrong.psk"
        certificates.make_key(wrong, "alice", "mallory")
        answers = {self.info(self.by_key(user, wrong)).err.split("nbd_connect_uri:")[-1] for user in ("alice", "mallory")}
        self.assertEqual(len(answers), 1, answers)
        self.expect_refused(self.by_key("alice", wrong), "TLS with client")

    def test_only_those_in_the_list_may_come(self):
        self.configure('clients = ["bob", "carol"]\n')
        self.assertIn("was read again", self.reload())
        self.expect_refused(self.by_certificate(), "none of its names is one of the clients that may come: alice")
        self.expect_refused(self.by_key("alice"))
        self.expect_served(self.by_key("bob"))
        carol = self.authority.issue(self.service.root / "carol", "client", "carol")
        self.expect_served(self.by_certificate(carol))


class Reload(Secured, unittest.TestCase):
    def serial(self):
        with tls.Client(self.service.port).secure(tls.context(self.authority)) as client:
            return client.socket.getpeercert()["serialNumber"]

    def test_new_certificates_hold_from_the_signal_on(self):
        before = self.serial()
        self.authority.issue(self.files, "server", "server")
        self.assertEqual(self.serial(), before)
        with tls.Client(self.service.port).secure(tls.context(self.authority)) as old:
            self.reload()
            self.assertNotEqual(self.serial(), before)
            self.assertEqual(old.ask(tls.LIST), [tls.SERVER, tls.ACK])

    def test_files_that_do_not_go_together_change_nothing(self):
        before = self.serial()
        key = self.files / "server-key.pem"
        certificates.certtool("--generate-privkey", *certificates.KEY, "--outfile", key)
        self.assertIn("no certificate that goes with server-key.pem", self.reload())
        key.unlink()
        self.assertIn("cannot be read", self.reload())
        self.assertEqual(self.serial(), before)

    def test_new_keys_hold_and_old_ones_do_not(self):
        self.expect_served(self.by_key())
        new = self.service.root / "new.psk"
        certificates.make_key(new, "alice")
        old = self.service.root / "old.psk"
        os.rename(self.keys, old)
        os.rename(new, self.keys)
        self.reload()
        self.expect_served(self.by_key())
        self.expect_refused(self.by_key(keys=old))

    def test_an_expired_certificate_is_told_at_once_and_refused_by_clients(self):
        self.authority.issue(self.files, "server", "server", expired=True)
        self.reload()
        wait_until(lambda: "server-cert.pem has expired" in self.service.log_text(), "the warning")
        self.expect_refused(self.by_certificate(), "TLS with client")

    def test_a_service_without_its_files_does_not_start(self):
        self.service.stop()
        (self.files / "server-key.pem").unlink()
        self.service.spawn()
        self.assertFalse(self.service.await_ready())
        self.assertIn("server-key.pem: it cannot be read", self.service.log_text())


class Crowd(Secured, unittest.TestCase):
    """A thousand clients make their handshakes, with a large certificate key, while another client is served."""

    mode = "allowed"
    clients = 1000

    def test_a_thousand_handshakes_do_not_stall_who_is_there(self):
        self.authority.issue(self.files, "server", "server", key=["--key-type=rsa", "--bits=2048"])
        self.reload()
        context = tls.context(self.authority)
        _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
        resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
        crowd = []
        for _ in range(self.clients):
            client = tls.Client(self.service.port)
            self.addCleanup(client.socket.close)
            incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
            session = context.wrap_bio(incoming, outgoing, server_hostname="localhost")
            self.assertRaises(ssl.SSLWantReadError, session.do_handshake)
            crowd.append((client, session, incoming, outgoing))
        for client, *_ in crowd:
            client.send(tls.option(tls.START_TLS))
        for client, *_ in crowd:
            self.assertEqual(client.reply()[0], tls.ACK)
        served = multiprocessing.Value("i", 0)
        neighbour = multiprocessing.Process(target=self.read_on, args=(served,), daemon=True)
        neighbour.start()
        self.addCleanup(neighbour.kill)
        wait_until(lambda: served.value > 0, "the neighbour to be served")
        for client, _, _, outgoing in crowd:
            client.send(outgoing.read())
            client.socket.setblocking(False)
        before, waiting = served.value, list(crowd)
        while waiting:
            # Who waits for the server's arithmetic is ready when it has been done.
            ready = self.poll(waiting)
            waiting = [each for each in waiting if each[0].socket not in ready or not self.advance(*each)]
        # Were the handshakes made where the neighbour is served, he would be served once in dozens of them.
        self.assertGreater(served.value - before, self.clients // 5, "the neighbour was stalled")

    def read_on(self, served):
        with nbd.Client(self.service.port, self.name) as neighbour:
            while neighbour.request(nbd.READ, 4096 * (served.value % 1000), 4096)[0] == 0:
                served.value += 1

    def poll(self, waiting):
        watch = select.poll()
        sockets = {client.socket.fileno(): client.socket for client, *_ in waiting}
        for number in sockets:
            watch.register(number, select.POLLIN)
        ready = {sockets[number] for number, _ in watch.poll(processes.LIMIT_SECONDS * 1000)}
        self.assertTrue(ready, "the server says nothing")
        return ready

    def advance(self, client, session, incoming, outgoing):
        """Whether the handshake is complete, with what has arrived."""
        try:
            data = client.socket.recv(65536)
        except BlockingIOError:
            return False
        self.assertNotEqual(data, b"", "the server has given up")
        incoming.write(data)
        try:
            session.do_handshake()
        except ssl.SSLWantReadError:
            return False
        finally:
            client.send(outgoing.read())
        return True


class Imports(unittest.TestCase):
    """Stock servers and nbdd itself with TLS, as sources of imports."""

    def setUp(self):
        self.service = Service(self)
        root = self.service.root
        self.authority = certificates.Authority(root / "authority")
        self.files = self.authority.issue(root / "server", "server", "server")
        self.client = self.authority.issue(root / "client", "client", "alice")
        self.keys = root / "keys" / "keys.psk"
        self.keys.parent.mkdir()
        certificates.make_key(self.keys, "alice")
        self.image = self.service.images / "remote.img"
        self.image.write_bytes(images.random_bytes(SIZE, 7))

        self.addCleanup(self.unmount)

    def unmount(self):
        """What a killed service has left mounted would keep its directory."""
        self.service.end()
        for line in Path("/proc/self/mountinfo").read_text().splitlines():
            if (place := line.split()[4]).startswith(str(self.service.root)):
                run([tool("umount"), "-l", place])

    def remote(self, kind, *words):
        server = kind(self, self.image)
        plain = server.command
        server.command = lambda: [*plain()[:1], *words, *plain()[1:]]
        return server.start()

    def nbdkit(self, *words):
        return self.remote(remotes.Nbdkit, *words)

    def nbdkit_x509(self, files=None):
        return self.nbdkit("--tls=require", f"--tls-certificates={files or self.files}")

    def start(self, text):
        write_configuration(self.service, f"[tls.imports]\n{text}")
        self.service.start()

    def enable(self, remote, host="127.0.0.1"):
        with self.service.control() as control:
            number = control.ImportAdd(
                descriptor={"name": remote.name, "server": {"address": host, "port": remote.port}}
            )["id"]
            control.ImportEnable(id=number)
            return number

    def nbdd(self, client):
        """One that takes this client alone."""
        remote = remotes.Nbdd(self, self.image)
        configuration = remote.service.configuration
        configuration.write_text(
            f'{configuration.read_text()}[tls]\nmode = "required"\ndirectory = "{self.files}"\nclients = ["{client}"]\n'
        )
        remote.start()
        return remote

    def expect_content(self, number):
        with self.service.control() as control:
            kinds = control.ImportListNodeInterfaces(id=number)["interfaces"]
        entries = next(kind["nested"] for kind in kinds if kind["name"] == "socket")
        path = next(entry["text"] for entry in entries if entry["name"] == "path")
        copy = self.service.root / "copy"
        run([tool("nbdcopy"), f"nbd+unix:///?socket={path}", copy])
        self.assertEqual(copy.read_bytes(), self.image.read_bytes())
        copy.write_bytes(images.random_bytes(SIZE, 8))
        run([tool("nbdcopy"), "--flush", copy, f"nbd+unix:///?socket={path}"])
        self.assertEqual(copy.read_bytes(), self.image.read_bytes())

    def expect_failure(self, remote, code, host="127.0.0.1"):
        with self.assertRaises(Failed) as caught:
            self.enable(remote, host)
        self.assertEqual(caught.exception.code, code, caught.exception.message)
        return caught.exception.message

    def test_stock_servers_by_certificate(self):
        self.start(f'mode = "required"\ndirectory = "{self.client}"\n')
        credentials = f"tls-creds-x509,id=tls,endpoint=server,verify-peer=yes,dir={self.files}"
        for remote in (
            self.nbdkit("--tls=require", "--tls-verify-peer", f"--tls-certificates={self.files}"),
            self.remote(remotes.QemuNbd, "--object", credentials, "--tls-creds", "tls"),
        ):
            self.expect_content(self.enable(remote))

    def test_a_stock_server_by_key(self):
        self.start(f'mode = "required"\nkeys = "{self.keys}"\nuser = "alice"\n')
        credentials = f"tls-creds-psk,id=tls,endpoint=server,dir={self.keys.parent}"
        for remote in (
            self.nbdkit("--tls=require", f"--tls-psk={self.keys}"),
            self.remote(remotes.QemuNbd, "--object", credentials, "--tls-creds", "tls"),
        ):
            self.expect_content(self.enable(remote))

    def test_nbdd_itself(self):
        remote = self.nbdd("alice")
        self.start(f'mode = "required"\ndirectory = "{self.client}"\n')
        self.expect_content(self.enable(remote))

    def test_a_server_that_does_not_take_our_certificate(self):
        remote = self.nbdd("bob")
        self.start(f'mode = "required"\ndirectory = "{self.client}"\n')
        self.assertIn("may not accept", self.expect_failure(remote, TLS_FAILED))

    def test_a_server_without_tls(self):
        self.start(f'mode = "required"\ndirectory = "{self.client}"\n')
        self.expect_failure(self.nbdkit(), REMOTE_WITHOUT_TLS)

    def test_a_server_without_tls_where_it_is_only_allowed(self):
        self.start(f'mode = "allowed"\ndirectory = "{self.client}"\n')
        self.expect_content(self.enable(self.nbdkit()))

    def test_a_server_that_demands_tls(self):
        self.start('mode = "off"\n')
        self.assertIn("demands TLS", self.expect_failure(self.nbdkit_x509(), REMOTE_DEMANDS_TLS))

    def test_an_expired_certificate(self):
        expired = self.authority.issue(self.service.root / "expired", "server", "expired", expired=True)
        self.start(f'mode = "allowed"\ndirectory = "{self.client}"\n')
        self.assertIn("it has expired", self.expect_failure(self.nbdkit_x509(expired), TLS_FAILED))

    def test_a_certificate_of_another_authority(self):
        other = certificates.Authority(self.service.root / "other", "another authority")
        foreign = other.issue(self.service.root / "foreign", "server", "server")
        self.start(f'mode = "required"\ndirectory = "{self.client}"\n')
        self.assertIn("no authority that is trusted", self.expect_failure(self.nbdkit_x509(foreign), TLS_FAILED))

    def test_a_certificate_made_out_to_another_name(self):
        elsewhere = self.authority.issue(
            self.service.root / "elsewhere", "server", "elsewhere", names=("elsewhere.example",), addresses=("192.0.2.1",)
        )
        remote = self.nbdkit_x509(elsewhere)
        self.start(f'mode = "required"\ndirectory = "{self.client}"\n')
        self.assertIn("another name", self.expect_failure(remote, TLS_FAILED))
        self.assertIn("another name", self.expect_failure(remote, TLS_FAILED, "localhost"))
        self.service.stop()
        self.start(f'mode = "required"\ndirectory = "{self.client}"\nverify-name = false\n')
        self.expect_content(self.enable(remote))

    def test_a_server_that_speaks_behind_its_consent(self):
        """In the clear, where only TLS may come: refused."""
        self.start(f'mode = "required"\ndirectory = "{self.client}"\n')
        with liar(struct.pack(">QIII", 0x0003E889045565A9, tls.START_TLS, tls.ACK, 0) + b"more") as port:
            remote = types.SimpleNamespace(name="x", port=port)
            message = self.expect_failure(remote, REMOTE_PROTOCOL_ERROR)
            self.assertIn("spoke between its consent to TLS and TLS", message)


if __name__ == "__main__":
    unittest.main()
