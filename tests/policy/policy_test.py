"""What check_policy.py must find: each case plants one fault in what is otherwise clean.

Environment: TOUCHES, the folder of what the transcripts' runs touched.
"""

import os
import pathlib
import re
import sys
import unittest
from typing import Callable, NamedTuple

sys.path.insert(0, str(pathlib.Path(__file__).parents[2] / "platform/android"))

import check_policy  # noqa: E402
import make_policy  # noqa: E402
import policy_table  # noqa: E402


class Phone(NamedTuple):
    files: dict[str, str]
    table: str
    touches: list[str]


def clean() -> Phone:
    folder = pathlib.Path(os.environ["TOUCHES"])
    touches = [line for path in sorted(folder.iterdir()) for line in path.read_text().splitlines()]
    return Phone(check_policy.read_files(), policy_table.TABLE.read_text(), touches)


def without(file: str, pattern: str) -> Callable[[Phone], Phone]:
    def plant(phone: Phone) -> Phone:
        text, count = re.subn(f"^{pattern}.*\n", "", phone.files[file], flags=re.MULTILINE)
        assert count == 1, pattern
        return phone._replace(files={**phone.files, file: text})
    return plant


def with_line(file: str, line: str) -> Callable[[Phone], Phone]:
    return lambda phone: phone._replace(files={**phone.files, file: phone.files[file] + line + "\n"})


def touching(*touches: str) -> Callable[[Phone], Phone]:
    return lambda phone: phone._replace(touches=phone.touches + list(touches))


def untouched(touch: str) -> Callable[[Phone], Phone]:
    def plant(phone: Phone) -> Phone:
        assert touch in phone.touches, touch
        return phone._replace(touches=[line for line in phone.touches if line != touch])
    return plant


def made_from(old: str, new: str) -> Callable[[Phone], Phone]:
    """Another table, and the policy that is made of it."""
    def plant(phone: Phone) -> Phone:
        assert phone.table.count(old) == 1, old
        table = phone.table.replace(old, new)
        return phone._replace(table=table, files=make_policy.make(table))
    return plant


CASES: list[tuple[str, Callable[[Phone], Phone], str]] = [
    ("a path that the policy lacks", touching("read /proc/new/node"),
     "read /proc/new/node: not in touches.table"),
    ("a place used in another way", touching("write /proc/meminfo"),
     "write /proc/meminfo: not in touches.table"),
    ("a property that nobody may set", touching("set ro.serialno"), "set ro.serialno: not in touches.table"),
    ("a program of the phone", touching("run /vendor/bin/new"), "run /vendor/bin/new: not in touches.table"),
    ("a rule that is missing", without("ftmd.te", "allow ftmd sysfs_vibrator:file"),
     "write /sys/class/leds/vibrator/duration: not allowed: file write on sysfs_vibrator"),
    ("no way to a place", without("ftmd.te", "allow ftmd cache_file:dir"),
     "look /cache/.encrypting: not allowed: dir search on cache_file"),
    ("a rule too much", with_line("ftmd.te", "allow ftmd system_file:file write;"),
     "allowed, but nobody needs it: file write on system_file"),
    ("a node without its label", without("genfs_contexts", "genfscon proc /qcom_flash"),
     "write /proc/qcom_flash: its label is proc, the table says ftmd_proc_flash"),
    ("a class's node without its label", without("file_contexts", ".*/max_brightness"),
     "its label is sysfs, the table says ftmd_sysfs_backlight"),
    ("a property without its label", without("property_contexts", "ro.xxversion"),
     "get ro.xxversion: its label is none, the table says vendor_ftmd_identity_prop"),
    ("a new file with its folder's label", without("file_contexts", "/mnt/vendor/norvareserve/ftm_admin  "),
     "is made as mnt_vendor_file, its folder's, and not as ftmd_sleep_log_file"),
    ("a type that is not declared", without("ftmd.te", "type ftmd_proc_info,"),
     "unknown type ftmd_proc_info"),
    ("a rule that is none", with_line("ftmd.te", "allow ftmd proc:file { fly };"),
     "permission fly is not defined for class file"),
    ("a row that no run shows", made_from("volume  /mnt/sdcard ", "volume  /mnt/sdcard2 "),
     "statfs /mnt/sdcard2: in the table, but no run shows it"),
    ("a word that no run shows any more", untouched("get ro.serialno"),
     "get ro.serialno: in the table, but no run shows it"),
    ("a word in parentheses that a run shows", touching("write /mnt/vendor/wcd-mic-record.pcm"),
     "in parentheses, but a run shows it"),
    ("a file changed by hand", with_line("ueventd.ftmd.rc", "# more"),
     "ueventd.ftmd.rc: not what make_policy.py writes"),
    ("no touches at all", lambda phone: phone._replace(touches=[]), "the runs touch nothing"),
]


class PolicyTest(unittest.TestCase):
    def test_finds_nothing_in_what_is_clean(self) -> None:
        found, _ = check_policy.check(*clean())
        self.assertEqual(found, [])

    def test_finds_what_is_planted(self) -> None:
        phone = clean()
        for name, plant, expected in CASES:
            with self.subTest(name):
                found, _ = check_policy.check(*plant(phone))
                self.assertIn(expected, "\n".join(found))

    def test_holds_the_init_script_to_the_policy(self) -> None:
        phone = clean()
        policy = check_policy.Policy(phone.files)
        script = (check_policy.HERE / "ftmd.rc").read_text()
        self.assertEqual(check_policy.check_init(script, policy), [])
        for old, new, expected in [(" SYS_MODULE", "", "sys_module"),
                                   (" NET_ADMIN", " NET_ADMIN SYS_ADMIN", "sys_admin"),
                                   ("/odm/bin/ftmd", "/bin/ftmd", "starts no")]:
            with self.subTest(new):
                self.assertIn(expected, "\n".join(check_policy.check_init(script.replace(old, new), policy)))


if __name__ == "__main__":
    unittest.main()
