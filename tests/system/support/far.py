"""A network path to a server that is far away: every byte takes its time."""

import asyncio
import collections
import contextlib
import socket
import threading

PIECE = 256 * 1024


class Way:
    """One direction of all connections: how many bytes were on it at once."""

    def __init__(self):
        self.now = 0
        self.most = 0

    def enter(self, count):
        self.now += count
        self.most = max(self.most, self.now)

    def leave(self, count):
        self.now -= count


class FarLink:
    """Forwards connections on a port of its own to `port` on this host, from a thread of its own.

    Half of `round_trip` (seconds) passes until what one side sends arrives at the other. With `window`, each direction
    of a connection takes no more than so many bytes within a round trip, as a window of TCP would.
    """

    def __init__(self, test, port, round_trip=0.02, window=None):
        self._to = port
        self._round_trip = round_trip
        self._window = window
        self.requests, self.replies = Way(), Way()
        self.connections = 0
        self._listener = socket.create_server(("127.0.0.1", 0), backlog=64)
        self.port = self._listener.getsockname()[1]
        self._loop = asyncio.new_event_loop()
        self._stop = asyncio.Event()
        self._tasks = set()
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()
        test.addCleanup(self.end)

    def forget(self):
        """Counts anew what is on the ways at once."""
        self.requests.most, self.replies.most = self.requests.now, self.replies.now

    def end(self):
        self._loop.call_soon_threadsafe(self._stop.set)
        self._thread.join()

    def _run(self):
        self._loop.run_until_complete(self._serve())
        self._loop.close()

    async def _serve(self):
        server = await asyncio.start_server(self._connected, sock=self._listener, limit=PIECE)
        await self._stop.wait()
        server.close()
        for task in self._tasks:
            task.cancel()
        await asyncio.gather(*self._tasks, return_exceptions=True)

    async def _connected(self, reader, writer):
        self._tasks.add(asyncio.current_task())
        self.connections += 1
        with contextlib.closing(writer), contextlib.suppress(OSError, asyncio.CancelledError):
            far_reader, far_writer = await asyncio.open_connection("127.0.0.1", self._to, limit=PIECE)
            with contextlib.closing(far_writer):
                there = self._forward(reader, far_writer, self.requests)
                await asyncio.gather(there, self._forward(far_reader, writer, self.replies))
        self._tasks.discard(asyncio.current_task())

    async def _forward(self, reader, writer, way):
        queue = collections.deque()
        arrived = asyncio.Event()
        delivery = asyncio.ensure_future(self._deliver(queue, arrived, writer, way))
        recent = 0
        acknowledged = asyncio.Event()

        def acknowledge(count):
            nonlocal recent
            recent -= count
            acknowledged.set()

        try:
            data = b"not the end"
            while data:
                while self._window and recent >= self._window:
                    acknowledged.clear()
                    await acknowledged.wait()
                data = await reader.read(self._window - recent if self._window else PIECE)
                now = self._loop.time()
                recent += len(data)
                way.enter(len(data))
                self._loop.call_at(now + self._round_trip, acknowledge, len(data))
                queue.append((now + self._round_trip / 2, data))
                arrived.set()
            await delivery
        finally:
            delivery.cancel()
            way.leave(sum(len(data) for _, data in queue))

    async def _deliver(self, queue, arrived, writer, way):
        data = b"not the end"
        while data:
            while not queue:
                arrived.clear()
                await arrived.wait()
            due, data = queue[0]
            await asyncio.sleep(due - self._loop.time())
            queue.popleft()
            way.leave(len(data))
            writer.write(data)
            await writer.drain()
        with contextlib.suppress(OSError):
            writer.write_eof()
