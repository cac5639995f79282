"""What the real worker does a minute after its task when no order comes. Takes 65 seconds."""

import time
import unittest

import peer
from peer import is_final

stage = None


def setUpModule():
    global stage
    stage = peer.Stage()
    unittest.addModuleCleanup(stage.remove)


class WithoutAnOrder(unittest.TestCase):
    def start(self, text, **more):
        engine = peer.EnginePlace(stage, text, **more)
        self.addCleanup(engine.close)
        link, _ = engine.welcome(ping_ms=0, silence_ms=0)
        link.wait_for(is_final)
        link.acknowledge()
        return engine, link

    def test_a_task_ends_its_worker_after_61_seconds_and_a_package_goes_on(self):
        stage.install_plugin("scripted", 14)
        package, package_link = self.start("type 14; id P-1", task_type="14")
        stage.install_plugin("scripted", 3)
        engine, link = self.start("id T-1")
        begin = time.monotonic()
        link.wait_for(peer.ID_BYE, 75)
        took = time.monotonic() - begin
        self.assertTrue(60.9 <= took <= 65, took)
        link.close()
        engine.worker.wait(10)
        self.assertEqual(engine.worker.returncode, 0)

        self.assertIsNone(package.worker.poll())
        package_link.send(4017, {"text": "type 14; id P-2"})
        entry = package_link.wait_for(is_final).body["entries"][0]
        self.assertEqual(entry["task_id"], b"P-2")
        package_link.acknowledge()
        package_link.send(4019, {})
        package_link.wait_for(peer.ID_BYE)
        package_link.close()
        package.worker.wait(10)


if __name__ == "__main__":
    unittest.main(verbosity=2)
