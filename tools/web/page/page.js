// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// Shows what the server tells (see EventFeed.h). Everything from members is written as text, never as markup.
//
// Messages are understood frame by frame, for a few milliseconds each, so that keys are always answered. Only the rows
// that are seen are drawn.
"use strict";

const WORK_PER_FRAME = 8;  // Milliseconds.
const MOST_WAITING = 4 << 20;  // Characters that wait to be understood; beyond that they are not put off any more.
const MOST_VALUE = 4096;  // Characters of a text that are kept here,
const MOST_BASE64 = 1024;  // and of what is no text; four for each three bytes.
const MOST_POINTS = 48, MOST_TEXTS = 8, MOST_OF_TEXT = 120;  // Of a row's history.
const MOST_LOG = 100, MOST_TABLES = 200, MOST_GONE = 64;
const MOST_PAIRS_OF = 12;  // With more members only the streams of the chosen one are drawn.
const MOST_NAMES = 9;  // With more members a phone shows only the name of the chosen one.
const BETWEEN_SORTINGS = 400, BETWEEN_FLASHES = 250, GONE_IS_SHOWN = 60000;  // Milliseconds.
const SILENCE = 30000, PAUSE = 2000;  // The server tells the time every 10 seconds.
const TO_MEET = 5000;  // So long a server that has begun anew may take to meet the members,
const TO_HEAR = 60000;  // and to hear all of their rows.

const $ = (id) => document.getElementById(id);
const SVG = "http://www.w3.org/2000/svg";

function make(name, classes, text) {
  const element = document.createElement(name);
  if (classes) element.className = classes;
  if (text !== undefined) element.textContent = text;
  return element;
}

function draw(name, attributes) {
  const element = document.createElementNS(SVG, name);
  for (const [key, value] of Object.entries(attributes)) element.setAttribute(key, value);
  return element;
}

function setText(element, text) {
  if (element.textContent !== text) element.textContent = text;
}

// Bytes get a mark: what is shown of them could be a text as well.
function setName(element, name) {
  setText(element, name.shown);
  element.classList.toggle("raw", name.bytes);
}

function named(name) {
  const element = make("span");
  setName(element, name);
  return element;
}

// Moves none that is there already: that would take the focus, or a click, from it. So their order must not change.
function putInto(parent, elements) {
  const wanted = new Set(elements);
  for (const child of [...parent.children]) if (!wanted.has(child)) child.remove();
  elements.forEach((element, i) => {
    if (parent.children[i] !== element) parent.insertBefore(element, parent.children[i] || null);
  });
}


// Texts

// Characters that cannot be seen, or change how those around them look.
const HIDDEN = new RegExp("[\\\\\\x00-\\x1f\\x7f-\\x9f\\xad\\u061c\\u200b-\\u200f\\u2028-\\u202e\\u2060-\\u206f" +
                          "\\ufeff\\ufff0-\\ufffb\\ue000-\\uf8ff]|[\\u{e0000}-\\u{e0fff}\\u{f0000}-\\u{10ffff}]", "gu");

function escaped(character) {
  const code = character.codePointAt(0);
  if (character === "\\") return "\\\\";
  return code < 0x100 ? "\\x" + code.toString(16).padStart(2, "0") : "\\u{" + code.toString(16) + "}";
}

function printable(text) {
  return text.replace(HIDDEN, escaped);
}

function hex(base64) {
  const bytes = Array.from(atob(base64), (byte) => byte.charCodeAt(0).toString(16).padStart(2, "0"));
  return bytes.join(" ");
}

// A text of the server's, or in base64 what is none: what it is known by, what is shown of it, whether that is its
// beginning alone, and whether it is bytes.
function read(object, name) {
  const text = object[name];
  if (text !== undefined) {
    const cut = text.length > MOST_VALUE, shown = printable(cut ? text.slice(0, MOST_VALUE) : text);
    return { id: "t" + text, shown, cut, bytes: false, size: text.length };
  }
  const base64 = object[name + "64"] || "", cut = base64.length > MOST_BASE64;
  const padding = base64.endsWith("==") ? 2 : base64.endsWith("=") ? 1 : 0;
  const shown = hex(base64.slice(0, MOST_BASE64)) + (cut ? " …" : "");
  return { id: "b" + base64, shown, cut, bytes: true, size: base64.length / 4 * 3 - padding };
}

// Both names of a member.
function readMember(object) {
  const device = read(object, "device"), process = read(object, "process");
  return { id: device.id.length + device.id + process.id, shown: device.shown + "::" + process.shown,
           bytes: device.bytes || process.bytes };
}

// A name where nothing can be marked.
const spoken = (name) => (name.bytes ? "bytes " : "") + name.shown;

// What is no number, or none that can be drawn, is NaN.
function number(text) {
  const figure = /^\s*[-+]?(\d+(\.\d*)?|\.\d+)([eE][-+]?\d+)?\s*$/.test(text) ? Number(text) : NaN;
  return Number.isFinite(figure) ? figure : NaN;
}

const count = (n) => n.toLocaleString("en");
const plural = (n, noun) => count(n) + " " + noun + (n === 1 ? "" : "s");
const clock = (time) => new Date(time).toLocaleTimeString("en-GB");

function age(milliseconds) {
  const seconds = Math.max(0, Math.floor(milliseconds / 1000));
  if (seconds < 2) return "now";
  if (seconds < 100) return seconds + " s";
  if (seconds < 6000) return Math.floor(seconds / 60) + " min";
  if (seconds < 172800) return Math.floor(seconds / 3600) + " h";
  return Math.floor(seconds / 86400) + " d";
}


// What there is

const members = new Map();  // By place.
const gone = new Map();     // The same, for a while.
const rows = new Map();
const setters = new Map();  // The rows with one table and key.
const tables = new Map();   // Their names, and how many rows each has.
let whose = null;           // The group and the database.
let generation = 0;         // A new one with each connection. What has an older one is no more.
let changes = 0;            // The number of the last change.
let serverTime = 0;         // As it was told last.
let lead = 0;               // How far it is ahead of ours.
let log = [];

const now = () => Date.now() + lead;

class Row {
  constructor(id, keyId, member, table, key) {
    this.id = id;
    this.keyId = keyId;
    this.member = member;
    this.table = table;
    this.key = { shown: key.shown, bytes: key.bytes };
    this.sort = [table.shown, table.bytes, key.shown, key.bytes, member.name.shown].join("\0");
    this.value = null;
    this.times = this.numbers = this.texts = null;
    this.gap = 0;
    this.gone = false;
  }

  // Whether that is another value. A server that has begun anew tells all of them anew, with times of its own.
  set(value, time, fresh) {
    const known = this.value !== null, shown = value.shown;
    const same = this.value === shown && this.bytes === value.bytes && this.size === value.size;
    if (same && !(value.cut && fresh)) return false;  // Of a long value, the rest may have changed.
    if (known && fresh) this.flash = performance.now();
    this.value = shown;
    this.bytes = value.bytes;
    this.cut = value.cut;
    this.size = value.size;
    this.time = time;
    this.hay = null;
    const figure = value.bytes || value.cut ? NaN : number(shown);
    if (isNaN(figure)) {
      this.times = this.numbers = null;
      this.addText(value, time);
    } else {
      this.texts = null;
      this.addPoint(figure, time);
    }
    return true;
  }

  // When there are too many, every second one goes, so the line reaches back as far as the page does.
  addPoint(figure, time) {
    if (!this.times) this.times = [], this.numbers = [], this.gap = 0;
    const last = this.times.length - 1, back = last < 0 ? 0 : this.times[last] - time;
    if (back > 0) this.times = this.times.map((before) => before - back);  // The clock of the server was set back.
    if (last > 0 && time - this.times[last - 1] < this.gap) {
      this.times[last] = time;
      this.numbers[last] = figure;
      return;
    }
    this.times.push(time);
    this.numbers.push(figure);
    if (this.times.length < MOST_POINTS) return;
    this.gap = Math.max(1, 2 * (time - this.times[0]) / MOST_POINTS);
    this.times = this.times.filter((_, i) => i % 2 === 0 || i === last + 1);
    this.numbers = this.numbers.filter((_, i) => i % 2 === 0 || i === last + 1);
  }

  addText({ shown, bytes }, time) {
    if (!this.texts) this.texts = [];
    this.texts.push({ time, shown: shown.slice(0, MOST_OF_TEXT), bytes });
    if (this.texts.length > MOST_TEXTS) this.texts.shift();
  }

  get others() {
    const all = setters.get(this.keyId);
    return all ? all.filter((row) => row !== this) : [];
  }

  get words() {
    if (this.hay === null) {
      const parts = [this.table.shown, this.key.shown, this.value.slice(0, 512), this.member.name.shown];
      this.hay = parts.join("\n").toLowerCase();
    }
    return this.hay;
  }
}

function tableOf({ id, shown, bytes }) {
  if (!tables.has(id)) {
    tables.set(id, { id, shown, bytes, rows: 0 });
    view.tables = null;
  }
  return tables.get(id);
}

function addSetter(row) {
  const first = setters.get(row.keyId);
  if (first) first.push(row);
  else setters.set(row.keyId, [row]);
  ++row.table.rows;
}

function removeRow(row) {
  row.gone = true;
  rows.delete(row.id);
  view.added.delete(row);  // In a page that is not seen nothing else would take it out of there.
  view.touched.delete(row);
  const left = row.others;
  if (left.length) setters.set(row.keyId, left);
  else setters.delete(row.keyId);
  if (--row.table.rows > 0) return;
  tables.delete(row.table.id);
  view.tables = null;
}

const placeOf = (data) => data.address + ":" + data.port;

const on = {
  time(data) {
    serverTime = Date.parse(data.time);
    lead = serverTime - Date.now();
  },

  hello(data) {
    const whole = read(data, "group").id + "\0" + read(data, "database").id;
    if (whose !== null && whose !== whole) forgetAll();
    whose = whole;
    ++generation;
    view.ready = false;
    lost("");
    setName($("group"), read(data, "group"));
    setName($("database"), read(data, "database"));
    document.title = spoken(read(data, "group")) + " – Varnix";
  },

  member(data) {
    const place = placeOf(data), known = members.get(place);
    const since = Date.parse(data.since), name = readMember(data);
    // A server that has begun anew has met it anew.
    if (known && known.name.id === name.id && (known.since === since || known.generation !== generation)) {
      Object.assign(known, { since, generation, met: Date.now() });
      return;
    }
    if (known) removeMember(known, now(), "has left");
    gone.delete(place);
    const member = { place, name, since, rows: new Set(), generation, met: Date.now(), changes: 0, busy: false };
    members.set(place, member);
    note(since, member, "came", "");
  },

  left(data) {
    const place = placeOf(data), since = Date.parse(data.since);
    const isMeant = () => members.has(place) && members.get(place).since === since;
    // It has come and left since the last piece. At the beginning: only what left after this page came.
    if (!isMeant() && (view.ready || Date.parse(data.left) > serverTime)) on.member(data);
    if (isMeant()) removeMember(members.get(place), Date.parse(data.left), data.reason);
  },

  row(data) {
    const member = members.get(placeOf(data));
    if (!member) return;
    const table = read(data, "table"), key = read(data, "key");
    const keyId = table.id.length + table.id + key.id, id = member.place + " " + keyId;
    let row = rows.get(id);
    if (!row) {
      row = new Row(id, keyId, member, tableOf(table), key);
      rows.set(id, row);
      member.rows.add(row);
      addSetter(row);
      view.added.add(row);
    }
    if (row.generation !== generation) row.generation = generation, member.met = Date.now();
    if (view.ready) ++member.changes;
    if (!row.set(read(data, "value"), Date.parse(data.time), view.ready)) return;
    row.order = ++changes;
    view.changed = true;
    if (view.byChange) view.touched.add(row);
  },

  ready() {
    view.ready = true;
    countedChanges = changes;  // What was there already does not count.
    forgetLater(Date.now());
  },
};

// By the clock of this browser: that of the server may be set meanwhile.
function forgetLater(begun) {
  const current = generation;
  setTimeout(() => current === generation && view.ready && forgetOlder(begun), TO_MEET);
}

// What was there before the connection was lost, and is there no more, was not told again. Where rows are still told
// for the first time, more of the same member may follow; but some members set new ones all the time.
function forgetOlder(begun) {
  const time = Date.now();
  let late = false;
  for (const member of [...members.values()]) {
    if (member.generation !== generation) removeMember(member, now(), "has left");
  }
  for (const row of [...rows.values()]) {
    if (row.generation === generation) continue;
    if (time - row.member.met < TO_MEET && time - begun < TO_HEAR) {
      late = true;
      continue;
    }
    row.member.rows.delete(row);
    removeRow(row);
    view.removed = true;
  }
  if (late) forgetLater(begun);
  frame();
}

function removeMember(member, time, reason) {
  members.delete(member.place);
  gone.set(member.place, Object.assign(member, { left: time, busy: false }));
  if (gone.size > MOST_GONE) gone.delete(gone.keys().next().value);
  for (const row of member.rows) removeRow(row);
  member.rows = new Set();
  if (view.chosenMember === member.place) view.chosenMember = null, view.wanted = true;
  view.removed = true;
  note(time, member, "left", reason === "has left" ? "" : reason);
}

function forgetAll() {
  for (const row of rows.values()) row.gone = true;  // One may be open.
  for (const map of [members, gone, rows, setters, tables]) map.clear();
  log = [];
  Object.assign(view, { sorted: [], added: new Set(), newest: [], touched: new Set(), shown: [], work: null });
  Object.assign(view, { table: null, tables: null, chosenMember: null, chosen: null });
  view.wanted = view.logged = view.graph = true;
}

function note(time, member, what, reason) {
  log.push({ time, name: member.name, what, reason });
  if (log.length > MOST_LOG) log.shift();
  view.logged = view.graph = true;
}


// The connection

let source = null, heard = 0, waiting = [], waitingSize = 0;

function connect() {
  source = new EventSource("/events");
  heard = Date.now();
  for (const kind of ["time", "hello", "member", "left", "rows", "ready"]) {
    source.addEventListener(kind, (event) => {
      heard = Date.now();
      waiting.push({ kind, data: event.data, at: 0 });
      waitingSize += event.data.length;
      if (document.hidden || waitingSize > MOST_WAITING) understand(Infinity);
      else frame();
    });
  }
  source.onerror = reconnect;
}

// Not left to the browser: it gives up for good when the server refuses.
function reconnect() {
  if (!source) return;
  source.close();
  source = null;
  understand(Infinity);
  view.ready = false;
  lost("no answer since " + clock(heard + lead) + ", trying again");
  setTimeout(connect, PAUSE);
}

function lost(text) {
  document.body.classList.toggle("lost", text !== "");
  setText($("state"), text || "live");
}

// Until a point in time. Rows come one a line.
function understand(end) {
  while (waiting.length && performance.now() < end) {
    const message = waiting[0];
    if (message.kind === "rows") {
      if (!understandRows(message, end)) return;
    } else {
      on[message.kind](JSON.parse(message.data));
    }
    waitingSize -= message.data.length;
    waiting.shift();
  }
}

function understandRows(message, end) {
  const text = message.data;
  for (let lines = 0; message.at < text.length; ++lines) {
    if (lines % 32 === 31 && performance.now() >= end) return false;
    const newline = text.indexOf("\n", message.at);
    const stop = newline < 0 ? text.length : newline;
    on.row(JSON.parse(text.slice(message.at, stop)));
    message.at = stop + 1;
  }
  return true;
}


// The view

const view = {
  ready: false,       // Everything that was there has been told.
  sorted: [],         // All rows, by name.
  added: new Set(),   // Those that are not in there yet.
  newest: [],         // All rows, the last change first, while that is the order,
  touched: new Set(), // and those that have changed since they were put there.
  shown: [],          // Those that the filter lets through, in their order.
  work: null,         // What is filtered at the moment.
  words: [],          // Of the filter.
  table: null,        // Of which alone the rows are shown.
  tables: null,       // Those that have a button; null when others may have come or gone.
  chosenMember: null, // Whose rows alone are shown.
  byChange: false,
  chosen: null,       // A row.
  changed: true, removed: true, logged: true, graph: true, wanted: true,
  moved: true,        // Other rows are shown, or at other places.
  sortedAt: 0,
  pool: [],           // The elements of rows, those that are free included.
  ids: 0,             // The last number that an element got.
  detail: null, detailOrder: 0, detailGone: false,  // The row that is shown alone, as it was when it was drawn.
};

const byName = (left, right) => (left.sort < right.sort ? -1 : left.sort > right.sort ? 1 : 0);

// A page that is slow is told some rows by name, not in the order in which they have changed.
const byTime = (left, right) => right.time - left.time || right.order - left.order;

function merge(left, right, order) {
  const merged = [];
  let i = 0, j = 0;
  while (i < left.length || j < right.length) {
    const row = j >= right.length || (i < left.length && order(left[i], right[j]) <= 0) ? left[i++] : right[j++];
    if (!row.gone) merged.push(row);
  }
  return merged;
}

// Only what has changed is sorted: of many rows that are few.
function newestFirst() {
  const first = [...view.touched].sort(byTime);
  view.newest = merge(first, view.newest.filter((row) => !view.touched.has(row)), byTime);
  view.touched.clear();
  return view.newest;
}

function isWanted(row) {
  if (row.gone || (view.table !== null && row.table.id !== view.table)) return false;
  if (view.chosenMember && row.member.place !== view.chosenMember) return false;
  for (const word of view.words) if (!row.words.includes(word)) return false;
  return true;
}

// In slices, so that a long list does not keep anybody waiting.
function arrange(end) {
  if (!view.work) {
    const due = view.wanted || performance.now() - view.sortedAt > BETWEEN_SORTINGS;
    const reason = view.added.size || view.removed || (view.changed && (view.byChange || view.words.length));
    if (!view.wanted && !(due && reason)) return;
    if (view.added.size || view.removed) view.sorted = merge(view.sorted, [...view.added].sort(byName), byName);
    view.added.clear();
    view.work = { at: 0, found: [], all: view.byChange ? newestFirst() : view.sorted };
    view.wanted = view.removed = view.changed = false;
  }
  const { work } = view;
  while (work.at < work.all.length) {
    const row = work.all[work.at++];
    if (isWanted(row)) work.found.push(row);
    if (work.at % 64 === 0 && performance.now() >= end) return frame();
  }
  view.shown = work.found;
  view.work = null;
  view.sortedAt = performance.now();
  view.moved = true;
}

function wish() {
  view.work = null;
  view.wanted = true;
  frame();
}

let framed = false;

function frame() {
  if (framed) return;
  framed = true;
  requestAnimationFrame(() => {
    framed = false;
    const end = performance.now() + WORK_PER_FRAME;
    understand(end);
    arrange(end + WORK_PER_FRAME / 2);
    drawRows();
    if (view.graph) drawGraph();
    if (view.logged) drawLog();
    const stale = view.added.size || view.removed || (view.changed && (view.byChange || view.words.length));
    if (waiting.length || stale || view.work) frame();
  });
}


// The rows that are seen

const grid = $("grid"), space = $("space");
let rowHeight = 34, viewHeight = 0;

function measure() {
  rowHeight = parseFloat(getComputedStyle(document.documentElement).getPropertyValue("--row"));
  viewHeight = grid.clientHeight;
  view.moved = true;
  frame();
}

function makeRow() {
  const element = make("div", "row");
  element.setAttribute("role", "row");
  const cell = (classes, parent = element) => {
    const span = parent.appendChild(make("span", classes));
    if (parent === element) span.setAttribute("role", "gridcell");
    return span;
  };
  const name = cell("name");
  const parts = { element, table: cell("table", name), key: cell("key", name), two: cell("mark set", name) };
  const value = cell("value");
  const line = element.appendChild(draw("svg", { class: "line", viewBox: "0 0 100 22", "aria-hidden": "true" }));
  parts.path = line.appendChild(draw("path", {}));
  Object.assign(parts, { value, by: cell("by"), age: cell("age"), row: null, index: -1, order: -1, flashed: 0 });
  element.addEventListener("click", () => {
    choose(parts.index);
    showDetail(parts.row);
  });
  space.appendChild(element);
  return parts;
}

function drawRows() {
  const { shown, pool } = view;
  const time = performance.now();
  const first = Math.max(0, Math.floor(grid.scrollTop / rowHeight) - 2);
  const last = Math.min(shown.length, Math.ceil((grid.scrollTop + viewHeight) / rowHeight) + 2);
  if (view.moved) {
    const height = shown.length * rowHeight + "px";
    if (space.style.height !== height) space.style.height = height;
    grid.setAttribute("aria-rowcount", shown.length);
    drawFound();
    drawTables();
  }
  view.moved = false;
  while (pool.length < last - first) pool.push(makeRow());
  // A row keeps its element while it is seen, wherever it is.
  const elements = new Map();
  for (const parts of pool) if (parts.row) elements.set(parts.row, parts);
  const used = new Set();
  for (let i = first; i < last; ++i) if (elements.has(shown[i])) used.add(elements.get(shown[i]));
  const spare = pool.filter((parts) => !used.has(parts));
  for (let i = first; i < last; ++i) drawRow(elements.get(shown[i]) || spare.pop(), shown[i], i, time);
  for (const parts of spare) {
    parts.element.hidden = true;
    parts.row = null;
    parts.index = -1;
  }
  drawActive();
  const { detail } = view;
  if (detail && (detail.order !== view.detailOrder || detail.gone !== view.detailGone)) drawDetail();
}

// The element of the chosen row, for those who hear the page: there is one while it is seen, and not always the same.
function drawActive() {
  const parts = view.chosen && view.pool.find((one) => one.row === view.chosen);
  if (!parts) grid.removeAttribute("aria-activedescendant");
  else if (grid.getAttribute("aria-activedescendant") !== parts.element.id) {
    grid.setAttribute("aria-activedescendant", parts.element.id);
  }
}

function drawRow(parts, row, index, time) {
  const { element } = parts;
  const isNew = parts.row !== row;
  if (isNew) {
    parts.row = row;
    parts.order = -1;
    element.hidden = false;
    element.id = "row" + ++view.ids;
    setName(parts.table, row.table);
    setName(parts.key, row.key);
    setName(parts.by, row.member.name);
  }
  if (parts.index !== index) {
    parts.index = index;
    element.style.transform = "translateY(" + index * rowHeight + "px)";
    element.setAttribute("aria-rowindex", index + 1);
  }
  const others = row.others.length;
  const classes = "row" + (row === view.chosen ? " chosen" : "") + (others ? " two" : "");
  if (element.className !== classes) element.className = classes;
  if (others) setText(parts.two, others + 1 + " set this");
  if (parts.order !== row.order) {
    parts.order = row.order;
    setName(parts.value, { shown: row.value.slice(0, 300), bytes: row.bytes });
    parts.path.setAttribute("d", row.numbers && row.numbers.length > 1 ? steps(row, 100, 22) : "");
  }
  setText(parts.age, age(now() - row.time));
  if (isNew) parts.flashed = row.flash || 0;
  if (row.flash > parts.flashed && time - row.flash < 1000 && time - parts.flashed > BETWEEN_FLASHES) {
    parts.flashed = row.flash;
    flash(parts.value);
  }
}

const still = matchMedia("(prefers-reduced-motion: reduce)");

// Where nothing is to move, the colour stays for a while, and does not fade.
function flash(element) {
  const colour = getComputedStyle(document.documentElement).getPropertyValue("--flash");
  for (const running of element.getAnimations()) running.cancel();
  element.animate([{ backgroundColor: colour }, { backgroundColor: "transparent" }],
                  { duration: 1200, easing: still.matches ? "step-end" : "ease-out" });
}

// A value holds until the next one. Halves, because the difference of two numbers can be beyond all numbers.
function steps(row, width, height) {
  const { times, numbers } = row;
  const start = times[0], end = Math.max(times[times.length - 1] + 1, start + 1);
  const low = Math.min(...numbers) / 2, high = Math.max(...numbers) / 2;
  const x = (time) => ((time - start) / (end - start) * (width - 2) + 1).toFixed(1);
  const up = (figure) => (high === low ? height / 2 - 2 : (figure / 2 - low) / (high - low) * (height - 4));
  const y = (figure) => (height - 2 - up(figure)).toFixed(1);
  let path = "M" + x(start) + " " + y(numbers[0]);
  for (let i = 1; i < times.length; ++i) path += "H" + x(times[i]) + "V" + y(numbers[i]);
  return path + "H" + (width - 1);
}

function drawFound() {
  const all = rows.size, some = view.shown.length;
  const none = view.ready && !all ? "No rows yet." : "";
  setText($("found"), isFiltered() ? count(some) + " of " + plural(all, "row") : none);
}

const isFiltered = () => view.words.length > 0 || view.table !== null || view.chosenMember !== null;

function drawTables() {
  if (view.table !== null && !tables.has(view.table)) view.table = null, wish();
  if (!view.tables) view.tables = firstTables();
  const some = view.tables;
  const nav = $("choice"), known = new Map(Array.from(nav.children, (button) => [button.dataset.table, button]));
  nav.hidden = some.length < 2 && view.table === null;
  putInto(nav, [null, ...some].map((table) => {
    const id = table ? table.id : "", button = known.get(id) || makeTable(id, table);
    if (table) setText(button.lastChild, count(table.rows));
    const pressed = String((view.table || "") === id);
    if (button.getAttribute("aria-pressed") !== pressed) button.setAttribute("aria-pressed", pressed);
    return button;
  }));
}

function firstTables() {
  const order = (left, right) =>
    (left.shown < right.shown ? -1 : left.shown > right.shown ? 1 : left.bytes - right.bytes);
  return [...tables.values()].sort(order).slice(0, MOST_TABLES);
}

// The button of one table, or of all.
function makeTable(id, table) {
  const button = make("button");
  button.type = "button";
  button.dataset.table = id;
  setName(button, { shown: table ? table.shown || "(no name)" : "All tables", bytes: table !== null && table.bytes });
  if (table) button.appendChild(make("small"));
  button.addEventListener("click", () => {
    view.table = id || null;
    grid.scrollTop = 0;
    wish();
  });
  return button;
}

function choose(index) {
  if (!view.shown.length) return;
  index = Math.max(0, Math.min(view.shown.length - 1, index));
  view.chosen = view.shown[index];
  const top = index * rowHeight;
  if (top < grid.scrollTop) grid.scrollTop = top;
  else if (top + rowHeight > grid.scrollTop + grid.clientHeight) grid.scrollTop = top + rowHeight - grid.clientHeight;
  drawRows();
}


// One row

function showDetail(row) {
  if (!row) return;
  view.detail = row;
  drawDetail();
  if (!$("detail").open) $("detail").showModal();
}

function drawDetail() {
  const row = view.detail;
  view.detailOrder = row.order;
  view.detailGone = row.gone;
  setName($("detail-table"), row.table);
  setName($("detail-key"), row.key);
  setName($("detail-by"), { shown: row.member.name.shown + " at " + row.member.place + ", " + clock(row.time) +
                                   (row.gone ? " – this member has left" : ""), bytes: row.member.name.bytes });
  setName($("detail-value"), { shown: row.value, bytes: row.bytes });
  const rest = row.cut ? ", of which the beginning is shown" : "";
  setText($("detail-size"), plural(row.size, row.bytes ? "byte" : "character") + rest);
  const line = row.numbers && row.numbers.length > 1;
  $("detail-line").toggleAttribute("hidden", !line);
  setText($("detail-range"), line ? range(row) : "");
  if (line) $("detail-line").firstElementChild.setAttribute("d", steps(row, 480, 120));
  const past = row.texts && row.texts.length > 1 ? row.texts.slice(0, -1).reverse() : [];
  $("detail-past").replaceChildren(...past.map((text) => {
    const item = make("li");
    item.append(make("time", "", clock(text.time)), named(text));
    return item;
  }));
  $("detail-others").replaceChildren(...row.others.map((other) => {
    const item = make("div"), value = { shown: other.value.slice(0, MOST_OF_TEXT), bytes: other.bytes };
    item.append(named(other.member.name), " sets this, too: ", named(value));
    return item;
  }));
}

function range(row) {
  return clock(row.times[0]) + " to " + clock(row.time) + ", " + Math.min(...row.numbers) + " to " +
         Math.max(...row.numbers);
}


// The members

const me = draw("g", { class: "me" });
me.append(draw("rect", { x: -5, y: -5, width: 10, height: 10, rx: 3 }));

function drawGraph() {
  view.graph = false;
  for (const [place, member] of gone) if (now() - member.left > GONE_IS_SHOWN) gone.delete(place);
  const all = [...members.values(), ...gone.values()];
  const nameOf = (member) => member.name.shown + "\0" + member.place;
  all.sort((left, right) => (nameOf(left) < nameOf(right) ? -1 : 1));
  all.forEach((member, i) => {
    const angle = 2 * Math.PI * i / all.length - Math.PI / 2;
    member.x = 112 * Math.cos(angle);
    member.y = 86 * Math.sin(angle);
  });
  $("graph").style.setProperty("--reach", reach(all).toFixed(1) + "px");
  $("graph").classList.toggle("many", all.length > MOST_NAMES);
  const had = document.activeElement && document.activeElement.dataset.place;
  drawEdges(all.filter((member) => !member.left || members.has(member.place)));
  putInto($("nodes"), [me, ...all.map(drawNode)]);
  if (had !== undefined && document.activeElement.dataset.place !== had) {  // It has left, and has come again.
    for (const node of $("nodes").children) if (node.dataset.place === had) node.focus();
  }
  setText($("legend"), members.size === 0 ? "Nobody is there." :
    "Full lines: what this page receives. Dotted: the two streams of each pair, which nobody else can see" +
    (members.size > MOST_PAIRS_OF && !view.chosenMember ? "; choose a member to see its own." : "."));
}

// How large a member may be, so that no click on it is one on its neighbour, while it can still be seen.
function reach(all) {
  const halves = all.map((member, i) => Math.hypot(member.x - all.at(i - 1).x, member.y - all.at(i - 1).y) / 2);
  return Math.max(4, Math.min(...halves.filter((half) => half > 0), 26));
}

function drawEdges(present) {
  const edges = present.map((member) => draw("path", { class: "pair seen", d: arc(member, { x: 0, y: 0 }, 0, 14) }));
  const few = !view.chosenMember && present.length <= MOST_PAIRS_OF;
  const some = few ? present : present.filter((member) => member.place === view.chosenMember);
  some.forEach((left, i) => {
    for (const right of few ? present.slice(i + 1) : present) {
      if (right === left) continue;
      for (const [from, to] of [[left, right], [right, left]]) {
        edges.push(draw("path", { class: "pair", d: arc(from, to, 12, 14), "marker-end": "url(#tip)" }));
      }
    }
  });
  $("edges").replaceChildren(...edges);
}

// From one point to the other, bent to the side, and ending before the circle.
function arc(from, to, bend, short) {
  const dx = to.x - from.x, dy = to.y - from.y, length = Math.hypot(dx, dy) || 1;
  const ux = dx / length, uy = dy / length;
  const x = (from.x + to.x) / 2 - uy * bend, y = (from.y + to.y) / 2 + ux * bend;
  const point = (a, b) => a.toFixed(1) + " " + b.toFixed(1);
  return "M" + point(from.x + ux * short, from.y + uy * short) + "Q" + point(x, y) + " " +
         point(to.x - ux * short, to.y - uy * short);
}

function drawNode(member) {
  const node = member.node || (member.node = makeNode(member));
  const here = isHere(member), chosen = isChosen(member), rowsOfIt = plural(member.rows.size, "row");
  const classes = "node" + (here ? "" : " gone") + (chosen ? " chosen" : "") + (member.busy ? " busy" : "");
  node.setAttribute("class", classes);
  node.setAttribute("transform", "translate(" + member.x.toFixed(1) + " " + member.y.toFixed(1) + ")");
  node.setAttribute("aria-pressed", chosen);
  node.setAttribute("aria-label", spoken(member.name) + (here ? ", " + rowsOfIt : ", has left"));
  const [label, sub] = node.querySelectorAll("text"), below = member.y > -20;
  const labelled = members.size + gone.size <= 2 * MOST_PAIRS_OF || chosen;
  label.setAttribute("y", below ? 28 : -29);
  sub.setAttribute("y", below ? 40 : -18);
  for (const text of [label, sub]) text.toggleAttribute("hidden", !labelled);
  setText(sub, here ? rowsOfIt : "has left");
  return node;
}

const isHere = (member) => members.get(member.place) === member;
const isChosen = (member) => view.chosenMember === member.place;

function makeNode(member) {
  const node = draw("g", { tabindex: 0, role: "button" }), title = draw("title", {});
  const label = draw("text", {}), mark = draw("tspan", { class: "mark" });
  node.dataset.place = member.place;
  mark.textContent = member.name.bytes ? "bytes " : "";
  label.append(mark, cut(member.name.shown, 20));
  title.textContent = spoken(member.name) + "\n" + member.place;
  node.append(draw("circle", { class: "pulse", r: 15 }), draw("circle", { r: 8 }), label,
              draw("text", { class: "sub" }), title);
  const press = () => {
    view.chosenMember = isChosen(member) || !isHere(member) ? null : member.place;
    view.graph = true;
    grid.scrollTop = 0;
    wish();
  };
  node.addEventListener("click", press);
  node.addEventListener("keydown", (event) => {
    if (event.key !== "Enter" && event.key !== " ") return;
    event.preventDefault();
    event.stopPropagation();
    press();
  });
  return node;
}

const cut = (text, most) => (text.length > most ? text.slice(0, most - 1) + "…" : text);

function drawLog() {
  view.logged = false;
  $("log").replaceChildren(...log.slice().reverse().map(({ time, name, what, reason }) => {
    const item = make("li", what), event = make("span");
    setName(event, { shown: name.shown + " " + what + (reason ? ": " + reason : ""), bytes: name.bytes });
    item.append(make("time", "", clock(time)), event);
    return item;
  }));
}


// Once a second: ages, rates, and whether the server is still there

let countedChanges = 0, countedAt = performance.now();

function tick() {
  const time = performance.now(), seconds = (time - countedAt) / 1000;
  setText($("members"), count(members.size));
  setText($("tables"), count(tables.size));
  setText($("rows"), count(rows.size));
  setText($("rate"), view.ready ? count(Math.round((changes - countedChanges) / seconds)) : "–");
  countedChanges = changes;
  countedAt = time;
  for (const node of $("nodes").children) {
    const member = members.get(node.dataset.place);
    node.classList.toggle("busy", Boolean(member && member.changes));
    if (!member) continue;
    const sub = node.querySelector(".sub");
    if (sub) setText(sub, plural(member.rows.size, "row"));
  }
  for (const member of members.values()) {
    member.busy = member.changes > 0;
    member.changes = 0;
  }
  if ([...gone.values()].some((member) => now() - member.left > GONE_IS_SHOWN)) view.graph = true;
  if (source && Date.now() - heard > SILENCE) reconnect();
  frame();
}


// Keys

const filter = $("filter");

function setFilter(text) {
  view.words = text.toLowerCase().split(/\s+/).filter(Boolean);
  grid.scrollTop = 0;
  wish();
}

function changeOrder() {
  view.byChange = !view.byChange;
  view.newest = [];
  view.touched = new Set(view.byChange ? rows.values() : []);
  setText($("order"), view.byChange ? "last change first" : "by name");
  grid.scrollTop = 0;
  wish();
}

function onGridKey(event) {
  const at = view.shown.indexOf(view.chosen), page = Math.max(1, Math.floor(viewHeight / rowHeight) - 1);
  const moves = { ArrowDown: at + 1, ArrowUp: at - 1, PageDown: at + page, PageUp: at - page, Home: 0, End: Infinity };
  if (Object.hasOwn(moves, event.key)) choose(moves[event.key]);
  else if (event.key === "Enter") showDetail(view.chosen);
  else return false;
  return true;
}

document.addEventListener("keydown", (event) => {
  if (event.ctrlKey || event.altKey || event.metaKey || $("detail").open) return;
  const typing = event.target === filter;
  let done = true;
  if (event.key === "Escape") {
    filter.value = "";
    view.table = view.chosenMember = null;
    view.graph = true;
    setFilter("");
    grid.focus();
  } else if (typing) {
    done = event.key === "ArrowDown" || event.key === "Enter";
    if (done) grid.focus(), choose(0);
  } else if (event.key === "/") {
    filter.focus();
    filter.select();
  } else if (event.key === "s") {
    changeOrder();
  } else if (event.target === grid || event.target === document.body) {
    done = onGridKey(event);
  } else {
    done = false;
  }
  if (done) event.preventDefault();
});
filter.addEventListener("input", () => setFilter(filter.value));
$("order").addEventListener("click", changeOrder);
$("detail").addEventListener("close", () => {
  view.detail = null;
  // This comes some time after the key that closed it: the next key may have gone to the filter by then.
  if (document.activeElement === document.body) grid.focus();
});
grid.addEventListener("scroll", frame, { passive: true });
document.addEventListener("visibilitychange", frame);
new ResizeObserver(measure).observe(grid);

measure();
connect();
setInterval(tick, 1000);
tick();
