"""The platform's build files name what the desk's build compiles, and only files that are there.

Environment: COMPILE_COMMANDS, the desk's compile_commands.json.
"""

import json
import os
import pathlib
import re
import unittest

PROJECT = pathlib.Path(__file__).parents[2]
DAEMON = ("audio_route", "core", "display", "modules", "power", "sensors")


def names(build: str, key: str) -> list[str]:
    """The texts of every list of this name in a build file."""
    return [name for part in re.findall(rf"\b{key}: \[(.*?)\]", build, re.DOTALL)
            for name in re.findall('"([^"]*)"', part)]


def files(build: pathlib.Path) -> set[str]:
    folder = build.parent
    return {str(path.relative_to(PROJECT)) for name in names(build.read_text(), "srcs")
            for path in folder.glob(name)}


class BuildTest(unittest.TestCase):
    def test_compiles_what_the_desk_compiles(self) -> None:
        commands = json.loads(pathlib.Path(os.environ["COMPILE_COMMANDS"]).read_text())
        compiled = {os.path.relpath(command["file"], PROJECT) for command in commands}
        desk = {name for name in compiled if name.split("/")[0] in DAEMON}
        self.assertGreater(len(desk), 60)
        self.assertEqual(files(PROJECT / "Android.bp"), desk)
        self.assertEqual(files(PROJECT / "sensors/Android.bp"), {"sensors/sensor_hub.proto"})

    def test_names_files_that_are_there(self) -> None:
        build = (PROJECT / "Android.bp").read_text()
        for name in names(build, "init_rc") + re.findall('src: "(.*)"', build) + names(build, "exclude_srcs"):
            self.assertTrue((PROJECT / name).is_file(), name)

    def test_every_library_is_explained(self) -> None:
        build = (PROJECT / "Android.bp").read_text()
        readme = (PROJECT / "platform/android/README.md").read_text()
        libraries = set(names(build, "shared_libs") + names(build, "static_libs"))
        self.assertGreater(len(libraries), 8)
        self.assertEqual({name for name in libraries if f"`{name}`" not in readme}, set())


if __name__ == "__main__":
    unittest.main()
