"""Tests the search of the website in build/docs, in headless Chromium."""
import unittest
from pathlib import Path

from browser import Browser

START_PAGE = Path(__file__).resolve().parent.parent / "build" / "docs" / "index.html"
# Types into the search field as a reader does; resolves to what the list then shows.
SEARCH = """new Promise((resolve, reject) => {
  const field = document.getElementById("search");
  const list = document.getElementById("results");
  const type = () => {
    field.value = %r;
    field.dispatchEvent(new Event("input"));
    const links = [...list.querySelectorAll("a")];
    resolve({hidden: list.hidden, text: list.textContent,
             found: links.map(link => [link.querySelector("b").textContent, link.getAttribute("href")])});
  };
  field.focus();
  const script = document.querySelector("script[src='search_index.js']");
  if (typeof searchIndex !== "undefined") return type();
  script.addEventListener("load", type);
  script.addEventListener("error", () => reject(new Error("search_index.js cannot be loaded")));
})"""


class SearchTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.browser = cls.enterClassContext(Browser())
        cls.browser.open(START_PAGE.as_uri())

    def search(self, words):
        return self.browser.evaluate(SEARCH % words)

    def test_finds_sections_with_every_word_in_any_case(self):
        for words, page in ("FULL queue", "reliability.html"), ("prometheus oxevent-stat", "stat.html"):
            found = self.search(words)["found"]
            self.assertIn(page, [link.partition("#")[0] for _, link in found], words)

    def test_lists_sections_with_the_words_in_their_heading_first(self):
        titles = [title for title, _ in self.search("queue")["found"]]
        in_title = ["queue" in title.lower() for title in titles]
        self.assertEqual(in_title, sorted(in_title, reverse=True), titles)
        self.assertEqual({*in_title}, {True, False}, titles)

    def test_says_that_nothing_was_found(self):
        result = self.search("no such-word-anywhere")
        self.assertEqual(result["found"], [])
        self.assertEqual(result["text"], "No section contains all of these words.")

    def test_hides_the_list_without_words(self):
        self.search("queue")
        self.assertTrue(self.search("  ")["hidden"])

    def test_shows_markup_in_the_documents_as_text(self):
        self.search("value name")
        self.assertEqual(self.browser.evaluate("document.querySelectorAll('#results value').length"), 0)


if __name__ == "__main__":
    unittest.main()
