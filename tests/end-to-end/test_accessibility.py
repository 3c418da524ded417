# SPDX-License-Identifier: MIT
"""What a browser's user meets in every form: contrast, keyboard, and entries that are not lost."""

from demo_test import SharedDemoTest
from device import OWNER_PASSWORD


class Accessibility(SharedDemoTest):
    def test_axe_finds_nothing_in_any_state_of_a_page(self):
        image = self.make_directory() / "damaged.bin"
        image.write_bytes(bytes(100_000))
        self.assertEqual(self.walk("accessible", image).result(), "checked")

    def test_the_bar_with_the_button_never_covers_the_focused_field(self):
        covered = self.walk("keyboard").result()
        self.assertEqual(len(covered), 6)
        self.assertEqual([name for name, found in covered.items() if found], [])


class Entries(SharedDemoTest):
    def setUp(self):
        super().setUp()
        for name, content in self.demo.files().items():
            self.addCleanup(self.demo.file(name).write_bytes, content)

    def test_the_browser_asks_before_changed_entries_are_lost_and_only_then(self):
        self.assertEqual(self.walk("leaving").result(), {"unchanged": 0, "changed": 1, "saved": 0})

    def test_entries_outlast_the_end_of_the_session_but_not_the_passphrase(self):
        seen = self.walk("entries", PASSWORD=OWNER_PASSWORD).result()
        self.assertEqual((seen["domain"], seen["hidden"], seen["left"]), ("typed.example", True, 0))
        self.assertIn("not saved yet", seen["message"])
        self.assertNotIn("secret", seen["kept"])
        self.assertIn("typed.example", seen["kept"])

    def test_the_range_follows_the_address_of_the_router(self):
        self.assertEqual(self.walk("range").result(), ["10.20.30.100", "10.20.30.199"])
