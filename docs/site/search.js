// Finds the sections of all pages that contain every word in the search field. The index is loaded when the field gets
// the focus. It is a script, because a page that was opened from a file cannot fetch anything else.
"use strict";

const MAX_RESULTS = 20;
const SNIPPET_LENGTH = 160;
const field = document.getElementById("search");
const list = document.getElementById("results");
let sections = [];  // Made by scripts/docs_site.py: {url, page, heading, text}.

function loadIndex() {
  const script = document.createElement("script");
  script.src = "search_index.js";
  script.onload = () => {
    sections = searchIndex;
    showResults();
  };
  document.head.append(script);
}

function find(words) {
  const found = [];
  for (const section of sections) {
    const heading = `${section.page} ${section.heading}`.toLowerCase();
    const text = section.text.toLowerCase();
    if (!words.every(word => heading.includes(word) || text.includes(word))) continue;
    found.push({section, score: words.filter(word => heading.includes(word)).length});
  }
  found.sort((a, b) => b.score - a.score);  // Sections of equal score keep their order.
  return found.slice(0, MAX_RESULTS).map(one => one.section);
}

function snippet(text, words) {
  const first = Math.min(...words.map(word => text.toLowerCase().indexOf(word)).filter(at => at >= 0), text.length);
  const begin = first === text.length ? 0 : Math.max(0, first - 40);
  const end = begin + SNIPPET_LENGTH;
  return (begin > 0 ? "…" : "") + text.slice(begin, end) + (end < text.length ? "…" : "");
}

function showResults() {
  const words = field.value.toLowerCase().split(/\s+/).filter(Boolean);
  const found = words.length === 0 || sections.length === 0 ? [] : find(words);
  list.replaceChildren(...found.map(section => {
    const link = document.createElement("a");
    link.href = section.url;
    const title = document.createElement("b");
    title.textContent = section.heading === "" ? section.page : `${section.page}: ${section.heading}`;
    const text = document.createElement("span");
    text.textContent = snippet(section.text, words);
    link.append(title, text);
    return link;
  }));
  if (words.length > 0 && sections.length > 0 && found.length === 0) {
    list.textContent = "No section contains all of these words.";
  }
  list.hidden = words.length === 0;
}

field.hidden = false;
field.addEventListener("focus", loadIndex, {once: true});
field.addEventListener("input", showResults);
document.addEventListener("keydown", event => {
  if (event.key === "Escape") {
    field.value = "";
    showResults();
  } else if (event.key === "/" && !/INPUT|TEXTAREA/.test(document.activeElement.tagName)) {
    event.preventDefault();
    field.focus();
  }
});
list.addEventListener("click", () => {
  list.hidden = true;
});
