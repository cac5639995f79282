"""Looks at the manifest that every program of a Windows stage carries as a resource. RQ_STAGE is the stage."""

import glob
import os
import re
import unittest


def manifests_of(path):
    with open(path, "rb") as file:
        return re.findall(rb"<assembly .*?</assembly>", file.read(), re.DOTALL)


class Manifest(unittest.TestCase):
    def test_programs_take_long_paths_and_leave_the_code_page(self):
        programs = glob.glob(os.path.join(os.environ["RQ_STAGE"], "*.exe"))
        self.assertIn("RQWorkerU.exe", [os.path.basename(path) for path in programs])
        for path in programs:
            with self.subTest(os.path.basename(path)):
                found = manifests_of(path)
                self.assertEqual(len(found), 1)
                self.assertRegex(found[0], rb"<longPathAware [^>]*>true</longPathAware>")
                self.assertNotIn(b"activeCodePage", found[0])


if __name__ == "__main__":
    unittest.main(verbosity=2)
