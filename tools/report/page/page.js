"use strict";
const report = JSON.parse(document.getElementById("report").textContent);
const at = (selector, root = document) => root.querySelector(selector);
const number = (value) => value.toLocaleString("en-US");
const signed = (value) => (value > 0 ? "+" : "") + number(value);
const cycles = report.cycles;

function make(tag, attributes = {}, ...children) {
  const element = tag.startsWith("svg:")
    ? document.createElementNS("http://www.w3.org/2000/svg", tag.slice(4))
    : document.createElement(tag);
  for (const [name, value] of Object.entries(attributes)) {
    if (name.startsWith("on")) element.addEventListener(name.slice(2), value);
    else element.setAttribute(name, value);
  }
  element.append(...children);
  return element;
}

function size(bytes) {
  const units = ["B", "KiB", "MiB", "GiB", "TiB"];
  let unit = 0;
  while (Math.abs(bytes) >= 1024 && unit < units.length - 1) { bytes /= 1024; ++unit; }
  return (unit === 0 ? bytes : bytes.toFixed(bytes < 10 ? 2 : bytes < 100 ? 1 : 0)) + " " + units[unit];
}

function frameName(frame) { return frame.function || frame.pc; }

function traceList(trace, heading) {
  const list = make("ul", { class: "trace" });
  if (heading) list.append(make("li", { class: "heading" }, heading));
  for (const frame of trace) {
    const where = frame.file ? `  ${frame.file}:${frame.line}` : "";
    list.append(make("li", {}, frameName(frame), make("span", { class: "where" }, where)));
  }
  return list;
}

// ---- Head ----

function showTotals() {
  const names = report.processes.map((process) => process.name);
  at("#programs").textContent =
    names.slice(0, 6).join(", ") + (names.length > 6 ? ` and ${names.length - 6} more` : "");
  const totals = [["bytes", number(report.total.bytes)], ["blocks", number(report.total.blocks)]];
  if (report.searched) {
    const lost = report.sites.reduce((sum, site) => sum + site.lost.bytes, 0);
    totals.push(["bytes lost", number(lost)]);
  }
  totals.push(["sites", number(report.sites.length)], ["cycles", number(cycles)], ["processes", number(names.length)]);
  for (const [name, value] of totals)
    at("#totals").append(make("div", {}, make("dt", {}, name), make("dd", {}, value)));
}

function findingItem(finding, process) {
  const trails = finding.trails.map((trail) => traceList(trail.chain, trail.heading));
  return make("li", {}, make("details", {},
    make("summary", {}, `${finding.title} in ${process.name}`), ...trails));
}

function showFindings() {
  const items = report.processes.flatMap((process) =>
    process.findings.map((finding) => findingItem(finding, process)));
  at("#findings").hidden = items.length === 0;
  at("#findings ul").append(...items);
}

// ---- Lost or held ----

// What is shown of a site's blocks: all of them, or those that are lost, or those that are not.
const views = {
  all: (site) => ({ bytes: site.bytes, blocks: site.blocks }),
  lost: (site) => site.lost,
  held: (site) => ({ bytes: site.bytes - site.lost.bytes, blocks: site.blocks - site.lost.blocks }),
};
let part = views.all;

const shown = () => part === views.all ? report.sites : report.sites.filter((site) => part(site).blocks > 0);

function showViews() {
  at("#views").hidden = !report.searched;
  for (const button of document.querySelectorAll("#views button"))
    button.addEventListener("click", () => view(button.value));
}

function view(name) {
  part = views[name];
  for (const button of document.querySelectorAll("#views button"))
    button.setAttribute("aria-pressed", String(button.value === name));
  buildFlame();
  look(root);
  showTable();
}

// ---- Growth ----

const colours = ["#3b7dd8", "#e0752d", "#2f9e5b", "#c2407a", "#8a63d2", "#b59410", "#199aa8", "#8c6d5a"];
let chosen = null; // a site that the plot brings out

function niceStep(highest, steps) {
  const rough = Math.max(highest, 1) / steps;
  const unit = 2 ** Math.floor(Math.log2(rough));
  return rough / unit > 1.5 ? 2 * unit : unit;
}

// A site has bytes for the cycles that it was seen in, counted from 1: [[cycle, bytes], ...].
const peak = (site) => site.series.reduce((highest, [, bytes]) => Math.max(highest, bytes), 0);

// Where a line of it bends: with nothing on both sides of what was seen.
function bends(series) {
  const points = [];
  for (const [cycle, bytes] of series) {
    const last = points.at(-1)?.[0] ?? 0;
    if (last + 1 < cycle) points.push([last + 1, 0]);
    if (last + 2 < cycle) points.push([cycle - 1, 0]);
    points.push([cycle, bytes]);
  }
  const last = points.at(-1)?.[0] ?? 0;
  if (last < cycles) points.push([last + 1, 0], [cycles, 0]);
  return points;
}

function plotted() {
  const sites = [...report.sites].sort((a, b) => peak(b) - peak(a)).slice(0, colours.length);
  if (chosen && !sites.includes(chosen)) sites[sites.length - 1] = chosen;
  return sites;
}

function showGrowth() {
  const svg = at("#growth svg");
  if (cycles < 2) {
    at("#growth").hidden = true;
    return;
  }
  const sites = plotted();
  const width = svg.clientWidth, height = svg.clientHeight;
  const left = 76, right = 12, top = 8, bottom = 30;
  const highest = Math.max(1, ...sites.map(peak));
  const step = niceStep(highest, 4);
  const ceiling = Math.ceil(highest / step) * step;
  const x = (cycle) => left + (width - left - right) * ((cycle - 1) / (cycles - 1));
  const y = (bytes) => height - bottom - (height - top - bottom) * (bytes / ceiling);
  svg.replaceChildren();
  for (let bytes = 0; bytes <= ceiling; bytes += step)
    svg.append(make("svg:line", { class: "grid", x1: left, x2: width - right, y1: y(bytes), y2: y(bytes) }),
      make("svg:text", { x: left - 8, y: y(bytes) + 4, "text-anchor": "end" }, size(bytes)));
  const every = Math.max(1, Math.ceil(cycles / Math.max(2, Math.floor((width - left) / 60))));
  for (let cycle = 1; cycle <= cycles; cycle += every)
    svg.append(make("svg:text", { x: x(cycle), y: height - 10, "text-anchor": "middle" }, String(cycle)));
  at("#growth .legend").replaceChildren();
  sites.forEach((site, index) => {
    const path = bends(site.series).map(([cycle, bytes], i) => `${i ? "L" : "M"}${x(cycle)},${y(bytes)}`).join("");
    const dim = chosen && chosen !== site ? " dim" : "";
    svg.append(make("svg:path", { class: "line" + dim, d: path, stroke: colours[index] },
      make("svg:title", {}, `${site.name}: ${size(site.bytes)}`)));
    at("#growth .legend").append(make("li", {}, make("button", {
      type: "button", "aria-pressed": String(chosen === site),
      onclick: () => choose(chosen === site ? null : site),
    }, make("i", { style: `background:${colours[index]}` }), make("span", { title: site.name }, site.name))));
  });
}

function choose(site) {
  chosen = site;
  showGrowth();
}

// ---- Flame graph ----

const root = { name: "all", bytes: 0, children: new Map(), parent: null, depth: 0 };

function buildFlame() {
  root.bytes = 0;
  root.children.clear();
  for (const site of shown()) {
    const { bytes } = part(site);
    const names = site.chain.map(frameName).reverse();
    if (site.line !== 0 || names.length === 0) names.push(`${site.file}:${site.line}`);
    root.bytes += bytes;
    let node = root;
    for (const name of names) {
      if (!node.children.has(name))
        node.children.set(name, { name, bytes: 0, children: new Map(), parent: node, depth: node.depth + 1 });
      node = node.children.get(name);
      node.bytes += bytes;
    }
  }
}

function warm(name) { // one colour for each name, all of one warmth
  let hash = 0;
  for (const letter of name) hash = (hash * 31 + letter.codePointAt(0)) >>> 0;
  return `hsl(${14 + hash % 40} ${70 + (hash >> 8) % 20}% ${62 + (hash >> 16) % 14}%)`;
}

let focus = root;
const rowHeight = 22;

function frameElement(node, left, width, around) {
  const title = `${node.name}: ${size(node.bytes)}, ${(100 * node.bytes / root.bytes).toFixed(1)} %`;
  const found = sought && node !== root && node.name.toLowerCase().includes(sought) ? " found" : "";
  return make("button", {
    type: "button", role: "treeitem", title,
    class: "frame" + (around ? " around" : "") + found,
    style: `left:${left}%;width:${width}%;top:${node.depth * rowHeight}px;background:${warm(node.name)}`,
    onclick: () => look(node),
  }, node.name);
}

let sought = "";

function showFlame() {
  const frames = at("#flame .frames");
  const elements = [];
  let depth = 0, matched = 0;
  for (let node = focus.parent; node; node = node.parent) elements.unshift(frameElement(node, 0, 100, true));
  const place = (node, left, width, counted) => {
    if (width < 0.08) return;
    depth = Math.max(depth, node.depth);
    elements.push(frameElement(node, left, width, false));
    const isFound = sought && node !== root && node.name.toLowerCase().includes(sought);
    if (isFound && !counted) matched += node.bytes;
    let offset = left;
    for (const child of [...node.children.values()].sort((a, b) => b.bytes - a.bytes)) {
      const share = width * child.bytes / node.bytes;
      place(child, offset, share, counted || isFound);
      offset += share;
    }
  };
  if (root.bytes > 0) place(focus, 0, 100, false);
  frames.replaceChildren(...elements);
  frames.style.height = `${(depth + 1) * rowHeight}px`;
  at("#flame button").hidden = focus === root;
  at("#flame output").textContent = sought
    ? `${size(matched)} below what matches, ${(100 * matched / Math.max(1, focus.bytes)).toFixed(1)} %`
    : focus === root ? "" : `${focus.name}: ${size(focus.bytes)}`;
}

function look(node) {
  focus = node;
  showFlame();
}

// ---- Table ----

const columns = [
  { name: "Bytes", key: (site) => part(site).bytes, show: number },
  { name: "Blocks", key: (site) => part(site).blocks, show: number },
  { name: "Age", key: (site) => site.oldest, show: number },
  { name: "Largest", key: (site) => site.largest, show: number },
  { name: "Growth", key: (site) => site.growth, show: signed },
  { name: "Site", key: (site) => site.name },
];
let order = { column: columns[0], descending: true };

function sparkline(site) {
  const highest = Math.max(1, peak(site));
  const d = bends(site.series).map(([cycle, bytes], i) =>
    `${i ? "L" : "M"}${2 + 86 * ((cycle - 1) / (cycles - 1))},${18 - 16 * bytes / highest}`).join("");
  return make("svg:svg", { viewBox: "0 0 90 20", "aria-hidden": "true" }, make("svg:path", { d }));
}

function sortBy(column) {
  order = { column, descending: order.column === column ? !order.descending : column !== columns[5] };
  showTable();
}

function held(name, counter) {
  return `${name}: ${number(counter.bytes)} bytes in ${number(counter.blocks)} blocks`;
}

function lineList(heading, lines) {
  return make("ul", { class: "trace" }, make("li", { class: "heading" }, heading),
    ...lines.map((line) => make("li", {}, line)));
}

function holderLists({ roots, others, path }) {
  const lines = roots.map((holder) => held(holder.root, holder));
  if (others.blocks > 0) lines.push(held("others", others));
  const lists = [lineList("held by", lines)];
  if (path.length > 1) lists.push(lineList("which leads, for one, to", path));
  return lists;
}

function toggleTrace(row, site) {
  const next = row.nextElementSibling;
  if (next && next.classList.contains("trace-row")) {
    next.remove();
    return;
  }
  const heading = site.chain.length ? null : "No stack trace was recorded.";
  const lists = [traceList(site.chain, heading), ...site.held_by ? holderLists(site.held_by) : []];
  row.after(make("tr", { class: "trace-row" }, make("td", { colspan: columns.length }, ...lists)));
}

function siteRow(site) {
  const row = make("tr", { class: "site-row" });
  for (const column of columns.slice(0, -1)) {
    const cell = make("td", {}, column.show(column.key(site)));
    if (column.name === "Growth" && cycles > 1) cell.append(" ", sparkline(site));
    row.append(cell);
  }
  const open = make("button", {
    type: "button", "aria-label": `${site.name}: stack trace`,
    onclick: () => { toggleTrace(row, site); choose(site); },
  }, site.name);
  row.append(make("td", { class: "site" }, open));
  return row;
}

function showTable() {
  at("#sites thead tr").replaceChildren(...columns.map((column) => {
    const header = make("th", { scope: "col" }, make("button", { type: "button", onclick: () => sortBy(column) }, column.name));
    if (column === order.column) header.setAttribute("aria-sort", order.descending ? "descending" : "ascending");
    return header;
  }));
  const sign = order.descending ? -1 : 1;
  const sites = [...shown()].sort((a, b) => {
    const left = order.column.key(a), right = order.column.key(b);
    return sign * (left < right ? -1 : left > right ? 1 : 0);
  });
  at("#sites tbody").replaceChildren(...sites.slice(0, 2000).map(siteRow));
}

// ---- All of it ----

showTotals();
showViews();
showFindings();
showGrowth();
buildFlame();
showFlame();
showTable();
addEventListener("resize", showGrowth);
addEventListener("keydown", (event) => { if (event.key === "Escape") look(root); });
at("#flame button").addEventListener("click", () => look(root));
at("#flame input").addEventListener("input", (event) => {
  sought = event.target.value.trim().toLowerCase();
  showFlame();
});
