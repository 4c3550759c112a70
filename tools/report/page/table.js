// The sites, of which only the rows within sight are there.

const part = (row) => parts[state.view](row);
const shownNumber = (value) => value === null || value === undefined ? "–" : number(value);

const columns = [
  { id: "bytes", name: "Bytes", key: (row) => part(row).bytes },
  { id: "blocks", name: "Blocks", key: (row) => part(row).blocks },
  { id: "lost", name: "Lost", hint: "Bytes that nothing leads to any more", key: (row) => row.lostBytes, when: () => report.searched && state.view === "all" },
  { id: "growth", from: 720, name: "Growth", hint: "Bytes from the first cycle to the last", key: (row) => row.growth, show: (growth) => growth === null ? "–" : signed(growth), when: () => timelineOf(state.process).grows },
  { id: "time", from: 1000, name: "Over time", key: null, when: () => timelineOf(state.process).grows },
  { id: "most", from: 1000, name: "Most", hint: "Bytes held at once, in any cycle; of several processes, the sum", key: (row) => row.most, when: () => timelineOf(state.process).grows },
  { id: "age", from: report.counts ? 1500 : 1000, name: "Age", hint: "Cycles that the oldest block has survived", key: (row) => row.oldest },
  { id: "largest", from: report.counts ? 1500 : 1000, name: "Largest", hint: "Bytes of the largest block", key: (row) => row.largest },
  { id: "allocated", from: 1000, name: "Allocated", hint: "Bytes since the start", key: (row) => row.allocatedBytes, when: () => report.counts },
  { id: "calls", from: 1000, name: "Calls", hint: "Allocations since the start", key: (row) => row.allocatedBlocks, when: () => report.counts },
  { id: "temporary", from: 1000, name: "Temporary", hint: "Blocks that were released before a report saw them", key: (row) => row.temporaryBlocks, when: () => report.counts },
  { id: "site", name: "Site", key: (row) => row.site.label },
];
const shownColumns = () => columns.filter((column) => innerWidth >= (column.from ?? 0) && (!column.when || column.when()));

// ---- Which rows, in which order ----

// Texts are tried once, though many sites have them.
const matchingTexts = remembered((filter) => {
  const sought = filter.toLowerCase();
  return new Set(report.texts.flatMap((text, i) => text.toLowerCase().includes(sought) ? [i] : []).map((i) => report.texts[i]));
});

function matches({ site }, texts) {
  return texts.has(site.label) || texts.has(site.name) || texts.has(site.type) ||
    site.trace.some((frame) => texts.has(frame.full) || texts.has(frame.name) || texts.has(frame.file) || texts.has(frame.module));
}

const listedRows = remembered((process, view, graph, focus, filter, sort, up) => {
  const box = focused();
  const rows = box.parent ? box.rows : shownRows(process, view);
  const texts = filter ? matchingTexts(filter) : null;
  const listed = texts ? rows.filter((row) => matches(row, texts)) : [...rows];
  const { key } = columns.find((column) => column.id === sort && column.key) ?? columns[0];
  const sign = up ? 1 : -1;
  const rank = (row) => key(row) ?? -Infinity;
  return listed.sort((a, b) => {
    const left = rank(a), right = rank(b);
    return left < right ? -sign : left > right ? sign : 0;
  });
});
const rowsListed = () => listedRows(state.process, state.view, state.graph, state.focus, state.filter, state.sort, state.up);

function sortBy(column) {
  const same = state.sort === column.id;
  change({ sort: column.id, up: same ? !state.up : column.id === "site" });
}

// ---- One row ----

const pathsKnown = new WeakMap(); // by row

function sparkline(row) {
  if (!pathsKnown.has(row)) pathsKnown.set(row, sparkPath(row));
  return make("svg:svg", { viewBox: "0 0 90 20", "aria-hidden": "true" }, make("svg:path", { d: pathsKnown.get(row) }));
}

function sparkPath(row) {
  const timeline = timelineOf(state.process);
  const values = rowOver(timeline, row);
  const highest = Math.max(1, ...values);
  const first = timeline.moments[0].x, all = Math.max(1e-9, timeline.moments.at(-1).x - first);
  return values.map((bytes, i) =>
    `${i ? "L" : "M"}${(2 + 86 * ((timeline.moments[i].x - first) / all)).toFixed(1)},${(18 - 16 * bytes / highest).toFixed(1)}`).join("");
}

function cellOf(column, row) {
  if (column.id === "time") return make("td", { class: column.id }, sparkline(row));
  if (column.id !== "site") return make("td", { class: column.id }, (column.show ?? shownNumber)(column.key(row)));
  const isOpen = state.site === row.site.id;
  return make("td", { class: "site", title: row.site.name }, make("button", {
    type: "button", "aria-expanded": String(isOpen), tabindex: "-1",
  }, ...siteName(row.site)));
}

function rowElement(row, index) {
  const element = make("tr", { class: "row", "aria-rowindex": index + 2 }, ...shownColumns().map((column) => cellOf(column, row)));
  element.row = row;
  return element;
}

function countsLine(row) {
  const said = [held(row)];
  if (report.searched) said.push(`lost: ${held({ bytes: row.lostBytes, blocks: row.lostBlocks })}`);
  if (row.allocatedBlocks !== undefined) said.push(`allocated since the start: ${held({ bytes: row.allocatedBytes, blocks: row.allocatedBlocks })}`);
  if (row.seen.length > 1) said.push(`in ${counted(row.seen.length, "process")}`.replace("processs", "processes"));
  return said.join("; ");
}

// Of the process that holds most.
function holderLists(row) {
  const seen = row.seen.filter((each) => each.holders).sort((a, b) => b.bytes - a.bytes)[0];
  if (!seen) return [];
  const [roots, path] = seen.holders;
  const where = row.seen.length > 1 ? ` in ${report.processes[seen.process].name}` : "";
  return [lineList(`held by${where}`, roots), ...path.length > 1 ? [lineList("which leads, for one, to", path)] : []];
}

function detailElement(row) {
  const element = make("tr", { class: "detail" }, make("td", { colspan: shownColumns().length },
    make("p", { class: "heading" }, `${row.site.name}: ${countsLine(row)}`),
    traceList(row.site.trace, null, row.site.cut), ...holderLists(row)));
  element.row = row;
  return element;
}

// ---- The rows within sight ----

const rowHeight = 31;
const beside = 10; // rows out of sight that are there as well
let detailHeight = 0; // of what is open
const scroller = at("#sites .scroll"), body = at("#sites tbody");

const openIndex = () => rowsListed().findIndex(({ site }) => site.id === state.site);
const spacer = (height) => make("tr", { class: "space", "aria-hidden": "true" }, make("td", { colspan: shownColumns().length, style: `height:${height}px` }));

function rangeInSight(count, open) {
  const top = scroller.scrollTop, bottom = top + innerHeight; // it has no height of its own while it is empty
  const indexAt = (y) => Math.floor((open >= 0 && y > (open + 1) * rowHeight ? Math.max((open + 1) * rowHeight, y - detailHeight) : y) / rowHeight);
  return [Math.max(0, indexAt(top) - beside), Math.min(count, indexAt(bottom) + beside + 1)];
}

let drawn = "";

function drawRows(isNew) {
  const rows = rowsListed(), open = openIndex();
  const [first, end] = printing ? [0, Math.min(rows.length, printedRows)] : rangeInSight(rows.length, open);
  const now = `${first}-${end}`;
  if (!isNew && now === drawn) return;
  drawn = now;
  const active = document.activeElement?.closest?.("tr.row")?.row;
  const known = new Map(isNew ? [] : [...body.children].filter((element) => element.row).map((element) => [`${element.className}${element.row.site.id}`, element]));
  const elements = [];
  for (let i = first; i < end; ++i) {
    elements.push(known.get(`row${rows[i].site.id}`) ?? rowElement(rows[i], i));
    if (i === open) elements.push(known.get(`detail${rows[i].site.id}`) ?? detailElement(rows[i]));
  }
  const after = (index) => open >= 0 && index > open ? detailHeight : 0;
  const above = first * rowHeight + after(first), below = printing ? 0 : (rows.length - end) * rowHeight + (open >= end ? detailHeight : 0);
  body.replaceChildren(spacer(above), ...elements, spacer(below));
  (at('[tabindex="0"]', body) ?? at("tr.row button", body))?.setAttribute("tabindex", "0");
  if (active) elements.find((element) => element.row === active)?.querySelector("button")?.focus({ preventScroll: true });
  const detail = at("tr.detail", body);
  detailHeight = open < 0 ? 0 : detail?.offsetHeight ?? detailHeight;
}

// Room for the longest number or the heading, so that no column moves while one scrolls.
function widthOf({ id, name, key, show }, rows) {
  if (id === "site") return null;
  let low = 0, high = 0;
  if (key) for (const row of rows) {
    low = Math.min(low, key(row));
    high = Math.max(high, key(row));
  }
  const letters = Math.max(name.length + 2, ...[low, high].map((value) => (show ?? shownNumber)(value).length));
  return `width:${(letters * 0.6 + 1.4).toFixed(2)}rem`;
}

function showTable() {
  const head = at("#sites thead tr");
  const rows = rowsListed();
  head.replaceChildren(...shownColumns().map((column) => {
    const header = make("th", { scope: "col", class: column.id, title: column.hint ?? null, style: widthOf(column, rows) },
      !column.key ? column.name : make("button", { type: "button", onclick: () => sortBy(column) }, column.name));
    if (column.id === state.sort) header.setAttribute("aria-sort", state.up ? "ascending" : "descending");
    return header;
  }));
  at("#sites table").setAttribute("aria-rowcount", rows.length + 1);
  if (at("#filter").value.trim() !== state.filter) at("#filter").value = state.filter;
  at("#sites output").textContent = countText(rows);
  at("#sites .below").hidden = !focused().parent;
  at("#left-out").textContent = leftOutText();
  drawRows(true);
}

function countText(rows) {
  const all = shownRows(state.process, state.view).length;
  const sum = held(rows.reduce((sum, row) => ({ bytes: sum.bytes + part(row).bytes, blocks: sum.blocks + part(row).blocks }), { bytes: 0, blocks: 0 }));
  const below = focused().parent ? ` below ${nameOf(focused())}` : "";
  return (rows.length === all ? counted(all, "site") : `${number(rows.length)} of ${counted(all, "site")}`) + `${below}: ${sum}`;
}

function leftOutText() {
  const { sites, blocks, bytes } = leftOutOf(state.process);
  const all = state.process === everyone ? report.leftOut.sites : sites;
  return all > 0 ? `and ${counted(all, "site")} of ${counted(report.leftOut.most, "byte")} or fewer: ${held({ blocks, bytes })}` : "";
}

function scrollToRow(index) {
  const y = index * rowHeight, visible = scroller.clientHeight - 2 * rowHeight;
  if (y < scroller.scrollTop) scroller.scrollTop = y;
  else if (y > scroller.scrollTop + visible) scroller.scrollTop = y - visible;
  drawRows(false);
}

// ---- Pointer and keys ----

function toggle(row) {
  change({ site: state.site === row.site.id ? -1 : row.site.id });
  [...body.children].find((element) => element.row === row)?.querySelector("button")?.focus({ preventScroll: true });
}

const strides = { ArrowUp: -1, ArrowDown: 1, PageUp: -10, PageDown: 10, Home: -Infinity, End: Infinity };

body.addEventListener("click", ({ target }) => {
  const element = target.closest("tr.row");
  if (element) toggle(element.row);
});
body.addEventListener("keydown", (event) => {
  const element = event.target.closest("tr.row");
  if (!element || !(event.key in strides)) return;
  event.preventDefault();
  const rows = rowsListed();
  const index = Math.max(0, Math.min(rows.length - 1, rows.indexOf(element.row) + strides[event.key]));
  scrollToRow(index);
  for (const each of body.querySelectorAll('[tabindex="0"]')) each.setAttribute("tabindex", "-1");
  const button = at("button", [...body.children].find((each) => each.row === rows[index]) ?? body);
  button?.setAttribute("tabindex", "0");
  button?.focus({ preventScroll: true });
});
scroller.addEventListener("scroll", () => drawRows(false), { passive: true });
at("#filter").addEventListener("input", ({ target }) => {
  scroller.scrollTop = 0;
  change({ filter: target.value.trim(), site: -1 });
});
at("#sites .below").addEventListener("click", () => look(graphRoot()));

// On paper, what can be looked through.
const printedRows = 200;
let printing = false;
addEventListener("beforeprint", () => { printing = true; drawRows(true); });
addEventListener("afterprint", () => { printing = false; drawRows(true); });
addEventListener("resize", showTable);
shows.push(showTable);
