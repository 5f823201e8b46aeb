"""Pushes for an application: says to the push agent who the application is, keeps its session and its channel alive, and
hands over each push as a value.

    import quilclient

    def on_push(push):
        print(push.data)
        return quilclient.Answer.ACCEPT

    with quilclient.PushClient("com.example.news", "http://push.example.com", on_push=on_push) as client:
        client.run()

The client reconnects by itself, with growing pauses, whenever the agent or the object service ends, and asks again for a
channel that it did not get. With an event loop of your own: watch fileno() for reading, wait no longer than until_due(),
and call dispatch() after either.

Threads: none are made, and all handlers are called from within run() or dispatch(). A client belongs to one thread at a
time; only stop() may come from other threads and from signal handlers.

Errors: what can be wrong for a while is told to handlers, as a Result, and tried again. A method that cannot do what it
was asked for raises Error. What a handler raises does not stop the work: the push is rejected, the other messages are
handled, and then run() or dispatch() raises it; run() may be called again and goes on where it stopped.

Bytes: ids and headers of pushes are str. A byte that is not UTF-8 is in an id what errors="surrogateescape" makes of it,
and str.encode("utf-8", "surrogateescape") gives it back; in a header it is U+FFFD.

This file needs Python 3.9 and nothing else, and may be copied into an application.
"""
from __future__ import annotations

import base64
import binascii
import collections
import dataclasses
import enum
import errno
import json
import math
import os
import re
import select
import socket
import time
from typing import Any, Callable, Deque, Dict, List, Optional, Tuple

__all__ = ["Answer", "Code", "Error", "Push", "PushClient", "Result", "meaning"]


# ---- Results

class Code(enum.IntEnum):
    """Codes of this module. Those above 0 come from the agent or, through it, from the push server."""
    OK = 0
    NO_OBJECT_SERVICE = -1  # nothing is mounted on /pps, or what was mounted there died
    NO_AGENT = -2  # the object service is up, but no agent serves the push object
    TIMED_OUT = -3  # the agent did not answer in time
    CONNECTION_LOST = -4  # the agent or the object service went away
    EMPTY_TOKEN = -5  # the channel's completion came without a token: it was not created
    BAD_ARGUMENT = -6  # refused before anything was sent; the words say what to change
    NO_PERMISSION = -7  # this user may not open the push object
    SYSTEM_ERROR = -9  # the operating system refused; the words hold its reason
    NOT_CONNECTED = -10  # there is no connection to the agent right now
    QUEUE_FULL = -11  # too many requests wait for an agent that does not read
    OBJECT_IN_THE_WAY = -12  # an ordinary object lies where the agent serves the push object


_CODES = frozenset(Code)

_MEANINGS: Dict[int, str] = {
    -12: "an ordinary object lies where the agent serves the push object: nobody reads it",
    -11: "too many requests wait for an agent that does not read them",
    -10: "there is no connection to the agent right now",
    -9: "the operating system refused",
    -7: "this user may not open the push object",
    -6: "the request was refused before it was sent",
    -5: "the channel was not created: its completion came without a token",
    -4: "the agent or the object service went away",
    -3: "the agent did not answer in time",
    -2: "the object service is up, but no agent serves the push object",
    -1: "the object service is not there",
    0: "success",
    200: "the push server said 200 in a one-step answer, which the agent counts as no success: the channel stays as it "
         "was",
    500: "no such session: it could not be added, or the application has no session (any more), or your user may not act "
         "for the application",
    10002: "the request has no providerApplicationId (arrives as 500)",
    10003: "the push server knows this application already: success for a registration, but passed on as an error by a "
           "deregistration",
    10004: "there is no channel to destroy: the session is not registered any more",
    10100: "the application has no session, or your user may not act for the application",
    10101: "the launch string is empty",
    10102: "the URL of the push server is empty",
    10103: "the push server did not answer, or not with HTTP status 200",
    10104: "the agent does not know this request (is never sent)",
    10106: "there is no channel to destroy: none was created in this session, or it is still being created",
    10107: "the push server accepted, but gave no usable port",
    10108: "the push server's second answer holds no \"rc=\", or did not come",
    10109: "a push could not be turned into base64: empty or too long, so it was closed",
    10110: "the push server's first answer holds neither \"param=\" nor \"rc=\"",
}


def meaning(code: int) -> str:
    """What a code means, in one sentence; `quilctl codes CODE` tells more."""
    unknown = "a code that this version does not know" if code < 0 else \
        "the push server refused; this is its own return code"
    return _MEANINGS.get(code, unknown)


@dataclasses.dataclass(frozen=True)
class Result:
    """The outcome of something: a Code or a number above 0, and a sentence for people, empty on success."""
    code: int = 0
    words: str = ""

    def __post_init__(self) -> None:
        if self.code in _CODES:
            object.__setattr__(self, "code", Code(self.code))

    @property
    def ok(self) -> bool:
        return self.code == 0


class Error(Exception):
    """What a method raises that cannot do what it was asked for."""

    def __init__(self, result: Result) -> None:
        super().__init__(result.words)
        self.code = result.code
        self.words = result.words


def _result_of(code: int) -> Result:
    return Result(int(code), "" if code == 0 else meaning(code))


_OK = Result()


# ---- Pushes

class Answer(enum.Enum):
    """What becomes of a push whose sender waits; without effect when nobody waits.

    ACCEPT  The sender gets its acknowledgement.
    REJECT  The sender's connection is closed without a byte.
    LATER   The application will call accept() or reject() with the push's id itself; the sender waits till then."""
    ACCEPT = 1
    REJECT = 2
    LATER = 3


@dataclasses.dataclass(frozen=True)
class Push:
    """One push.

    id            As on the wire: it mostly begins with a blank. Bytes that are not UTF-8 are kept (surrogateescape).
    headers       Names and values in the order of arrival, equal names included, blanks kept. Bytes that are not UTF-8
                  have become U+FFFD on the way, those of an id in a header too: take it from `id`.
    data          The bytes that the sender sent. Fewer than the header Content-Length says: the push came short.
    sender_waits  Whether the sender keeps its connection open for accept() or reject().
    is_duplicate  Whether a push with this id was handed over before (of the last 1024)."""
    id: str
    headers: List[Tuple[str, str]]
    data: bytes
    sender_waits: bool
    is_duplicate: bool


# ---- The text of requests and answers. Nothing here touches a descriptor.

# The longest request text. The agent reads 8192 bytes at once, the line "@ipc.CONNECTION" in front included, and discards
# what goes beyond.
_MAX_REQUEST_BYTES = 8192 - 32

_CREATE_SESSION = "createSession"
_QUERY_CHANNEL = "queryChannel"
_CREATE_CHANNEL = "createChannel"
_DESTROY_CHANNEL = "destroyChannel"
_REGISTER_TO_LAUNCH = "registerToLaunch"
_UNREGISTER_FROM_LAUNCH = "unregisterFromLaunch"
_ACCEPT_PUSH = "acceptPush"
_REJECT_PUSH = "rejectPush"

# "msg" of the reply to each request that is answered.
_REPLY_NAMES = {_CREATE_SESSION: "onCreateSessionComplete", _QUERY_CHANNEL: "onQueryChannelComplete",
                _CREATE_CHANNEL: "onCreateChannelComplete", _DESTROY_CHANNEL: "onDestroyChannelComplete",
                _REGISTER_TO_LAUNCH: "", _UNREGISTER_FROM_LAUNCH: ""}
_REQUEST_NAMES = frozenset(_REPLY_NAMES) | {_ACCEPT_PUSH, _REJECT_PUSH}
_ARGUMENT_NAMES = {_CREATE_CHANNEL: "ppgUrl", _REGISTER_TO_LAUNCH: "launchString"}

_NEEDS_ESCAPE = re.compile(rb"[\x00-\x1f\x7f\\]")
_ESCAPE = re.compile(rb"\\(x[0-9a-fA-F]{1,2}|[0-7]{1,3}|.)", re.DOTALL)
_SIMPLE_ESCAPES = {b"a": b"\a", b"b": b"\b", b"f": b"\f", b"n": b"\n", b"r": b"\r", b"t": b"\t", b"v": b"\v"}


def _unescape(text: bytes) -> bytes:
    def replacement(match: re.Match[bytes]) -> bytes:
        escape = match.group(1)
        if escape[:1] == b"x" and len(escape) > 1:
            return bytes([int(escape[1:], 16)])
        if escape.isdigit() and escape < b"8":
            return bytes([int(escape, 8) & 255])
        return _SIMPLE_ESCAPES.get(escape, escape)
    return _ESCAPE.sub(replacement, text)


def _bad_argument(words: str) -> Error:
    return Error(Result(Code.BAD_ARGUMENT, words))


def _encode_request(name: str, app_id: str, argument: str, request_id: str) -> bytes:
    """The text of a request. Of "acceptPush" and "rejectPush" the argument is the push's id, in the place of the
    request's. Raises Error when the agent could not take it as meant."""
    is_about_push = name in (_ACCEPT_PUSH, _REJECT_PUSH)
    parts = [("the application id", "providerApplicationId", app_id)]
    if name in _ARGUMENT_NAMES:
        parts.append((_ARGUMENT_NAMES[name], _ARGUMENT_NAMES[name], argument))
    if is_about_push and not argument:
        raise _bad_argument("the push id is empty")
    for what, _, value in parts:
        if not value:
            raise _bad_argument(f"{what} is empty")
        try:
            value.encode()
        except UnicodeEncodeError:
            raise _bad_argument(f"{what} is not valid UTF-8") from None
    try:
        encoded_id = (argument if is_about_push else request_id).encode("utf-8", "surrogateescape")
    except UnicodeEncodeError:
        raise _bad_argument("the push id is no text that came from a push") from None
    encoding = b""
    if _NEEDS_ESCAPE.search(encoded_id):
        encoding = b"c"
        encoded_id = _NEEDS_ESCAPE.sub(lambda match: b"\\%03o" % match.group()[0], encoded_id)
    dat = json.dumps({key: value for _, key, value in parts}, ensure_ascii=False, separators=(",", ":"))
    text = b"msg::%s\nid:%s:%s\ndat:json:%s\n" % (name.encode(), encoding, encoded_id, dat.encode())
    if len(text) > _MAX_REQUEST_BYTES:
        raise _bad_argument(f"the request has {len(text)} bytes; the agent takes {_MAX_REQUEST_BYTES}")
    return text


class _Incoming:
    """One message of the agent."""

    def __init__(self, text: bytes) -> None:
        self.damage = ""  # what is wrong with the message, empty when it is sound
        self._attributes: Dict[str, Any] = {}
        for line in text.split(b"\n"):  # splitlines() would cut at more than line feeds
            if line[:1] not in (b"@", b"-", b""):
                self._read_line(line)
        dat = self._attributes.get("dat")
        self.dat: Dict[str, Any] = dict(dat) if isinstance(dat, tuple) else {}
        self.message = self._text("msg")  # empty in the answers about launch strings
        self.id = self._text("id")  # request id, or push id
        error = self._attributes.get("err", 0)
        self.error: int = error if isinstance(error, int) else 0

    def _read_line(self, line: bytes) -> None:
        try:
            name, encoding, value = line.split(b":", 2)
            read = {b"": bytes, b"c": _unescape, b"n": int, b"b": bytes, b"json": self._read_json}[encoding](value)
        except (ValueError, KeyError, RecursionError):
            self.damage = "a message of the agent is damaged"
            return
        if isinstance(read, bytes):
            read = read.decode("utf-8", "surrogateescape")
        self._attributes[name.decode("utf-8", "surrogateescape")] = read

    @staticmethod
    def _read_json(value: bytes) -> Any:
        """Objects come as tuples of pairs: headers may have equal names."""
        return json.loads(value.decode("utf-8", "surrogateescape"), object_pairs_hook=tuple)

    def _text(self, name: str) -> str:
        value = self._attributes.get(name, "")
        return value if isinstance(value, str) else ""

    @property
    def token(self) -> str:
        token = self.dat.get("token", "")
        return token if isinstance(token, str) else ""

    def is_reply_to(self, name: str) -> bool:
        """The name "onSimChange" belongs to "destroyChannel" too, where the session is still that of another SIM."""
        return self.message == _REPLY_NAMES[name] or (name == _DESTROY_CHANNEL and self.message == "onSimChange")

    @property
    def sender_waits(self) -> bool:
        return self.dat.get("appLevelAck") == 1

    def headers(self) -> List[Tuple[str, str]]:
        headers = self.dat.get("httpHeaders", ())
        if not isinstance(headers, tuple):
            return []
        return [(name, value if isinstance(value, str) else json.dumps(value)) for name, value in headers
                if not isinstance(value, (tuple, list))]

    def data(self) -> Optional[bytes]:
        """The bytes that were sent; None when they cannot be read, to the last bit."""
        encoded = self.dat.get("data")
        try:
            data = base64.b64decode(encoded, validate=True)
        except (TypeError, ValueError, binascii.Error):
            return None
        return data if base64.b64encode(data).decode() == encoded else None


class _Splitter:
    """Cuts whole messages out of a stream of text. A message begins with a line "@name"; attribute lines never begin so.
    The line "-@name" says that the server went away."""

    _NEXT = re.compile(rb"\n(?=-?@)")

    def __init__(self) -> None:
        self.text = b""

    def take(self, is_drained: bool) -> Tuple[List[bytes], bool]:
        """The messages that are complete, and whether they are still served. When nothing more was there to read, the
        last one counts as complete too."""
        messages = self._NEXT.split(self.text)
        self.text = messages.pop()
        if self.text.endswith(b"\n") and (is_drained or self.text.startswith(b"-@")):
            messages.append(self.text)
            self.text = b""
        for number, message in enumerate(messages):
            if message.startswith(b"-@"):
                return messages[:number], False
        return messages, True


# ---- The connection to the agent

class _Connection:
    """One descriptor, messages out and messages in. Never blocks. The object is opened with "?wait" and O_NONBLOCK: a
    read with nothing to give then says EAGAIN, so that no bytes have one meaning only, the end."""

    _MAX_BACKLOG = 256  # messages
    _MAX_HELD_BYTES = 1 << 20  # of a message that does not end
    _READ_BYTES = 64 * 1024
    _MAX_READS = 64  # at once, so that a flood does not starve the caller

    def __init__(self, opener: Optional[Callable[[], int]]) -> None:
        self._opener = opener
        self.descriptor = -1
        self._splitter = _Splitter()
        self.backlog: Deque[bytes] = collections.deque()

    @property
    def is_open(self) -> bool:
        return self.descriptor >= 0

    def open(self) -> Result:
        self.close()
        try:
            if self._opener is not None:
                self.descriptor = self._opener()
            else:
                path = _platform_path("/pps/services/push/ipc") + "?wait"
                self.descriptor = os.open(path, os.O_RDWR | os.O_NONBLOCK | os.O_CLOEXEC)
        except OSError as error:
            return _open_failure(error)
        return _OK

    def close(self) -> None:
        descriptor, self.descriptor = self.descriptor, -1
        if descriptor >= 0:
            try:
                os.close(descriptor)
            except OSError:
                pass  # it is gone all the same
        self._splitter = _Splitter()
        self.backlog.clear()

    def receive(self) -> Tuple[List[bytes], Result]:
        """The messages that are there, also those that came before an end."""
        chunks = [self._splitter.text]
        is_drained = False
        result = _OK
        for _ in range(self._MAX_READS):
            try:
                chunk = os.read(self.descriptor, self._READ_BYTES)
            except BlockingIOError:
                is_drained = True
                break
            except OSError as error:
                result = _lost(error)
                break
            if not chunk:
                result = _result_of(Code.CONNECTION_LOST)
                break
            chunks.append(chunk)
        self._splitter.text = b"".join(chunks)
        messages, is_served = self._splitter.take(is_drained or not result.ok)
        if result.ok and not is_served:
            result = _result_of(Code.CONNECTION_LOST)
        if result.ok and len(self._splitter.text) > self._MAX_HELD_BYTES:
            result = Result(Code.CONNECTION_LOST, "the agent sent a message without an end")
        return messages, result

    def send(self, message: bytes) -> Result:
        """Sends one message, or keeps it while the agent's queue is full."""
        if len(self.backlog) >= self._MAX_BACKLOG:
            return _result_of(Code.QUEUE_FULL)
        self.backlog.append(message)
        return self.flush()

    def flush(self) -> Result:
        while self.backlog:
            try:
                count = os.write(self.descriptor, self.backlog[0])
            except OSError as error:
                return _OK if error.errno in (errno.EAGAIN, errno.ENOBUFS) else _lost(error)
            message = self.backlog.popleft()
            if count != len(message):
                return Result(Code.CONNECTION_LOST, "a request was sent in part only")
        return _OK


def _platform_path(path: str) -> str:
    return os.environ.get("QUIL_ROOT", "").rstrip("/") + path


def _lost(error: OSError) -> Result:
    return Result(Code.CONNECTION_LOST, f"{meaning(Code.CONNECTION_LOST)}: {error.strerror}")


def _open_failure(error: OSError) -> Result:
    if error.errno in (errno.ENOENT, errno.ENOTDIR):
        is_mounted = os.path.ismount(_platform_path("/pps"))
        return _result_of(Code.NO_AGENT if is_mounted else Code.NO_OBJECT_SERVICE)
    if error.errno in (errno.ENOTCONN, errno.ECONNABORTED, errno.EIO, errno.ENODEV, errno.ESTALE):
        return Result(Code.NO_OBJECT_SERVICE, "the object service died and left a dead mount on /pps")
    if error.errno in (errno.EACCES, errno.EPERM):
        return _result_of(Code.NO_PERMISSION)
    return Result(Code.SYSTEM_ERROR, f"cannot open /pps/services/push/ipc: {error.strerror}")


# ---- The client

class _Backoff:
    """A pause that doubles with every failure, up to a bound."""

    def __init__(self, first: float, longest: float) -> None:
        self._first = max(first, 0.001)
        self._longest = max(longest, self._first)
        self._last = 0.0

    def next(self) -> float:
        self._last = min(self._last * 2, self._longest) if self._last else self._first
        return self._last

    def reset(self) -> None:
        self._last = 0.0


class _Phase(enum.Enum):
    """How far the client is on its way to a channel."""
    AWAY = 1
    SESSION = 2  # asked for
    QUERY = 3  # the session stands; asked how the channel does
    WAITING = 4  # one has to be made, but what waits on the port of another from before is taken first
    CHANNEL = 5  # asked for
    READY = 6
    NO_CHANNEL = 7  # and none is wanted
    RETRY = 8


_FULL_QUEUE_PAUSE = 0.05  # seconds until a full queue of the agent is tried again
_QUERY_TIMEOUT = 2.0  # seconds, for an answer that comes at once or, from an agent that does not know the request, never
_LONGEST_WAIT = 60.0  # seconds, of one poll
_MAX_RECENT_IDS = 1024


class PushClient:
    """Keeps one application's session and channel alive, and calls its handlers. Any of these may be left out; each may
    call every method of its client but run(), dispatch() and close().

    on_push(push)             A push arrived; gives an Answer. Left out, pushes are rejected; so is one whose handler
                              raises.
    on_channel(result, token) The channel stands (ok, with the token that the agent gave): it was created, or still there
                              on a new connection. Or it could not be created (the reason; the client tries again by
                              itself).
    on_connection(result)     The agent answered on a new connection (ok), or the connection was lost or refused (the
                              reason). Not repeated while the reason stays the same; the client goes on trying.
    on_sim_change()           The device has another SIM than the one that channels were created with, so the agent tore
                              them down, whichever application's. If this client's channel stood, it is created anew.
    on_launch(result)         How set_launch_string() or clear_launch_string() ended.
    on_channel_destroyed(result)  How destroy_channel() ended.
    on_notice(text)           Something came that cannot be right, or the answer to a push could not be handed to the
                              agent any more, so that its sender does not get it; for a log.

    All times are in seconds:

    request_timeout  The longest that a request may go unanswered. What an application asks for waits behind its own
                     registration, which takes two HTTP requests of up to a minute each.
    quiet_time       How long no push may have come before a channel that listens for another push server is replaced, or
                     one of which the agent cannot tell (it is from before there was the question): pushes may wait on its
                     port, which the new one closes. A channel that stands for this push server is kept, and where none
                     listens one is asked for at once.
    first_reconnect, longest_reconnect          Pause between attempts to reach the agent; doubles from first to longest.
    first_channel_retry, longest_channel_retry  Pause before a channel that was not created is asked for again.

    open             How to open the connection, for applications that may not open files themselves: gives a non-blocking
                     descriptor, which the client then owns, or raises OSError. On it each write is one message, and reads
                     give whole messages. Left out: opens /pps/services/push/ipc below QUIL_ROOT.

    Raises Error for an application id or a URL that cannot work."""

    def __init__(self, app_id: str, ppg_url: str, *,
                 on_push: Optional[Callable[[Push], Answer]] = None,
                 on_channel: Optional[Callable[[Result, str], object]] = None,
                 on_connection: Optional[Callable[[Result], object]] = None,
                 on_sim_change: Optional[Callable[[], object]] = None,
                 on_launch: Optional[Callable[[Result], object]] = None,
                 on_channel_destroyed: Optional[Callable[[Result], object]] = None,
                 on_notice: Optional[Callable[[str], object]] = None,
                 request_timeout: float = 150.0, quiet_time: float = 1.0,
                 first_reconnect: float = 0.1, longest_reconnect: float = 5.0,
                 first_channel_retry: float = 1.0, longest_channel_retry: float = 300.0,
                 open: Optional[Callable[[], int]] = None) -> None:
        _encode_request(_CREATE_CHANNEL, app_id, ppg_url, "18446744073709551615")
        self._app_id = app_id
        self._ppg_url = ppg_url
        self._on_push = on_push
        self._on_channel = on_channel
        self._on_connection = on_connection
        self._on_sim_change = on_sim_change
        self._on_launch = on_launch
        self._on_channel_destroyed = on_channel_destroyed
        self._on_notice = on_notice
        self._request_timeout = request_timeout
        self._quiet_time = quiet_time
        self._reconnect = _Backoff(first_reconnect, longest_reconnect)
        self._channel_retry = _Backoff(first_channel_retry, longest_channel_retry)

        self._is_stopped = False
        self._epoll = select.epoll()  # watches the connection, and what stop() writes to
        self._wake_in, self._wake_out = socket.socketpair()
        self._wake_in.setblocking(False)
        self._wake_out.setblocking(False)
        self._epoll.register(self._wake_in, select.EPOLLIN)

        self._connection = _Connection(open)
        self._inbox: Deque[bytes] = collections.deque()  # messages that were read and not handled yet
        self._phase = _Phase.AWAY
        self._wants_channel = True
        self._is_destroy_due = False  # destroy_channel() waits for the end of a createChannel
        self._due: Optional[float] = time.monotonic()  # when the line of life goes on (WAITING) or begins anew
        self._quiet_until = 0.0  # no channel is asked for before; moves with every push
        self._lost: Optional[Result] = None  # the connection broke
        self._last_connection_code: Optional[int] = None  # last told to on_connection
        self._failure: Optional[BaseException] = None  # of a handler, during this dispatch()
        self._last_request_id = 0
        self._pending: Dict[str, Tuple[str, float]] = {}  # by request id: request name, deadline
        self._launch_wish: Optional[str] = None  # "" means: none
        self._recent_ids: Dict[str, None] = {}  # of the last pushes, oldest first

    def __enter__(self) -> PushClient:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        """Closes all descriptors. The channel stays: pushes that come now are lost to the application."""
        self._connection.close()
        self._epoll.close()
        self._wake_in.close()
        self._wake_out.close()

    # -- The loop

    def run(self) -> None:
        """Connects, creates the session, sees to it that a channel stands, and handles what comes until stop(). May be
        called again and then goes on where it stopped."""
        while not self._is_stopped:
            self.dispatch()
            if not self._is_stopped:
                self._epoll.poll(min(self.until_due(), _LONGEST_WAIT))
        self._is_stopped = False

    def stop(self) -> None:
        """Makes run() return. Safe on any thread and in a signal handler. When nothing runs, the next run() returns at
        once."""
        self._is_stopped = True
        try:
            self._wake_out.send(b"x")
        except OSError:
            pass  # full, which wakes as well, or closed

    def fileno(self) -> int:
        """One descriptor for the life of this client, readable when dispatch() has something to do."""
        return self._epoll.fileno()

    def until_due(self) -> float:
        """How many seconds until dispatch() has to be called even when the descriptor stays silent; 0 when it is due now,
        math.inf when nothing is due."""
        if self._lost is not None or self._inbox:
            return 0.0
        times = [deadline for _, deadline in self._pending.values()]
        if self._due is not None:
            times.append(self._due)
        if self._connection.backlog:
            times.append(time.monotonic() + _FULL_QUEUE_PAUSE)
        return max(min(times) - time.monotonic(), 0.0) if times else math.inf

    def dispatch(self) -> None:
        """Does all that can be done without waiting."""
        try:
            self._wake_in.recv(4096)
        except BlockingIOError:
            pass
        if self._connection.is_open and self._lost is None:
            messages, result = self._connection.receive()
            self._inbox.extend(messages)
            if not result.ok:
                self._lost = result
        while self._inbox:
            self._handle_message(_Incoming(self._inbox.popleft()))
        if self._connection.is_open and self._lost is None:
            flushed = self._connection.flush()
            if not flushed.ok:
                self._lost = flushed
        self._expire_pending()
        self._step_due()
        if self._lost is not None:
            lost, self._lost = self._lost, None
            self._disconnect(lost)
        failure, self._failure = self._failure, None
        if failure is not None:
            raise failure

    def _step_due(self) -> None:
        if self._lost is not None or self._due is None or time.monotonic() < self._due:
            return
        self._due = None
        if not self._connection.is_open:
            self._connect()
        elif self._phase is _Phase.WAITING:
            self._ask_for_channel()
        else:
            self._phase = _Phase.SESSION
            self._ask(_CREATE_SESSION)

    # -- Connecting

    def _connect(self) -> None:
        result = self._connection.open()
        if result.ok:
            try:
                self._epoll.register(self._connection.descriptor, select.EPOLLIN)
            except OSError as error:
                result = Result(Code.SYSTEM_ERROR, f"cannot watch a descriptor: {error.strerror}")
        if not result.ok:
            self._disconnect(result)
            return
        # Told once the agent has answered: that something can be opened there proves no agent.
        self._phase = _Phase.SESSION
        self._ask(_CREATE_SESSION)

    def _disconnect(self, reason: Result) -> None:
        if self._connection.is_open:
            try:  # a child process that holds a copy would keep it in the set
                self._epoll.unregister(self._connection.descriptor)
            except OSError:
                pass  # it was never there
        self._connection.close()
        self._phase = _Phase.AWAY
        self._due = time.monotonic() + self._reconnect.next()
        was_destroying = self._is_pending(_DESTROY_CHANNEL) or self._is_destroy_due
        self._is_destroy_due = False
        self._pending.clear()
        self._tell_connection(reason)
        if was_destroying:
            self._call(self._on_channel_destroyed, reason)

    def _tell_connection(self, result: Result) -> None:
        if result.code != self._last_connection_code:
            self._last_connection_code = result.code
            self._call(self._on_connection, result)

    # -- Requests

    def _request(self, name: str, argument: str = "") -> Result:
        if not self._connection.is_open or self._lost is not None:
            return _result_of(Code.NOT_CONNECTED)
        self._last_request_id += 1
        request_id = str(self._last_request_id)
        try:
            text = _encode_request(name, self._app_id, argument, request_id)
        except Error as error:
            return Result(error.code, error.words)
        result = self._connection.send(text)
        if result.ok and name in _REPLY_NAMES:
            timeout = min(self._request_timeout, _QUERY_TIMEOUT) if name == _QUERY_CHANNEL else self._request_timeout
            self._pending[request_id] = (name, time.monotonic() + max(timeout, 0.001))
        if result.code == Code.CONNECTION_LOST:
            self._lost = result
        return result

    def _ask(self, name: str, argument: str = "") -> None:
        """A request of the client's own making, whose failure takes the usual way of its outcome."""
        result = self._request(name, argument)
        if not result.ok and self._lost is None:
            self._handle_outcome(name, result, None)

    def _is_pending(self, name: str) -> bool:
        return any(pending == name for pending, _ in self._pending.values())

    def _has_session(self) -> bool:
        return self._phase in (_Phase.QUERY, _Phase.WAITING, _Phase.CHANNEL, _Phase.READY, _Phase.NO_CHANNEL)

    def _look_for_channel(self) -> None:
        self._phase = _Phase.QUERY
        self._ask(_QUERY_CHANNEL)

    def _ask_for_channel(self) -> None:
        self._phase = _Phase.CHANNEL
        self._ask(_CREATE_CHANNEL, self._ppg_url)

    def _ask_for_channel_when_quiet(self) -> None:
        self._phase = _Phase.WAITING
        self._due = self._quiet_until

    def _retry_channel(self, reason: Result) -> None:
        self._phase = _Phase.RETRY
        self._due = time.monotonic() + self._channel_retry.next()
        self._call(self._on_channel, reason, "")

    def _apply_launch_wish(self) -> None:
        if self._launch_wish is not None:
            self._ask(_REGISTER_TO_LAUNCH if self._launch_wish else _UNREGISTER_FROM_LAUNCH, self._launch_wish)

    def _expire_pending(self) -> None:
        now = time.monotonic()
        for request_id, (name, deadline) in list(self._pending.items()):
            if now >= deadline and self._pending.pop(request_id, None) is not None:
                self._handle_outcome(name, _result_of(Code.TIMED_OUT), None)

    # -- What comes

    def _handle_message(self, incoming: _Incoming) -> None:
        if incoming.damage and incoming.message != "pushNotification":
            self._notice(incoming.damage)
        if incoming.message in _REQUEST_NAMES:
            # No agent sends a request: it comes back from an ordinary object in the place of the one that is served.
            self._lost = _result_of(Code.OBJECT_IN_THE_WAY)
        elif incoming.message == "pushNotification":
            self._handle_push(incoming)
            # Only now: the time that the application took for it is no quiet.
            self._quiet_until = time.monotonic() + self._quiet_time
            if self._phase is _Phase.WAITING:
                self._due = self._quiet_until
        elif incoming.message == "onSimChange":
            self._handle_sim_change()
            if incoming.id:
                self._handle_reply(incoming)
        else:
            self._handle_reply(incoming)

    def _handle_reply(self, incoming: _Incoming) -> None:
        name, _ = self._pending.get(incoming.id, ("", 0.0))
        if not name or not incoming.is_reply_to(name):
            self._notice(f"an answer to no open request came: msg '{incoming.message}', id '{incoming.id}', "
                         f"err {incoming.error}")
            return
        del self._pending[incoming.id]
        if name == _CREATE_SESSION:
            self._tell_connection(_OK)
        outcome = _result_of(incoming.error)
        if outcome.ok and name == _CREATE_CHANNEL and not incoming.token:
            outcome = _result_of(Code.EMPTY_TOKEN)
        self._handle_outcome(name, outcome, incoming)

    def _handle_outcome(self, name: str, outcome: Result, reply: Optional[_Incoming]) -> None:
        if name == _CREATE_SESSION:
            self._handle_session_outcome(outcome)
        elif name == _QUERY_CHANNEL:
            self._handle_query_outcome(outcome, reply)
        elif name == _CREATE_CHANNEL:
            self._handle_channel_outcome(outcome, reply)
        elif name == _DESTROY_CHANNEL:
            self._call(self._on_channel_destroyed, outcome)
            if self._wants_channel and self._phase is _Phase.NO_CHANNEL:
                self._ask_for_channel_when_quiet()
        else:
            self._call(self._on_launch, outcome)

    def _handle_session_outcome(self, outcome: Result) -> None:
        if not outcome.ok:
            self._retry_channel(outcome)
            return
        self._reconnect.reset()
        self._quiet_until = time.monotonic() + self._quiet_time
        self._phase = _Phase.NO_CHANNEL
        if self._wants_channel:
            self._look_for_channel()
        self._apply_launch_wish()

    def _handle_query_outcome(self, outcome: Result, reply: Optional[_Incoming]) -> None:
        if self._phase is not _Phase.QUERY:
            return  # the SIM was changed meanwhile, or the channel is to be destroyed
        if reply is None or not outcome.ok:
            self._ask_for_channel_when_quiet()
        elif reply.dat.get("listening") != 1:
            self._ask_for_channel()  # nothing waits anywhere
        elif reply.dat.get("registered") == 1 and reply.dat.get("ppgUrl") == self._ppg_url:
            self._tell_channel(reply.token)
        else:
            self._ask_for_channel_when_quiet()

    def _handle_channel_outcome(self, outcome: Result, reply: Optional[_Incoming]) -> None:
        if self._is_destroy_due:
            self._is_destroy_due = False
            self._phase = _Phase.NO_CHANNEL
            if outcome.code == Code.EMPTY_TOKEN:
                self._call(self._on_channel_destroyed, _OK)
            else:
                self._ask(_DESTROY_CHANNEL)
        elif not outcome.ok or reply is None:
            self._retry_channel(outcome)
        else:
            self._tell_channel(reply.token)

    def _tell_channel(self, token: str) -> None:
        self._channel_retry.reset()
        self._phase = _Phase.READY
        self._call(self._on_channel, _OK, token)

    def _handle_push(self, incoming: _Incoming) -> None:
        data = incoming.data()
        if data is None or incoming.damage:
            # Nobody will ever answer what the application never saw.
            self._notice(f"push '{incoming.id}' came without readable data")
            if incoming.sender_waits:
                self._request(_REJECT_PUSH, incoming.id)
            return
        push = Push(incoming.id, incoming.headers(), data, incoming.sender_waits, self._is_known(incoming.id))
        answer = Answer.REJECT
        if self._on_push is not None:
            answer = self._call(self._on_push, push) or Answer.REJECT
        if not push.sender_waits or answer is Answer.LATER:
            return
        result = self._request(_ACCEPT_PUSH if answer is Answer.ACCEPT else _REJECT_PUSH, push.id)
        if not result.ok:
            self._notice(f"push '{push.id}' could not be answered: {result.words}")

    def _is_known(self, push_id: str) -> bool:
        """Remembers the id of a push; True when it was known already."""
        if push_id in self._recent_ids:
            return True
        self._recent_ids[push_id] = None
        if len(self._recent_ids) > _MAX_RECENT_IDS:
            del self._recent_ids[next(iter(self._recent_ids))]
        return False

    def _handle_sim_change(self) -> None:
        was_ready = self._phase is _Phase.READY
        if self._phase is _Phase.QUERY:
            self._ask_for_channel_when_quiet()  # the answer may be older than the change
        self._call(self._on_sim_change)
        if was_ready and self._phase is _Phase.READY:
            self._ask_for_channel()

    def _notice(self, text: str) -> None:
        self._call(self._on_notice, text)

    def _call(self, handler: Optional[Callable[..., Any]], *arguments: Any) -> Any:
        """Calls a handler. What it raises is kept for the end of dispatch(); of several the last, with the others as its
        context."""
        if handler is None:
            return None
        try:
            answer = handler(*arguments)
            if handler is self._on_push and not isinstance(answer, Answer):
                raise TypeError(f"on_push has to give an Answer, not {answer!r}")
            return answer
        except BaseException as raised:
            if self._failure is not None and self._failure is not raised:
                raised.__context__ = self._failure
            self._failure = raised
            return None

    # -- What the application asks for

    def accept(self, push_id: str) -> None:
        """Answers the sender that waits for a push. The agent confirms neither this nor reject(), and knows nothing any
        more of pushes from before its restart. Raises Error when the answer cannot be sent."""
        _raise_unless_ok(self._request(_ACCEPT_PUSH, push_id))

    def reject(self, push_id: str) -> None:
        """Closes the connection of the sender that waits for a push. Errors as of accept()."""
        _raise_unless_ok(self._request(_REJECT_PUSH, push_id))

    def set_launch_string(self, launch_string: str) -> None:
        """Sets the string that tells the system what to launch for a push when the application does not run. The agent
        keeps it; this client sets it again with every new session. It may be called at any time; the end is told to
        on_launch. Raises Error for an empty or too long string."""
        _encode_request(_REGISTER_TO_LAUNCH, self._app_id, launch_string, "18446744073709551615")
        self._wish_launch(launch_string)

    def clear_launch_string(self) -> None:
        """Takes the launch string back."""
        self._wish_launch("")

    def _wish_launch(self, launch_string: str) -> None:
        self._launch_wish = launch_string
        if self._has_session():
            self._apply_launch_wish()

    def destroy_channel(self) -> None:
        """Takes the channel down: no more pushes, and no new channel after a reconnect. The end is told to
        on_channel_destroyed. Raises Error (NOT_CONNECTED) when there is no agent to ask."""
        # The agent works off a destroyChannel in two steps, with room for other requests between them. Sent while a
        # createChannel is under way, or followed by one at once, they would undo each other in the wrong order; so each
        # waits for the other's answer.
        if self._phase in (_Phase.AWAY, _Phase.SESSION, _Phase.NO_CHANNEL):
            raise Error(_result_of(Code.NOT_CONNECTED))
        self._wants_channel = False
        if self._is_pending(_CREATE_CHANNEL):
            self._is_destroy_due = True
            return
        self._phase = _Phase.NO_CHANNEL
        self._due = None
        _raise_unless_ok(self._request(_DESTROY_CHANNEL))

    def create_channel(self) -> None:
        """Asks for a channel again after destroy_channel()."""
        self._wants_channel = True
        if self._phase is not _Phase.NO_CHANNEL or self._is_pending(_DESTROY_CHANNEL):
            return  # the line of life, or the answer to destroyChannel, leads there by itself
        if not self._connection.is_open or self._lost is not None:
            raise Error(_result_of(Code.NOT_CONNECTED))
        # Not believing one that the agent still has: it was to be destroyed, and may be at the push server.
        self._ask_for_channel_when_quiet()

    @property
    def is_ready(self) -> bool:
        """True while session and channel stand."""
        return self._phase is _Phase.READY

    @property
    def has_unsent(self) -> bool:
        """True while requests and answers wait here for room in the queue of an agent that is busy; dispatch() hands them
        over. What still waits when the client is closed is never sent."""
        return bool(self._connection.backlog)


def _raise_unless_ok(result: Result) -> None:
    if not result.ok:
        raise Error(result)
