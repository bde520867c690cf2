"use strict";
// Strings of events reach the page as text nodes only.
const data = JSON.parse(document.getElementById("data").textContent);
const ROWS_AT_ONCE = 200;
const form = document.getElementById("filter");
const text = document.getElementById("text");
const rank = document.getElementById("rank");
const body = document.querySelector("#events tbody");
const more = document.getElementById("more");
const lower = (strings) => strings.map((string) => string.toLowerCase());
const keys = lower(data.keys);
const messages = lower(data.messages);
let conditions;  // The elements of the list and of the time line; undefined until a filter is first set.
let matches = [];  // Indices of the events that match, the newest first.
let shown = 0;

function add(parent, name, content, className) {
  const element = parent.appendChild(document.createElement(name));
  element.className = className || "";
  element.textContent = content;
  return element;
}

function addEvent(index) {
  const row = body.appendChild(document.createElement("tr"));
  const severity = data.severities[data.ranks[index]];
  add(row, "td", new Date(data.times[index]).toISOString().replace("T", " ").slice(0, 23), "fixed");
  add(add(row, "td", ""), "span", severity, "severity " + severity);
  add(add(row, "td", ""), "bdi", data.actions[data.action[index]]);
  const cell = add(row, "td", "");
  add(cell, "bdi", data.keys[data.key[index]], "key");
  add(cell, "bdi", data.messages[data.message[index]]);
}

function showMore() {
  const end = Math.min(shown + ROWS_AT_ONCE, matches.length);
  while (shown < end) addEvent(matches[shown++]);
  more.hidden = shown === matches.length;
}

function filterConditions(wanted, lowest) {
  if (!conditions && !wanted && !lowest) return;
  conditions ||= Array.from(document.querySelectorAll("[data-rank]"), (element) => ({
    element, rank: Number(element.dataset.rank), text: element.textContent.toLowerCase()}));
  for (const one of conditions) one.element.hidden = one.rank < lowest || !one.text.includes(wanted);
  for (const chunk of document.querySelectorAll(".chunk")) {
    chunk.hidden = !chunk.querySelector("[data-rank]:not([hidden])");
  }
}

function filter() {
  const wanted = text.value.toLowerCase();
  const lowest = Number(rank.value);
  const has = (string) => string.includes(wanted);
  const keyMatches = keys.map(has);
  const messageMatches = messages.map(has);
  filterConditions(wanted, lowest);
  matches = [];
  for (let i = data.times.length - 1; i >= 0; --i) {
    if (data.ranks[i] >= lowest && (keyMatches[data.key[i]] || messageMatches[data.message[i]])) matches.push(i);
  }
  body.replaceChildren();
  shown = 0;
  const noun = matches.length === 1 ? " event" : " events";
  document.getElementById("matches").value = matches.length.toLocaleString("en") + noun;
  showMore();
}

// The part of the address after # is the text of the filter.
function applyAddress() {
  const hash = location.hash.slice(1);
  try {
    text.value = decodeURIComponent(hash);
  } catch (error) {
    text.value = hash;
  }
  filter();
}

let timer;
form.hidden = false;
form.addEventListener("submit", (event) => event.preventDefault());
form.addEventListener("input", () => {
  clearTimeout(timer);
  timer = setTimeout(filter, 150);
});
addEventListener("hashchange", applyAddress);
new IntersectionObserver((entries) => {
  if (entries.some((entry) => entry.isIntersecting)) showMore();
}, {rootMargin: "600px"}).observe(more);
applyAddress();
