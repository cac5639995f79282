"""The installed SDK, moved after its installation to a folder with a blank in its name, and used from outside the sources."""

import os
import re
import shutil
import subprocess
import tempfile
import unittest

BUILD, CMAKE, SYSTEM = os.environ["RQ_BUILD"], os.environ["RQ_CMAKE"], os.environ["RQ_SYSTEM"]
VERSION, SUFFIX, EXE = os.environ["RQ_VERSION"], os.environ["RQ_SUFFIX"], os.environ["RQ_EXE"]
STARTER = os.environ.get("RQ_STARTER")
IS_WINDOWS = SYSTEM == "Windows"
FIVE = ["RQWorkerAnalyseTask", "RQWorkerDescribe", "RQWorkerInit", "RQWorkerPerformTask", "RQWorkerRelease"]
WARNINGS = "-Wall -Wextra -Wpedantic -Werror"

top = sdk = None


def setUpModule():
    global top, sdk
    folder = tempfile.TemporaryDirectory(prefix="rq-sdk-")
    unittest.addModuleCleanup(folder.cleanup)
    top = folder.name
    run(CMAKE, "--install", BUILD, "--component", "sdk", "--prefix", os.path.join(top, "first"))
    sdk = os.path.join(top, "an sdk")
    os.rename(os.path.join(top, "first"), sdk)


def run(*command, code=0):
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL, timeout=200)
    output = done.stdout.decode("utf-8", "replace")
    if (done.returncode == 0) != (code == 0):
        raise AssertionError("%s ended with %d:\n%s" % (" ".join(command), done.returncode, output))
    return output


def configure(folder, *options, code=0, package=None):
    package = os.path.join(package or sdk, "lib", "cmake", "RQWorkerSDK")
    command = [CMAKE, "-S", folder, "-B", os.path.join(folder, "build"), "-DRQWorkerSDK_DIR=" + package,
               "-DCMAKE_C_COMPILER=" + os.environ["RQ_C_COMPILER"],
               "-DCMAKE_CXX_COMPILER=" + os.environ["RQ_CXX_COMPILER"]]
    if IS_WINDOWS:
        command += ["-DCMAKE_SYSTEM_NAME=Windows", "-DCMAKE_CROSSCOMPILING_EMULATOR=" + STARTER]
    return run(*command, *options, code=code)


def project(name, text, languages="C", **files):
    folder = os.path.join(top, name)
    os.mkdir(folder)
    with open(os.path.join(folder, "CMakeLists.txt"), "w", encoding="utf-8") as script:
        script.write("cmake_minimum_required(VERSION 3.16)\nproject(p LANGUAGES %s)\n%s\n" % (languages, text))
    for file, content in files.items():
        with open(os.path.join(folder, file + ".c"), "w", encoding="utf-8") as source:
            source.write(content)
    return folder


def exports(library):
    if IS_WINDOWS:
        names = run("x86_64-w64-mingw32-objdump", "-p", library).split("[Ordinal/Name Pointer] Table")[1]
        return sorted(re.findall(r"^\s*\[\s*\d+\] (?:\+base\[\s*\d+\]\s*[0-9a-f]* )?(\w+)$", names, re.MULTILINE))
    return sorted(line.split()[-1] for line in run("nm", "-D", "--defined-only", library).splitlines())


class Package(unittest.TestCase):
    def test_has_what_an_author_needs(self):
        wanted = ["include/rqworker/plugin.h", "include/rqworker/plugin.hpp", "include/rqworker/running_parameter.h",
                  "include/rqworker/text.h", "bin/rqplugin-check" + EXE, "share/doc/rqworker/contract.md",
                  "share/doc/rqworker/write-a-plugin.md", "share/rqworker/templates/cpp/linecount.cpp",
                  "share/rqworker/templates/c/ticks.c", "lib/cmake/RQWorkerSDK/RQWorkerSDKConfig.cmake"]
        self.assertEqual([name for name in wanted if not os.path.isfile(os.path.join(sdk, name))], [])
        # What the page sends its reader to.
        documents = os.path.join(sdk, "share/doc/rqworker")
        with open(os.path.join(documents, "write-a-plugin.md"), encoding="utf-8") as page:
            named = set(re.findall(r"`(?:docs/|sdk/)?([\w-]+\.md)`", page.read()))
        self.assertLessEqual({"contract.md", "link-journal.md"}, named)
        self.assertLessEqual(named, set(os.listdir(documents)))
        starter = [STARTER] if STARTER else []
        self.assertIn(VERSION, run(*starter, os.path.join(sdk, "bin", "rqplugin-check" + EXE), "--version"))

    def test_is_found_by_its_version(self):
        major, minor, _ = VERSION.split(".")
        said = configure(project("fits", """
            find_package(RQWorkerSDK %s.%s REQUIRED)
            find_package(RQWorkerSDK REQUIRED)
            get_target_property(include RQWorker::SDK INTERFACE_INCLUDE_DIRECTORIES)
            message(STATUS "version ${RQWorkerSDK_VERSION}, contract ${RQWorkerSDK_CONTRACT_VERSION}, in ${include}")
            """ % (major, minor), "NONE"))
        self.assertIn("version %s, contract 1, in %s" % (VERSION, os.path.join(sdk, "include")), said)
        for name, version in (("newer", "%s.%d" % (major, int(minor) + 1)), ("later", str(int(major) + 1))):
            said = configure(project(name, "find_package(RQWorkerSDK %s REQUIRED)" % version, "NONE"), code=1)
            self.assertIn("version: " + VERSION, said)

    def test_functions_say_what_they_lack(self):
        text = "find_package(RQWorkerSDK REQUIRED)\n"
        self.assertIn("give the source files", configure(project("no_sources", text + "rq_add_plugin(x)"), code=1))
        self.assertIn("give TASK", configure(project("no_task", text + "rq_check_plugin(x TASKS 3)"), code=1))

    def test_without_the_check_of_this_system(self):
        other = os.path.join(top, "other")
        shutil.copytree(sdk, other)
        os.remove(os.path.join(other, "bin", "rqplugin-check" + EXE))
        folder = os.path.join(top, "unchecked")
        shutil.copytree(os.path.join(sdk, "share/rqworker/templates/c"), folder)
        self.assertIn("ticks.check is left out", configure(folder, package=other))
        self.assertIn("Total Tests: 0", run("ctest", "--test-dir", os.path.join(folder, "build"), "-N"))


class Templates(unittest.TestCase):
    def build(self, language, name, source):
        folder = os.path.join(top, name)
        shutil.copytree(os.path.join(sdk, "share/rqworker/templates", language), folder)
        with open(os.path.join(folder, source), encoding="utf-8") as text:
            self.assertLess(len(text.readlines()), 100)
        configure(folder, "-DCMAKE_CXX_FLAGS=" + WARNINGS, "-DCMAKE_C_FLAGS=-std=c11 -pedantic " + WARNINGS)
        run(CMAKE, "--build", os.path.join(folder, "build"))
        made = os.path.join(folder, "build", "plugins", name)
        self.assertEqual(sorted(os.listdir(made)), sorted([name + SUFFIX, "worker.uid"]))
        said = run("ctest", "--test-dir", os.path.join(folder, "build"), "--verbose")
        self.assertRegex(said, r"passed: 3[345] passed, 0 failed")
        library = os.path.join(made, name + SUFFIX)
        if IS_WINDOWS:
            needed = set(re.findall(r"DLL Name: (\S+)", run("x86_64-w64-mingw32-objdump", "-p", library)))
            self.assertLessEqual({name.lower() for name in needed}, {"kernel32.dll", "msvcrt.dll"})
        return library

    def test_cpp(self):
        self.assertEqual(exports(self.build("cpp", "linecount", "linecount.cpp")), FIVE)

    def test_c(self):
        wanted = [name for name in FIVE if name not in ("RQWorkerInit", "RQWorkerRelease")]
        self.assertEqual(exports(self.build("c", "ticks", "ticks.c")), wanted)

    @unittest.skipIf(IS_WINDOWS, "the worker names the folder to the system there, and the loader is not this one")
    def test_a_library_beside_the_plugin_is_found(self):
        folder = os.path.join(top, "beside")
        shutil.copytree(os.path.join(sdk, "share/rqworker/templates/c"), folder)
        with open(os.path.join(folder, "CMakeLists.txt"), "a", encoding="utf-8") as script:
            script.write("add_library(helper SHARED helper.c)\ntarget_link_libraries(ticks PRIVATE helper)\n"
                         "set_target_properties(helper PROPERTIES LIBRARY_OUTPUT_DIRECTORY"
                         " \"${CMAKE_BINARY_DIR}/plugins/ticks\")\n")
        with open(os.path.join(folder, "helper.c"), "w", encoding="utf-8") as source:
            source.write("int helped(void);\nint helped(void) { return 1; }\n")
        with open(os.path.join(folder, "ticks.c"), "a", encoding="utf-8") as source:
            source.write("int helped(void);\nint g_helped;\n"
                         "__attribute__((constructor)) static void Load(void) { g_helped = helped(); }\n")
        configure(folder)
        run(CMAKE, "--build", os.path.join(folder, "build"))
        moved = os.path.join(top, "moved plug-in")
        os.rename(os.path.join(folder, "build", "plugins", "ticks"), moved)
        shutil.rmtree(folder)
        task = os.path.join(top, "beside.txt")
        with open(task, "w", encoding="utf-8") as text:
            text.write("1")
        check = [os.path.join(sdk, "bin", "rqplugin-check"), os.path.join(moved, "ticks.so"), "--task", task, "--tasks", "2"]
        self.assertIn(", 0 failed", run(*check))
        os.remove(os.path.join(moved, "libhelper.so"))
        self.assertIn("libhelper.so", run(*check, code=1))

    def test_what_is_missing_is_an_error_of_the_link(self):
        folder = project("missing", "find_package(RQWorkerSDK REQUIRED)\nrq_add_plugin(x x.c)",
                         x="#include <rqworker/plugin.h>\nint not_there(void);\n"
                           "RQ_PLUGIN_EXPORT int get(void);\nint get(void) { return not_there(); }\n")
        configure(folder)
        self.assertRegex(run(CMAKE, "--build", os.path.join(folder, "build"), code=1), "undefined reference to .not_there")


if __name__ == "__main__":
    unittest.main()
