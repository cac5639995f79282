"""Does what docs/write-a-plugin.md says: runs its commands as they stand, in one shell, and compares what they print.

On Linux the blocks ```sh, in the Windows build the blocks ```sh windows. A block ```text after one is what that prints: "..." in
a line stands for any text, a line "..." for any number of lines.
"""

import os
import re
import signal
import subprocess
import tempfile
import unittest

SOURCES = os.environ["RQ_SOURCES"]
PAGE = os.path.join(SOURCES, "docs", "write-a-plugin.md")
IS_WINDOWS = os.environ["RQ_SYSTEM"] == "Windows"
MARK = "==== block %d ===="
FENCE = re.compile(r"^```(\w*) ?(.*)\n((?:.*\n)*?)```$", re.MULTILINE)


def read_page():
    """The commands for this system, each with the lines that it should print (None: not said)."""
    blocks = []
    is_ours = False
    with open(PAGE, encoding="utf-8") as page:
        for language, words, text in FENCE.findall(page.read()):
            if language == "sh":
                is_ours = (words == "windows") == IS_WINDOWS
                if is_ours:
                    blocks.append([text, None])
            elif language == "text" and is_ours and blocks[-1][1] is None:
                blocks[-1][1] = text.splitlines()
    return blocks


def pattern(lines):
    """Of expected lines, for a match at the end of what was printed."""
    parts = []
    for line in lines:
        if line == "...":
            parts.append(r"(?:[^\n]*\n)*")
        else:
            parts.append(".*".join(re.escape(part) for part in line.split("...")) + r"\n")
    return re.compile(r"^" + "".join(parts) + r"\Z", re.MULTILINE)


class Pattern(unittest.TestCase):
    def test_what_fits_and_what_does_not(self):
        lines = ["a ... c", "...", "end"]
        self.assertTrue(pattern(lines).search("before\na b c\nx\ny\nend\n"))
        self.assertTrue(pattern(lines).search("a  c\nend\n"))
        self.assertFalse(pattern(lines).search("a c\nend\n"))
        self.assertFalse(pattern(lines).search("a b c\nend\nmore\n"))
        self.assertFalse(pattern(lines).search("a b c\nthe end\n"))
        self.assertFalse(pattern(lines).search("not a b c\nend\n"))


class Page(unittest.TestCase):
    def test_its_commands(self):
        blocks = read_page()
        self.assertGreaterEqual(len(blocks), 2 if IS_WINDOWS else 10)
        self.assertGreaterEqual(sum(expected is not None for _, expected in blocks), 2 if IS_WINDOWS else 6)
        home = tempfile.TemporaryDirectory(prefix="rq-sdk-page-")
        self.addCleanup(home.cleanup)
        script = "set -eu\n"
        for number, (text, _) in enumerate(blocks):
            script += 'echo "%s"\n%s' % (MARK % number, text)
        output = self.run_script(script, home.name)
        for number, (text, expected) in enumerate(blocks):
            printed = output.split(MARK % number + "\n", 1)[1].split(MARK % (number + 1), 1)[0]
            if expected is not None:
                self.assertRegex(printed, pattern(expected), "after:\n" + text)

    def run_script(self, script, home):
        environment = dict(os.environ)
        # What the page's commands would otherwise make anew below the new home.
        cache = environment.get("XDG_CACHE_HOME", os.path.expanduser("~/.cache"))
        environment.setdefault("RQ_WINDOWS_CACHE", os.path.join(cache, "rqworker"))
        environment.setdefault("CCACHE_DIR", os.path.join(cache, "ccache"))
        for name in list(environment):
            if name in ("RQ_ENGINE_DATA", "RQ_LOG_DIR", "RQ_CONFIG_DIR", "MAKEFLAGS") or name.startswith("XDG_"):
                del environment[name]
        environment["HOME"] = home
        with open(os.path.join(home, "printed"), "w+", encoding="utf-8") as printed:
            # A session of its own, so that whatever a failure leaves can be ended.
            shell = subprocess.Popen(["bash", "-c", script], cwd=SOURCES, env=environment, stdin=subprocess.DEVNULL,
                                     stdout=printed, stderr=subprocess.STDOUT, start_new_session=True)
            try:
                code = shell.wait(280)
            except subprocess.TimeoutExpired:
                code = "none within 280 s"
            finally:
                try:
                    os.killpg(shell.pid, signal.SIGKILL)
                except ProcessLookupError:
                    pass
                shell.wait()
            printed.seek(0)
            output = printed.read().replace("\r\n", "\n")
        self.assertEqual(code, 0, output)
        return output


if __name__ == "__main__":
    unittest.main()
