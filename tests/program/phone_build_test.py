#!/usr/bin/python3
"""The daemon as a phone's integrator builds it: against a platform that supplies everything (look-alikes,
tests/platform), without a stand-in; and what a configuration refuses. Works in the folder WORK."""
import json
import os
import re
import subprocess
import tempfile
import unittest

PROJECT = os.path.abspath(os.path.dirname(__file__) + "/../..")
WORK = os.environ["WORK"]
KEY = "0123456789abcdef1032547698badcfe0f1e2d3c4b5a69788796a5b4c3d2"
PHONE = ["-DFTM_DESK=OFF", "-DFTM_STAND_INS=OFF"]
REAL = {"libtinyalsa.so.2": "mixer_open", "liblog.so": "__android_log_print",
        "libphone_c.so": "__system_property_get", "libqmi_cci.so": "qmi_client_init_instance",
        "libqmi_encdec.so": "qmi_idl_message_decode",
        "libsns_api.so": "SNS_CLIENT_SVC_get_service_object_internal_v01"}


def run(*command):
    return subprocess.run(command, check=False, text=True, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT)


def output(*command):
    done = run(*command)
    if done.returncode != 0:
        raise AssertionError(" ".join(command) + "\n" + done.stdout)
    return done.stdout


def configure(folder, *options, source=PROJECT):
    return run("cmake", "-G", "Ninja", "-S", source, "-B", folder, *options)


class PhoneBuild(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        tree = WORK + "/tree"
        configure(WORK + "/platform", "-DCMAKE_INSTALL_PREFIX=" + tree, source=PROJECT + "/tests/platform")
        output("cmake", "--build", WORK + "/platform", "--target", "install")
        cls.said = configure(WORK + "/phone", *PHONE, "-DFTM_PCBA_KEY=" + KEY,
                             f"-DCMAKE_TOOLCHAIN_FILE={tree}/phone.cmake",
                             "-DCMAKE_INSTALL_PREFIX=" + WORK + "/root/usr").stdout
        output("cmake", "--build", WORK + "/phone", "--target", "install")
        cls.daemon = WORK + "/root/usr/bin/ftmd"

    def test_everything_is_the_platforms(self):
        self.assertEqual(re.findall(r"^ +(\w+) +(real|stand-in) ", self.said, re.M),
                         [(part, "real") for part in ("log", "properties", "tinyalsa", "QMI")])
        dynamic = output("readelf", "-d", self.daemon)
        needed = set(re.findall(r"NEEDED.*\[(.*)\]", dynamic))
        self.assertLessEqual(REAL.keys(), needed)
        self.assertFalse([name for name in needed if "asound" in name])
        asked = set(re.findall(r" U ([^@\s]+)", output("nm", "-D", self.daemon)))
        self.assertLessEqual(set(REAL.values()), asked)

    def test_the_binary_knows_nothing_of_the_machine_that_built_it(self):
        self.assertNotRegex(output("readelf", "-d", self.daemon), "RPATH|RUNPATH")
        with open(self.daemon, "rb") as file:
            binary = file.read()
        self.assertNotIn(PROJECT.encode() + b"/", binary)
        self.assertNotIn(WORK.encode(), binary)
        self.assertNotRegex(output("nm", "-C", self.daemon),
                            "__(asan|ubsan|tsan|lsan|sanitizer)_|testing::|handset|[Pp]robe|[Ff]ake")

    def test_one_file_gets_the_key_and_no_warning_is_an_error(self):
        with open(WORK + "/phone/compile_commands.json", encoding="ascii") as file:
            commands = json.load(file)
        self.assertEqual([os.path.relpath(one["file"], PROJECT) for one in commands
                          if KEY in one["command"]], ["modules/deviceinfo/records.cpp"])
        self.assertFalse([one for one in commands if "-Werror" in one["command"]])

    def test_what_is_installed(self):
        installed = [os.path.relpath(folder + "/" + file, WORK + "/root")
                     for folder, _, files in os.walk(WORK + "/root") for file in files]
        self.assertEqual(sorted(installed), ["usr/bin/ftmd", "usr/share/man/man8/ftmd.8"])

    def test_what_a_configuration_refuses_or_says(self):
        for options, said, passes in (
                (PHONE, "does not supply: log, properties, tinyalsa, QMI", False),
                (["-DFTM_PCBA_KEY=" + KEY[1:]], "FTM_PCBA_KEY has 59 digits, not 60", False),
                (["-DFTM_PCBA_KEY=" + KEY[:16] + "g" + KEY[17:]], "digit 17 of 60 is not hexadecimal", False),
                (["-DFTM_DESK=OFF"], "FTM_PCBA_KEY is all zeros", True)):
            with self.subTest(options), tempfile.TemporaryDirectory() as folder:
                done = configure(folder, *options)
                self.assertIn(said, " ".join(done.stdout.split()))
                self.assertEqual(done.returncode == 0, passes, done.stdout)
                self.assertNotIn(KEY[20:], done.stdout)


if __name__ == "__main__":
    unittest.main()
