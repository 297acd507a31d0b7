"""How a monitor holds a control session with FerovaneHelper: a JSON request a line, a reply a line.

    with ControlSession(["FerovaneHelper"]) as session:
        print(session.request("hello")["message"])
        session.request("profile", profile="quiet", label="夜间")

The session ends with `close`, with the end of the `with` block, or when this process dies; each of
these hands the fans back to the system. The helper must be started as root by the user who owns the
session (that user's id is its real user id).
"""

import contextlib
import json
import os
import selectors
import subprocess
import time

LONGEST_LINE = 16384  # bytes, line feed included, in both directions
REPLY_SECONDS = 110.0  # loading the turbo driver alone may take 90
ENDING_SECONDS = 15.0  # a lease has 12 to hand its fans back


class SessionError(Exception):
    """The session is over: the helper is gone, silent, or does not speak the protocol. Only after "the
    request is too long" does it go on."""


class RequestFailed(Exception):
    """The helper refused or failed one request; the session goes on. The text is for the user."""


class ControlSession:
    def __init__(self, helper, owner_pid=None, owner_uid=None, errors=None, spawn=None):
        """helper: the command that starts the helper, as a list. errors: where its standard error
        goes (a file object; the caller's own by default). spawn: stands in for subprocess.Popen."""
        owner_pid = os.getpid() if owner_pid is None else owner_pid
        owner_uid = os.getuid() if owner_uid is None else owner_uid
        command = [*helper, "serve", str(owner_pid), str(owner_uid)]
        self.process = (spawn or subprocess.Popen)(
            command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=errors, bufsize=0
        )
        os.set_blocking(self.process.stdout.fileno(), False)
        self._selector = selectors.DefaultSelector()
        self._selector.register(self.process.stdout, selectors.EVENT_READ)
        self._received = b""
        self.over = None  # why no request is sent any more

    def request(self, command, timeout=REPLY_SECONDS, **members):
        """Sends one request and returns the reply's members; raises RequestFailed with the user's
        text when the helper says no."""
        reply = self.exchange({"command": command, **members}, timeout)
        if not reply["ok"]:
            raise RequestFailed(reply["message"])
        return reply

    def exchange(self, request, timeout=REPLY_SECONDS):
        """Like request, for a whole message; returns the reply whether it is ok or not."""
        line = json.dumps(request, ensure_ascii=False).encode() + b"\n"
        if len(line) > LONGEST_LINE:
            raise SessionError("the request is too long")
        self.send_line(line)
        return self.read_reply(timeout)

    def send_line(self, line):
        """Writes raw bytes; the helper takes them as they are."""
        with self._ending_at_failure():
            try:
                while line:  # a signal may cut a write short
                    line = line[self.process.stdin.write(line):]
            except BrokenPipeError as error:
                raise SessionError(f"the helper has ended: {self._exit_text()}") from error

    def read_reply(self, timeout=REPLY_SECONDS):
        with self._ending_at_failure():
            line = self._read_line(time.monotonic() + timeout)
            try:
                reply = json.loads(line)
            except ValueError as error:
                raise SessionError("the reply is not JSON") from error
            if not isinstance(reply, dict) or not isinstance(reply.get("ok"), bool):
                raise SessionError("the reply is not a control reply")
            return reply

    @contextlib.contextmanager
    def _ending_at_failure(self):
        """A reply that was not waited for would be taken for that of the next request: none is made.
        The helper sees the end of its input and hands the fans back."""
        if self.over:
            raise SessionError(f"the session is over: {self.over}")
        try:
            yield
        except BaseException as error:
            self.over = str(error) or type(error).__name__
            self.process.stdin.close()
            raise

    def _read_line(self, deadline):
        while b"\n" not in self._received:
            if len(self._received) >= LONGEST_LINE:
                raise SessionError("the reply is too long")
            left = deadline - time.monotonic()
            if left <= 0 or not self._selector.select(left):
                raise SessionError("the helper does not answer")
            chunk = self.process.stdout.read(65536)
            if chunk == b"":
                raise SessionError(f"the helper has ended: {self._exit_text()}")
            self._received += chunk or b""
        line, _, self._received = self._received.partition(b"\n")
        if len(line) >= LONGEST_LINE:
            raise SessionError("the reply is too long")
        return line

    def _exit_text(self):
        try:
            return f"exit status {self.process.wait(ENDING_SECONDS)}"
        except subprocess.TimeoutExpired:
            return "it closed its output but still runs"

    @property
    def alive(self):
        return self.process.poll() is None

    def shut_down(self, timeout=ENDING_SECONDS):
        """Asks for the end and returns the last reply; the fans are automatic by then, or the reply
        says that they are not."""
        return self.exchange({"command": "shutdown"}, timeout)

    def close(self):
        """Ends the session by closing its input, and returns the helper's exit status. The helper
        hands the fans back by itself; it is never killed here, because that would stop it."""
        if self.process.stdin:
            self.process.stdin.close()
        try:
            status = self.process.wait(ENDING_SECONDS + REPLY_SECONDS)
        except subprocess.TimeoutExpired as error:
            raise SessionError("the helper does not end") from error
        self._selector.close()
        self.process.stdout.close()
        return status

    def __enter__(self):
        return self

    def __exit__(self, *unused):
        self.close()
