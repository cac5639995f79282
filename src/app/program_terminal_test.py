"""RQWorkerU at a terminal: texts in the terminal's encoding, and the pause that waits for a key. Linux only: a pseudo-terminal
is Python's own there. Usage: program_terminal_test.py RQWorkerU"""

import os
import pty
import select
import sys
import tempfile
import termios
import time
import unittest

PROGRAM = os.path.abspath(sys.argv.pop(1))
PATIENCE_S = 60
PROMPT = b"Press any key to continue . . . "
FIRST_LINE = "用法：RQWorkerU.exe Type Params-String"


class Terminal:
    """A process whose three streams are a new terminal."""

    def __init__(self, arguments, variables):
        self.folder = tempfile.TemporaryDirectory()
        environment = dict(os.environ, RQ_LOG_DIR=self.folder.name, **variables)
        environment = {name: value for name, value in environment.items() if value is not None}
        self.pid, self.terminal = pty.fork()
        if self.pid == 0:
            os.execve(PROGRAM, [PROGRAM] + arguments, environment)
        self.output = b""
        self.is_open = True

    def read_until(self, text):
        """Whether it came; what was read stays in self.output."""
        end = time.monotonic() + PATIENCE_S
        while text not in self.output and self.is_open and time.monotonic() < end:
            self._read(0.1)
        return text in self.output

    def read_for(self, seconds):
        end = time.monotonic() + seconds
        while self.is_open and time.monotonic() < end:
            self._read(0.05)

    def _read(self, seconds):
        if not select.select([self.terminal], [], [], seconds)[0]:
            return
        try:
            part = os.read(self.terminal, 65536)
        except OSError:  # the program has ended
            part = b""
        self.is_open = part != b""
        self.output += part

    def press(self, key):
        os.write(self.terminal, key)

    def has_ended(self):
        return os.waitid(os.P_PID, self.pid, os.WEXITED | os.WNOHANG | os.WNOWAIT) is not None

    def exit_code(self):
        end = time.monotonic() + PATIENCE_S
        while time.monotonic() < end:
            self._read(0.05)
            pid, status = os.waitpid(self.pid, os.WNOHANG)
            if pid:
                return os.waitstatus_to_exitcode(status)
        return None

    def close(self):
        os.close(self.terminal)
        self.folder.cleanup()


class AtATerminal(unittest.TestCase):
    def start(self, arguments, **variables):
        settings = {"LC_ALL": "C.UTF-8", "RQ_CONSOLE_ENCODING": None}
        settings.update(variables)
        terminal = Terminal(arguments, settings)
        self.addCleanup(terminal.close)
        return terminal

    def check_pause(self, terminal):
        self.assertTrue(terminal.read_until(PROMPT), terminal.output)
        terminal.read_for(0.3)
        self.assertFalse(terminal.has_ended(), "it did not wait for a key")
        terminal.press(b"x")
        self.assertEqual(terminal.exit_code(), 0)

    def test_usage_in_utf8_and_a_pause(self):
        terminal = self.start([])
        self.check_pause(terminal)
        self.assertIn(("argc:\r\n1" + FIRST_LINE + "\r\n").encode(), terminal.output)

    def test_control_c_is_a_key_and_the_terminal_keeps_its_echo(self):
        terminal = self.start([])
        before = termios.tcgetattr(terminal.terminal)[3]
        self.assertTrue(before & termios.ECHO and before & termios.ISIG)
        self.assertTrue(terminal.read_until(PROMPT), terminal.output)
        end = time.monotonic() + PATIENCE_S
        while termios.tcgetattr(terminal.terminal)[3] == before and time.monotonic() < end:
            time.sleep(0.01)
        terminal.press(b"\x03")
        while not terminal.has_ended() and time.monotonic() < end:
            terminal.read_for(0.05)
        self.assertEqual(termios.tcgetattr(terminal.terminal)[3], before)
        self.assertEqual(terminal.exit_code(), 0)

    def test_usage_in_the_encoding_of_the_locale(self):
        terminal = self.start([], LC_ALL="zh_CN.GBK")
        self.check_pause(terminal)
        self.assertIn(FIRST_LINE.encode("gbk"), terminal.output)

    def test_usage_in_gb18030(self):
        terminal = self.start([], LC_ALL="zh_CN.GB18030")
        self.check_pause(terminal)
        self.assertIn(FIRST_LINE.encode("gb18030"), terminal.output)

    def test_usage_in_an_encoding_that_is_neither(self):
        terminal = self.start([], LC_ALL="zh_TW.BIG5")
        self.check_pause(terminal)
        # Big5 has the sign and the second character of the first word, and lacks none of these.
        self.assertIn("用法：RQWorkerU.exe".encode("big5"), terminal.output)
        # It lacks the simplified character of "transcode".
        self.assertIn(b"\ttc\t?" + "码".encode("big5", "replace") + b"\r\n", terminal.output)

    def test_a_forced_encoding_holds_at_a_terminal_too(self):
        terminal = self.start([], RQ_CONSOLE_ENCODING="GBK")
        self.check_pause(terminal)
        self.assertIn(FIRST_LINE.encode("gbk"), terminal.output)

    def test_a_type_alone_pauses_before_it_is_echoed(self):
        terminal = self.start(["mc"])
        self.check_pause(terminal)
        echo = terminal.output.index(b"Type:\r\n0x")
        self.assertGreater(echo, terminal.output.index(PROMPT))

    def test_with_two_arguments_nothing_waits(self):
        terminal = self.start(["mc", "<x/>"])
        self.assertEqual(terminal.exit_code(), 0)
        self.assertNotIn(PROMPT, terminal.output)


if __name__ == "__main__":
    unittest.main()
