# SPDX-License-Identifier: MIT
"""corvel-settings: restoring, reading and changing settings files."""

import os
import re
import subprocess

from build_tree import BUILD, SOURCE
from programs import Done, ToolTest


class Settings(ToolTest):
    def run_settings(self, *arguments):
        return Done(subprocess.run([BUILD / "corvel-settings", *arguments],
                                   stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, timeout=60))

    def content(self, path):
        with open(path, "rb") as file:
            return file.read()

    def test_recover_restores_each_file_and_names_it(self):
        whole = self.write("lan.conf", b'A="1"\n')
        spaced = self.write("global.conf", b'B "1"\n')
        self.assertEqual(self.run_settings("recover", whole, "-s", "space", spaced).output, "")
        self.write("lan.conf", b"")
        self.write("global.conf", b'B "')
        missing = f"{spaced}.missing"
        done = self.run_settings("recover", whole, "-s", "space", missing, spaced)
        self.assertEqual(done.status, 1)
        self.assertEqual(done.output, f"{whole}: restored\n{spaced}: restored\n")
        self.assertEqual(done.errors,
                         f"corvel-settings: {missing}: The settings cannot be read.\n")
        self.assertEqual(self.content(whole), b'A="1"\n')
        self.assertEqual(self.content(spaced), b'B "1"\n')
        self.assertEqual(self.run_settings("recover", whole).status, 0)

    def test_recover_puts_back_a_copy_that_was_left_alone(self):
        copy = self.write("lan.conf.cgi", b'A="1"\n')
        path = str(copy)[:-len(".cgi")]
        self.assertEqual(self.run_settings("recover", path).status, 0)
        self.assertEqual(self.content(path), b'A="1"\n')
        self.assertFalse(os.path.exists(copy))

    def test_set_get_and_delete(self):
        for option, separator in (([], b"="), (["-s", "space"], b" "), (["-s", "tab"], b"\t"),
                                  (["-s", "tab", "-s", "="], b"=")):
            path = self.write("conf", b"# c\nA" + separator + b"1\n")
            self.assertEqual(self.run_settings("set", *option, path, "A=x", 'B=a="$"').errors, "")
            self.assertEqual(self.content(path), b"# c\nA" + separator + b'"x"\nB' + separator +
                             b'"a=\\"\\$\\""\n')
            self.assertEqual(self.run_settings("get", *option, path, "B").output, 'a="$"\n')
            self.assertEqual(self.run_settings("delete", *option, path, "B", "C").status, 0)
            self.assertEqual(self.content(path), b"# c\nA" + separator + b'"x"\n')

    def test_set_changes_all_or_nothing(self):
        path = self.write("conf", b"A=1\n")
        for wrong, message in (("B=a\nb", "B: This contains a character that cannot be stored."),
                               ("B C=1", "B C: This name cannot be stored.")):
            done = self.run_settings("set", path, "A=2", wrong)
            self.assertEqual(done.status, 1)
            self.assertEqual(done.errors, f"corvel-settings: {message}\n")
        self.assertEqual(self.run_settings("set", path, "A=2", "B").status, 2)
        self.assertEqual(self.content(path), b"A=1\n")

    def test_missing_settings_and_files(self):
        path = self.write("conf", b"A=1\n")
        done = self.run_settings("get", path, "B")
        self.assertEqual((done.status, done.errors),
                         (1, f"corvel-settings: {path}: no such setting\n"))
        self.assertEqual(self.run_settings("get", f"{path}.missing", "B").status, 1)

    def test_wrong_usage(self):
        for arguments in ([], ["nonsense"], ["recover"], ["recover", "-s", "comma", "f"],
                          ["recover", "-s"], ["get", "f"], ["set", "f"], ["delete"],
                          ["get", "-s", "space"]):
            self.assertEqual(self.run_settings(*arguments).status, 2, arguments)
        path = self.write("conf", b"A=1\n")
        self.assertEqual(self.run_settings("get", path, "A", "B").status, 2)

    def test_help_and_manual_page(self):
        text = self.run_settings("--help")
        self.assertEqual(text.status, 0)
        page = SOURCE / "tools" / "corvel-settings.1"
        subprocess.run(["mandoc", "-T", "lint", "-W", "warning", page], check=True)
        manual = page.read_text()
        commands = re.findall(r"^  (\w+)  +[a-z]", text.output, re.MULTILINE)
        self.assertEqual(commands, ["recover", "get", "set", "delete"])
        for command in commands:
            self.assertIn(f".It Cm {command} ", manual)
