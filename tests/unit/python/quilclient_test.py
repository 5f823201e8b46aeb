#!/usr/bin/env python3
"""The life of a client in Python against a fake agent: what it asks for, in which order, and what it tells the
application.

QUIL_SOURCE is the source folder (default: the checkout that this file is in), QUIL_BIN that of the built programs.
"""

import json
import math
import os
import re
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

SOURCE = os.environ.get("QUIL_SOURCE") or os.path.join(os.path.dirname(os.path.realpath(__file__)), "../../..")
sys.dont_write_bytecode = True
sys.path.insert(0, os.path.join(SOURCE, "python"))

import quilclient  # noqa: E402: the path comes first
from quilclient import Answer, Code, Error  # noqa: E402

URL = "http://ppg"


class FakeAgent:
    """The agent's end of the push object: every open gives a pair of sockets that keep message bounds, as the object
    service does. No threads: a test drives the client and the fake in turn."""

    def __init__(self):
        self.end = None
        self.opens = 0
        self.open_error = 0
        self.last_text = b""

    def open(self):
        self.opens += 1
        if self.open_error:
            raise OSError(self.open_error, os.strerror(self.open_error))
        mine, theirs = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.hang_up()
        mine.setblocking(False)
        theirs.setblocking(False)
        self.end = mine
        return theirs.detach()

    def hang_up(self):
        if self.end is not None:
            self.end.close()
        self.end = None

    def take(self):
        """What the client wrote, oldest first, as a dict; an empty one when there is nothing."""
        try:
            self.last_text = self.end.recv(16384) if self.end is not None else b""
        except BlockingIOError:
            return {}
        request = {}
        lines = self.last_text.decode("utf-8", "surrogateescape").split("\n")
        for line in filter(None, lines):
            name, encoding, value = line.split(":", 2)
            if encoding == "json":
                request.update(json.loads(value))
            else:
                request[name] = value if not encoding else f"{encoding}:{value}"
        return request

    def send(self, text):
        self.end.send(text if isinstance(text, bytes) else text.encode())

    def reply(self, msg, request_id, more=""):
        self.send("@ipc\n" + (f"msg::{msg}\n" if msg else "") + f"id::{request_id}\n{more}")

    def push(self, push_id, data="", waits=False, headers=""):
        headers = f',"httpHeaders":{{{headers}}}' if headers else ""
        self.reply("pushNotification", push_id,
                   f'dat:json:{{"appLevelAck":{int(waits)},"data":"{data}"{headers}}}\n')

    def stands(self, query_id, registered=1, listening=1, url=URL, token="2a"):
        self.reply("onQueryChannelComplete", query_id,
                   f'dat:json:{{"registered":{registered},"listening":{listening},"port":24010,"token":"{token}",'
                   f'"ppgUrl":"{url}"}}\n')


class ClientTest(unittest.TestCase):
    def setUp(self):
        self.agent = FakeAgent()
        self.addCleanup(self.agent.hang_up)
        self.pushes = []
        self.log = []
        self.answer = Answer.ACCEPT
        self.made = None
        self.configuration = dict(
            on_push=self.on_push,
            on_channel=lambda result, token: self.log.append(f"channel {result.code} {token}"),
            on_connection=lambda result: self.log.append(f"connection {result.code}"),
            on_sim_change=lambda: self.log.append("sim change"),
            on_launch=lambda result: self.log.append(f"launch {result.code}"),
            on_channel_destroyed=lambda result: self.log.append(f"destroyed {result.code}"),
            on_notice=self.log.append,
            request_timeout=10, quiet_time=0, first_reconnect=0.001, longest_reconnect=0.004,
            first_channel_retry=0.001, longest_channel_retry=0.004, open=self.agent.open)

    def on_push(self, push):
        self.pushes.append(push)
        return self.answer

    @property
    def client(self):
        if self.made is None:
            self.made = quilclient.PushClient("com.app", URL, **self.configuration)
            self.addCleanup(self.made.close)
        return self.made

    def drive(self, is_done):
        """Dispatches until `is_done`, as an event loop would; false after a few seconds."""
        deadline = time.monotonic() + 5
        while time.monotonic() < deadline:
            self.client.dispatch()
            if is_done():
                return True
            time.sleep(min(self.client.until_due(), 0.001))
        return False

    def next(self):
        """The next request that the client makes."""
        requests = []
        self.drive(lambda: requests.append(self.agent.take()) or requests[-1])
        return requests[-1]

    def expect_nothing_more(self):
        self.client.dispatch()
        self.assertEqual(self.agent.take(), {})

    def answer_session(self):
        """Answers what is asked for before a channel: there is none."""
        session = self.next()
        self.assertEqual(session["msg"], "createSession")
        self.agent.reply("onCreateSessionComplete", session["id"])
        query = self.next()
        self.assertEqual(query["msg"], "queryChannel")
        self.agent.stands(query["id"], registered=0, listening=0, token="")

    def make_ready(self):
        self.answer_session()
        channel = self.next()
        self.assertEqual(channel["msg"], "createChannel")
        self.agent.reply("onCreateChannelComplete", channel["id"], 'dat:json:{"token":"2a"}\n')
        self.assertTrue(self.drive(lambda: self.client.is_ready), self.log)
        self.log.clear()


class PythonClientComesToItsChannel(ClientTest):
    def test_SessionThenQueryThenChannel(self):
        session = self.next()
        self.assertEqual((session["msg"], session["providerApplicationId"]), ("createSession", "com.app"))
        self.expect_nothing_more()
        self.agent.reply("onCreateSessionComplete", session["id"])
        query = self.next()
        self.assertEqual((query["msg"], query["providerApplicationId"]), ("queryChannel", "com.app"))
        self.expect_nothing_more()
        self.agent.stands(query["id"], registered=0, listening=0, token="")
        channel = self.next()
        self.assertEqual((channel["msg"], channel["ppgUrl"]), ("createChannel", URL))
        self.assertFalse(self.client.is_ready)
        self.agent.reply("onCreateChannelComplete", channel["id"], 'dat:json:{"token":"2a"}\n')
        self.assertTrue(self.drive(lambda: self.client.is_ready))
        self.assertEqual(self.log, ["connection 0", "channel 0 2a"])

    def test_ChannelThatStandsIsTakenAsItIs(self):
        self.agent_answers_session()
        self.agent.stands(self.next()["id"])
        self.assertTrue(self.drive(lambda: self.client.is_ready))
        self.expect_nothing_more()
        self.assertEqual(self.log, ["connection 0", "channel 0 2a"])
        self.assertEqual(self.client.until_due(), math.inf)

    def agent_answers_session(self):
        self.agent.reply("onCreateSessionComplete", self.next()["id"])

    def test_ChannelThatIsNotTheOneIsAskedFor(self):
        for other in (dict(listening=0), dict(url="http://other"), dict(registered=0)):
            self.agent_answers_session()
            self.agent.stands(self.next()["id"], **other)
            self.assertEqual(self.next()["msg"], "createChannel", other)
            self.agent.hang_up()

    def test_AgentThatDoesNotKnowTheQueryIsAskedForTheChannel(self):
        self.agent_answers_session()
        self.assertEqual(self.next()["msg"], "queryChannel")
        self.assertTrue(1 < self.client.until_due() <= 2, "an answer comes at once or never")
        self.assertEqual(self.next()["msg"], "createChannel")
        self.assertEqual(self.log, ["connection 0"])

    def test_RefusedQueryLeadsToTheChannel(self):
        self.agent_answers_session()
        self.agent.reply("onQueryChannelComplete", self.next()["id"], "err:n:10100\n")
        self.assertEqual(self.next()["msg"], "createChannel")

    def test_ChannelIsAskedForOnceNoPushCameForAWhile(self):
        self.configuration["quiet_time"] = 0.1
        self.agent_answers_session()
        self.agent.stands(self.next()["id"], url="http://other")
        for i in range(3):
            start = time.monotonic()
            self.assertTrue(self.drive(lambda: time.monotonic() - start > 0.05))
            self.assertEqual(self.agent.take(), {}, "asked though a push came 50 ms ago")
            self.agent.push(str(i))
        start = time.monotonic()
        self.assertEqual(self.next()["msg"], "createChannel")
        self.assertGreaterEqual(time.monotonic() - start, 0.08)
        self.assertEqual(len(self.pushes), 3)

    def test_WhereNothingListensTheChannelIsAskedForAtOnce(self):
        self.configuration["quiet_time"] = 100
        self.answer_session()
        self.assertEqual(self.next()["msg"], "createChannel")

    def test_ChannelWithoutTokenIsReportedAndAskedForAgain(self):
        self.answer_session()
        self.agent.reply("onCreateChannelComplete", self.next()["id"], 'dat:json:{"token":""}\n')
        self.assertEqual(self.next()["msg"], "createSession")
        self.assertEqual(self.log, ["connection 0", "channel -5 "])

    def test_RefusedSessionIsReportedWithItsCode(self):
        self.agent.reply("onCreateSessionComplete", self.next()["id"], "err:n:500\n")
        self.assertEqual(self.next()["msg"], "createSession")
        self.assertEqual(self.log, ["connection 0", "channel 500 "])

    def test_UnansweredRequestTimesOutAndIsMadeAgain(self):
        self.configuration["request_timeout"] = 0.02
        first = self.next()
        second = self.next()
        self.assertEqual(second["msg"], "createSession")
        self.assertNotEqual(second["id"], first["id"])
        self.assertEqual(self.log, ["channel -3 "], "nobody who answered is no connection")

    def test_OwnRequestComingBackIsNoAgent(self):
        self.assertEqual(self.next()["msg"], "createSession")
        before = self.agent.opens
        self.agent.send(b"@ipc\n" + self.agent.last_text)
        self.assertTrue(self.drive(lambda: self.agent.opens > before))
        self.assertEqual(self.log, ["connection -12"])
        self.make_ready()

    def test_ConfigurationThatCannotWorkIsRefused(self):
        for app_id, url, words in (("", URL, "the application id is empty"), ("a", "", "ppgUrl is empty"),
                                   ("a\udcff", URL, "the application id is not valid UTF-8")):
            with self.assertRaises(Error) as caught:
                quilclient.PushClient(app_id, url)
            self.assertEqual((caught.exception.code, caught.exception.words), (Code.BAD_ARGUMENT, words))


class PythonClientComesBack(ClientTest):
    def test_WhenTheAgentGoesAwayAndComesBack(self):
        self.make_ready()
        self.agent.open_error = 6  # ENXIO
        self.agent.send("-@ipc\n")
        before = self.agent.opens
        self.assertTrue(self.drive(lambda: self.agent.opens >= before + 3))
        self.assertFalse(self.client.is_ready)
        self.assertEqual(self.log, ["connection -4", "connection -9"])
        self.agent.open_error = 0
        self.make_ready()

    def test_WhenTheDescriptorEnds(self):
        self.make_ready()
        descriptor = self.client.fileno()
        self.agent.hang_up()
        self.make_ready()
        self.assertEqual(self.client.fileno(), descriptor)

    def test_WithPausesThatDoubleUpToTheBound(self):
        self.configuration.update(first_reconnect=1, longest_reconnect=3)
        self.agent.open_error = 6
        self.client.dispatch()
        self.assertTrue(0.9 < self.client.until_due() <= 1)
        self.client.dispatch()
        self.assertEqual(self.agent.opens, 1)
        backoff = quilclient._Backoff(1, 3)
        self.assertEqual([backoff.next(), backoff.next(), backoff.next(), backoff.next()], [1, 2, 3, 3])

    def test_AndTellsOnceThatItMayNot(self):
        self.agent.open_error = 13  # EACCES
        self.assertTrue(self.drive(lambda: self.agent.opens >= 4))
        self.assertEqual(self.log, ["connection -7"])


class PythonClientTakesPushes(ClientTest):
    def test_HandsOverAPushAndAcceptsIt(self):
        self.make_ready()
        self.agent.push(" m1", "aGVsbG8=", True, '"A":" 1","A":" 2"')
        answer = self.next()
        self.assertEqual((answer["msg"], answer["id"], answer["providerApplicationId"]), ("acceptPush", " m1", "com.app"))
        self.assertEqual(self.pushes, [quilclient.Push(" m1", [("A", " 1"), ("A", " 2")], b"hello", True, False)])

    def test_BytesThatAreNoUtf8AreKeptAndGoBackAsTheyCame(self):
        self.make_ready()
        for push_id in (b"id:: \xff\xfe", b"id:c: \xff\\n\\\\\\177", "id::\u2028\x85".encode()):
            self.agent.send(b"@ipc\nmsg::pushNotification\n" + push_id +
                            b'\ndat:json:{"appLevelAck":1,"data":"AP8=","httpHeaders":{"A":"\xff","B":"\xe2\x80\xa8"}}\n')
            self.assertEqual(self.next()["msg"], "acceptPush")
            sent = [line for line in self.agent.last_text.split(b"\n") if line.startswith(b"id:")]
            self.assertEqual(sent, [push_id.replace(b"\\n", b"\\012").replace(b"\\\\", b"\\134")])
        self.assertEqual(self.pushes[1].id, " \udcff\n\\\x7f")
        self.assertEqual(self.pushes[0].headers, [("A", "\udcff"), ("B", "\u2028")])
        self.assertEqual(self.pushes[0].data, b"\0\xff")

    def test_RejectsWhatTheHandlerRejects(self):
        self.make_ready()
        self.answer = Answer.REJECT
        self.agent.push("m1", "", True)
        self.assertEqual(self.next()["msg"], "rejectPush")

    def test_RejectsPushesThatNobodyHandles(self):
        self.configuration["on_push"] = None
        self.make_ready()
        self.agent.push("m1", "", True)
        self.assertEqual(self.next()["msg"], "rejectPush")

    def test_AnswersNobodyWhoDoesNotWait(self):
        self.make_ready()
        self.agent.push("m1")
        self.assertTrue(self.drive(lambda: len(self.pushes) == 1))
        self.expect_nothing_more()

    def test_LaterAnswerIsTheApplications(self):
        self.make_ready()
        self.answer = Answer.LATER
        self.agent.push("m1", "", True)
        self.agent.push("m2", "", True)
        self.assertTrue(self.drive(lambda: len(self.pushes) == 2))
        self.expect_nothing_more()
        self.client.accept("m1")
        self.client.reject("m2")
        self.assertEqual([self.next()["msg"], self.next()["msg"]], ["acceptPush", "rejectPush"])

    def test_AnswerWithoutAConnectionIsRefused(self):
        with self.assertRaises(Error) as caught:
            self.client.accept("m1")
        self.assertEqual(caught.exception.code, Code.NOT_CONNECTED)

    def test_KnowsAPushThatCameBeforeAlsoAfterAReconnect(self):
        self.make_ready()
        for push_id in ("m1", "m2", "m1"):
            self.agent.push(push_id)
        self.assertTrue(self.drive(lambda: len(self.pushes) == 3))
        self.agent.hang_up()
        self.make_ready()
        self.agent.push("m2")
        self.assertTrue(self.drive(lambda: len(self.pushes) == 4))
        self.assertEqual([push.is_duplicate for push in self.pushes], [False, False, True, True])

    def test_ForgetsTheOldestOf1024Ids(self):
        known = [self.client._is_known(str(i)) for i in range(1025)]
        self.assertFalse(any(known))
        self.assertTrue(self.client._is_known("1"))
        self.assertFalse(self.client._is_known("0"))

    def test_DamagedPushIsRejectedAndNoted(self):
        self.make_ready()
        for data in ("?", "YR==", "YQ"):
            self.agent.push("m1", data, True)
            self.assertEqual(self.next()["msg"], "rejectPush", data)
        self.assertEqual(self.pushes, [])
        self.assertEqual(self.log, ["push 'm1' came without readable data"] * 3)

    def test_MessagesInOneReadAndOneInTwoAreAllHandled(self):
        self.make_ready()
        one = b'@ipc\nmsg::pushNotification\nid::1\ndat:json:{"appLevelAck":0,"data":""}\n'
        self.agent.send(one * 10 + one[:30])
        self.agent.send(one[30:])
        self.assertTrue(self.drive(lambda: len(self.pushes) == 11))
        self.assertEqual(self.log, [])

    def test_DamagedMessageIsNotedAndTheNextOneHandled(self):
        self.make_ready()
        for damaged in ("this is no attribute", 'msg::x\ndat:json:{"a":', "err:n:five", "dat:json:" + "[" * 20000):
            self.agent.send(f"@ipc\n{damaged}\n")
            self.agent.push("m1")
            count = len(self.pushes)
            self.assertTrue(self.drive(lambda: len(self.pushes) == count + 1), damaged[:40])
            self.assertEqual(self.log[0], "a message of the agent is damaged", damaged[:40])
            self.log.clear()

    def test_MessageWithoutAnEndIsCutOff(self):
        self.make_ready()
        self.agent.send("@ipc\n")
        for _ in range(20):
            if not self.log:
                self.agent.send("x" * 60000)
                self.client.dispatch()
        self.assertEqual(self.log, ["connection -4"])


class PythonClientDoesWhatItIsAsked(ClientTest):
    def test_SimChangeIsReportedAndTheChannelMadeAnew(self):
        self.make_ready()
        self.agent.reply("onSimChange", "")
        self.assertEqual(self.next()["msg"], "createChannel")
        self.assertEqual(self.log, ["sim change"])

    def test_AnswerFromBeforeASimChangeIsNotBelieved(self):
        self.agent.reply("onCreateSessionComplete", self.next()["id"])
        query = self.next()
        self.agent.reply("onSimChange", "")
        self.agent.stands(query["id"])
        self.assertEqual(self.next()["msg"], "createChannel")

    def test_LaunchStringIsSetWithEveryNewSession(self):
        self.client.set_launch_string("app://x")
        for _ in range(2):
            self.agent.reply("onCreateSessionComplete", self.next()["id"])
            query, launch = self.next(), self.next()
            self.assertEqual((query["msg"], launch["msg"]), ("queryChannel", "registerToLaunch"))
            self.assertEqual(launch["launchString"], "app://x")
            self.log.clear()
            self.agent.reply("", launch["id"])
            self.assertTrue(self.drive(lambda: self.log))
            self.assertEqual(self.log, ["launch 0"])
            self.agent.hang_up()

    def test_LaunchStringIsCleared(self):
        self.make_ready()
        self.client.clear_launch_string()
        launch = self.next()
        self.assertEqual(launch["msg"], "unregisterFromLaunch")
        self.agent.reply("", launch["id"], "err:n:500\n")
        self.assertTrue(self.drive(lambda: self.log == ["launch 500"]), self.log)

    def test_BadLaunchStringsAreRefusedAtOnce(self):
        for bad in ("", "x" * 9000, "\udcff"):
            with self.assertRaises(Error):
                self.client.set_launch_string(bad)

    def test_DestroyedChannelStaysAwayAfterAReconnect(self):
        self.make_ready()
        self.client.destroy_channel()
        self.assertFalse(self.client.is_ready)
        destroy = self.next()
        self.assertEqual(destroy["msg"], "destroyChannel")
        self.agent.reply("onDestroyChannelComplete", destroy["id"])
        self.assertTrue(self.drive(lambda: self.log == ["destroyed 0"]), self.log)
        self.agent.hang_up()
        self.agent.reply("onCreateSessionComplete", self.next()["id"])
        self.expect_nothing_more()
        self.client.create_channel()
        self.assertEqual(self.next()["msg"], "createChannel")

    def test_ChannelWantedAgainWaitsForTheEndOfDestroying(self):
        self.make_ready()
        self.client.destroy_channel()
        self.client.create_channel()
        destroy = self.next()
        self.assertEqual(destroy["msg"], "destroyChannel")
        self.expect_nothing_more()
        self.agent.reply("onDestroyChannelComplete", destroy["id"])
        self.assertEqual(self.next()["msg"], "createChannel")

    def test_DestroyingWaitsForTheEndOfCreating(self):
        self.answer_session()
        create = self.next()
        self.client.destroy_channel()
        self.expect_nothing_more()
        self.agent.reply("onCreateChannelComplete", create["id"], 'dat:json:{"token":"2a"}\n')
        self.assertEqual(self.next()["msg"], "destroyChannel")
        self.assertFalse(self.client.is_ready)

    def test_DestroyingWhileItIsAskedHowTheChannelStands(self):
        self.agent.reply("onCreateSessionComplete", self.next()["id"])
        query = self.next()
        self.client.destroy_channel()
        self.agent.stands(query["id"])
        self.assertEqual(self.next()["msg"], "destroyChannel")
        self.expect_nothing_more()
        self.assertFalse(self.client.is_ready)

    def test_DestroyCutOffByTheAgentsEndIsReported(self):
        self.make_ready()
        self.client.destroy_channel()
        self.agent.hang_up()
        self.assertTrue(self.drive(lambda: self.log == ["connection -4", "destroyed -4"]), self.log)

    def test_AnswerToNoRequestIsNoted(self):
        self.make_ready()
        self.agent.reply("onCreateChannelComplete", "99", "err:n:1\n")
        self.assertTrue(self.drive(lambda: self.log))
        self.assertEqual(self.log,
                         ["an answer to no open request came: msg 'onCreateChannelComplete', id '99', err 1"])

    def test_FullQueueOfTheAgentOnlyDelaysRequests(self):
        self.make_ready()
        accepted = 0
        try:
            while True:
                self.client.accept(f"p{accepted}")
                accepted += 1
        except Error as error:
            self.assertEqual(error.code, Code.QUEUE_FULL)
        self.assertTrue(self.client.has_unsent)
        self.assertLessEqual(self.client.until_due(), 0.05)
        arrived = []

        def take_all():
            while self.agent.take():
                arrived.append(1)
            return len(arrived) == accepted
        self.assertTrue(self.drive(take_all), f"{len(arrived)} of {accepted}")
        self.assertFalse(self.client.has_unsent)


class PythonClientEnds(ClientTest):
    def test_ExceptionOfAHandlerIsRaisedAfterTheOtherMessages(self):
        def raise_once(push):
            self.pushes.append(push)
            if len(self.pushes) == 1:
                raise ValueError("no disk")
            return Answer.ACCEPT
        self.configuration["on_push"] = raise_once
        self.make_ready()
        self.agent.push("m1", "", True)
        self.agent.push("m2", "", True)
        with self.assertRaisesRegex(ValueError, "no disk"):
            self.client.run()
        self.assertEqual(len(self.pushes), 2)
        self.assertEqual([self.next()["msg"], self.next()["msg"]], ["rejectPush", "acceptPush"])

    def test_OfSeveralExceptionsNoneIsSwallowed(self):
        def always_raise(push):
            raise ValueError(push.id)
        self.configuration["on_push"] = always_raise
        self.make_ready()
        self.agent.push("m1", "", True)
        self.agent.push("m2", "", True)
        with self.assertRaisesRegex(ValueError, "m2") as caught:
            self.client.run()
        self.assertEqual(str(caught.exception.__context__), "m1")

    def test_HandlerThatGivesNoAnswerIsToldSo(self):
        self.configuration["on_push"] = lambda push: None
        self.make_ready()
        self.agent.push("m1", "", True)
        with self.assertRaisesRegex(TypeError, "on_push has to give an Answer, not None"):
            self.client.run()
        self.assertEqual(self.next()["msg"], "rejectPush")

    def test_StopFromAnotherThreadEndsRun(self):
        self.client.stop()
        self.client.run()
        self.make_ready()
        late = threading.Timer(0.02, self.client.stop)
        late.start()
        start = time.monotonic()
        self.client.run()
        late.join()
        self.assertLess(time.monotonic() - start, 10)

    def test_StopFromASignalHandlerEndsRun(self):
        self.make_ready()
        before = signal.signal(signal.SIGALRM, lambda *_: self.client.stop())
        self.addCleanup(signal.signal, signal.SIGALRM, before)
        signal.setitimer(signal.ITIMER_REAL, 0.02)
        start = time.monotonic()
        self.client.run()
        self.assertLess(time.monotonic() - start, 10)

    def test_StopFromAHandlerEndsRun(self):
        self.agent.open_error = 13
        self.configuration["on_connection"] = lambda result: self.client.stop()
        self.client.run()
        self.assertEqual(self.agent.opens, 1)

    def test_CloseLeavesNoDescriptorOpenAndStopIsHarmlessThen(self):
        before = os.listdir("/proc/self/fd")
        self.make_ready()
        self.client.close()
        self.client.stop()
        self.agent.hang_up()
        self.assertEqual(os.listdir("/proc/self/fd"), before)


class PythonClientExplains(unittest.TestCase):
    def test_CodesAsTheLibraryInCppDoes(self):
        listed = subprocess.run([os.path.join(os.environ["QUIL_BIN"], "scenario_application")], check=True,
                                stdout=subprocess.PIPE, text=True).stdout
        codes = {int(code): words for code, words in (line.split(" ", 1) for line in listed.splitlines())}
        own = codes.pop(-8)  # an exception is raised here, not told as a code
        self.assertIn("exception", own)
        self.assertEqual(quilclient._MEANINGS, codes)
        self.assertEqual({int(code) for code in Code if code < 0}, {code for code in codes if code < 0})


class PythonClientIsInstalled(unittest.TestCase):
    def test_WhereItIsConfiguredToBe(self):
        build = os.path.dirname(os.environ["QUIL_BIN"])
        with open(os.path.join(build, "CMakeCache.txt"), encoding="utf-8") as cache:
            folder = re.search("^QUIL_PYTHON_FOLDER:STRING=(.*)$", cache.read(), re.M).group(1)
        if not folder:
            self.skipTest("[  SKIPPED ] this build installs no Python")
        with tempfile.TemporaryDirectory() as prefix:
            subprocess.run(["cmake", "--install", build, "--component", "python", "--prefix", prefix], check=True,
                           stdout=subprocess.DEVNULL)
            found = subprocess.run([sys.executable, "-Bc", "import quilclient; print(quilclient.__file__)"], check=True,
                                   env={"PYTHONPATH": os.path.join(prefix, folder)}, stdout=subprocess.PIPE, text=True)
            self.assertEqual(found.stdout.strip(), os.path.join(prefix, folder, "quilclient.py"))
            installed = [name for _, _, names in os.walk(prefix) for name in names]
            self.assertEqual(installed, ["quilclient.py"])


if __name__ == "__main__":
    unittest.main()
