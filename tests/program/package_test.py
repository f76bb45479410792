#!/usr/bin/python3
"""The Debian package: made by cpack from the build folder BUILD, unpacked into an empty folder, and
started from there."""
import glob
import os
import shutil
import subprocess
import tempfile
import unittest

BUILD = os.environ["BUILD"]


def output(*command, **more):
    return subprocess.run(command, check=True, text=True, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, **more).stdout


class Package(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        temporary = tempfile.TemporaryDirectory()
        cls.addClassCleanup(temporary.cleanup)
        output("cpack", "--config", BUILD + "/CPackConfig.cmake", "-B", temporary.name + "/made")
        cls.package, = glob.glob(temporary.name + "/made/ftm-handset_*_*.deb")
        cls.root = temporary.name + "/unpacked"
        output("dpkg-deb", "-x", cls.package, cls.root)
        # Nothing of the build folder's is known to it.
        cls.handset = cls.root + "/usr/bin/handset"

    def test_runs_where_it_was_unpacked(self):
        said = output(self.handset, "--waits", "0", "--profile", "no-battery", "AT+EADC=1",
                      "AT^SYS_VEN_MD5", cwd="/")
        self.assertEqual(said, "> AT+EADC=1\n< OK\\r\\n\n< +EADC: 0.00,0.00,0.00,0.000,0.00\n"
                               "> AT^SYS_VEN_MD5\n< OK\\r\\n\n")
        for program in glob.glob(self.root + "/usr/**/*", recursive=True):
            if os.path.isfile(program) and not program.endswith(".ko"):
                with open(program, "rb") as file:
                    self.assertFalse(os.path.dirname(BUILD).encode() in file.read(), program)

    def test_says_its_version(self):
        version = output("dpkg-deb", "-f", self.package, "Version")
        self.assertEqual(output(self.handset, "--version"), "handset " + version)

    def test_manual_and_completion_know_every_option(self):
        options = set(filter(lambda word: word.startswith("--"),
                             output(self.handset, "--help").replace(",", " ").split()))
        manual = output("zcat", self.root + "/usr/share/man/man1/handset.1.gz").replace("\\", "")
        completion = self.root + "/usr/share/bash-completion/completions/handset"
        offered = output("bash", "-c", f"PATH={self.root}/usr/bin:$PATH; . {completion}; "
                         "COMP_WORDS=(handset --); COMP_CWORD=1; _handset; "
                         "echo ${COMPREPLY[*]}; COMP_WORDS=(handset --profile no); COMP_CWORD=2; "
                         "_handset; echo ${COMPREPLY[*]}").splitlines()
        self.assertGreater(len(options), 10)
        self.assertEqual(set(offered[0].split()), options)
        self.assertEqual(offered[1], "no-battery")
        for option in options:
            self.assertIn(option, manual)

    @unittest.skipUnless(shutil.which("lintian"), "no lintian")
    def test_lintian_finds_no_error(self):
        checked = subprocess.run(["lintian", "--allow-root", self.package], check=False, text=True,
                                 capture_output=True)
        self.assertNotRegex(checked.stdout, "(?m)^E: ")
        self.assertLess(checked.returncode, 2, checked.stderr)


if __name__ == "__main__":
    unittest.main()
