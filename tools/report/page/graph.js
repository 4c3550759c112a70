// Stack traces as boxes: a function's box is as wide as the bytes that its calls hold, and what it calls lies on it.

const boxHeight = 22;
const narrowest = 0.15; // percent of the width: two pixels or so
const beyond = { frame: { key: -1, name: "…", full: "Callers beyond these were not recorded.", module: "", file: "" }, times: 1 };

// From the outside in, or from the allocation out, without what calls main.
const stepsOf = remembered((inverted) => {
  const known = new Map();
  return (site) => {
    if (!known.has(site)) {
      const steps = folded(site.trace);
      if (site.cut && !steps.at(-1).frame.start) steps.push(beyond);
      while (steps.length > 1 && steps.at(-1).frame.start) steps.pop();
      known.set(site, inverted ? steps : steps.reverse());
    }
    return known.get(site);
  };
});

// A box has the rows of the sites below it; what lies on it is found out when it is drawn.
function boxOf(step, parent, part) {
  return { step, parent, part, depth: parent ? parent.depth + 1 : 0, rows: [], bytes: 0, blocks: 0, low: Infinity, high: 1, children: null };
}

function add(box, row, step) {
  const { bytes, blocks } = box.part(row);
  box.rows.push(row);
  box.bytes += bytes;
  box.blocks += blocks;
  box.low = Math.min(box.low, step.times);
  box.high = Math.max(box.high, step.times);
}

const rootOf = remembered((process, view, inverted) => {
  const name = process === everyone ? "all" : report.processes[process].name;
  const root = boxOf({ frame: { key: -2, name, full: name, module: "", file: "" }, times: 1 }, null, parts[view]);
  root.steps = stepsOf(inverted);
  for (const row of shownRows(process, view)) add(root, row, root.step);
  return root;
});

function childrenOf(box) {
  if (box.children) return box.children;
  const children = new Map();
  const { steps } = rootAbove(box);
  for (const row of box.rows) {
    const step = steps(row.site)[box.depth];
    if (!step) continue;
    if (!children.has(step.frame.key)) children.set(step.frame.key, boxOf(step, box, box.part));
    add(children.get(step.frame.key), row, step);
  }
  box.children = [...children.values()].sort((a, b) => b.bytes - a.bytes);
  return box.children;
}

function rootAbove(box) {
  while (box.parent) box = box.parent;
  return box;
}

// ---- Where one looks ----

const isInverted = () => state.graph === "allocation";
const graphRoot = () => rootOf(state.process, state.view, isInverted());

function focused() {
  let box = graphRoot();
  for (const key of state.focus ? state.focus.split(".") : []) {
    const next = childrenOf(box).find((child) => child.step.frame.key === Number(key));
    if (!next) break;
    box = next;
  }
  return box;
}

function pathTo(box) {
  const keys = [];
  for (; box.parent; box = box.parent) keys.unshift(box.step.frame.key);
  return keys.join(".");
}

const look = (box) => change({ focus: pathTo(box), site: -1 });

// ---- Colours ----

function hashOf(text) {
  let hash = 0;
  for (const letter of text) hash = (hash * 31 + letter.codePointAt(0)) >>> 0;
  return hash;
}

function warm(text) { // one colour for each name, all of one warmth
  const hash = hashOf(text);
  return `hsl(${14 + hash % 40} ${70 + (hash >> 8) % 20}% ${62 + (hash >> 16) % 14}%)`;
}

const hues = [210, 30, 140, 330, 265, 50, 185, 0, 95, 290];
const moduleName = (module) => module.slice(module.lastIndexOf("/") + 1) || "unknown";

// Those that the most sites go through have colours of their own.
const moduleColours = remembered((process) => {
  const counts = new Map();
  for (const { site } of rowsOf(process))
    for (const module of new Set(site.trace.map((frame) => frame.module))) counts.set(module, (counts.get(module) ?? 0) + 1);
  const modules = [...counts].sort((a, b) => b[1] - a[1]).slice(0, hues.length).map(([module]) => module);
  return new Map(modules.map((module, i) => [module, `hsl(${hues[i]} 65% 72%)`]));
});

const otherModules = "hsl(0 0% 75%)";

function colourOf(frame) {
  if (state.colour === "function") return warm(frame.name);
  return moduleColours(state.process).get(frame.module) ?? otherModules;
}

function showModules() {
  const legend = at("#graph .modules");
  legend.hidden = state.colour !== "module";
  if (legend.hidden) return;
  const entry = ([module, colour]) => make("li", { title: module }, make("i", { style: `background:${colour}` }), make("span", {}, moduleName(module)));
  legend.replaceChildren(...[...moduleColours(state.process), ["others", otherModules]].map(entry));
}

// ---- Boxes ----

const nameOf = (box) => box.step.frame.name + times(box.low, box.high);
const isFound = (box) => state.find !== "" && box.parent !== null && box.step.frame.full.toLowerCase().includes(state.find.toLowerCase());

function boxText(box) {
  const { frame } = box.step;
  const root = graphRoot();
  return [make("b", {}, nameOf(box)),
    ...frame.full !== frame.name ? [make("div", {}, frame.full)] : [],
    ...frame.module ? [make("div", { class: "where" }, frame.module)] : [],
    make("div", {}, `${held(box)}, ${counted(box.rows.length, "site")}`),
    make("div", {}, `${percent(box.bytes, root.bytes)} of all` + (focused() === root ? "" : `, ${percent(box.bytes, focused().bytes)} of what is shown`))];
}

function boxElement(box, left, width, isAround) {
  const element = make("button", {
    type: "button", role: "treeitem", tabindex: "-1", "aria-level": box.depth + 1,
    "aria-label": `${nameOf(box)}: ${held(box)}, ${percent(box.bytes, graphRoot().bytes)}`,
    class: "box" + (isAround ? " around" : "") + (isFound(box) ? " found" : ""),
    style: `left:${left}%;width:${width}%;--depth:${box.depth};background:${box.parent ? colourOf(box.step.frame) : "var(--root)"}`,
  }, nameOf(box));
  element.box = box;
  return element;
}

function smallElement(boxes, depth, left, width) {
  const bytes = boxes.reduce((sum, box) => sum + box.bytes, 0);
  return make("span", { class: "box small", style: `left:${left}%;width:${width}%;--depth:${depth}`, title: `${counted(boxes.length, "function")} too narrow to see: ${size(bytes)}` });
}

const drawGraph = remembered(() => {
  const focus = focused();
  const elements = [];
  let depth = 0, matched = 0;
  for (let box = focus.parent; box; box = box.parent) elements.unshift(boxElement(box, 0, 100, true));
  const place = (box, left, width, isCounted) => {
    depth = Math.max(depth, box.depth);
    elements.push(boxElement(box, left, width, false));
    const found = isFound(box);
    if (found && !isCounted) matched += box.bytes;
    const share = (child) => width * child.bytes / box.bytes;
    const wide = childrenOf(box).filter((child) => share(child) >= narrowest), small = childrenOf(box).slice(wide.length);
    for (const child of wide) {
      place(child, left, share(child), isCounted || found);
      left += share(child);
    }
    const rest = small.reduce((sum, child) => sum + share(child), 0);
    if (rest >= narrowest) elements.push(smallElement(small, box.depth + 1, left, rest));
  };
  if (focus.bytes > 0) place(focus, 0, 100, false);
  const boxes = at("#boxes");
  boxes.className = state.layout;
  boxes.style.height = `${(depth + 1) * boxHeight}px`;
  boxes.replaceChildren(...elements);
  const current = elements.find((element) => element.box === focus) ?? elements[0];
  current?.setAttribute("tabindex", "0");
  at("#graph .all").hidden = !focus.parent;
  at("#find").value = state.find;
  at("#graph output").textContent = state.find
    ? `${size(matched)} below what matches, ${percent(matched, focus.bytes)}`
    : focus.parent ? `${nameOf(focus)}: ${held(focus)}, ${percent(focus.bytes, graphRoot().bytes)}` : "";
  showModules();
});

const showGraph = () => { drawGraph(...["process", "view", "graph", "focus", "find", "layout", "colour"].map((name) => state[name])); };

// ---- Pointer and keys ----

function focusBox(element) {
  if (!element) return;
  for (const each of document.querySelectorAll('#boxes [tabindex="0"]')) each.setAttribute("tabindex", "-1");
  element.setAttribute("tabindex", "0");
  element.focus();
}

const elementOf = (box) => [...at("#boxes").children].find((element) => element.box === box);

function moveBy(key, box) {
  const away = state.layout === "flame" ? "ArrowUp" : "ArrowDown";
  const siblings = box.parent ? childrenOf(box.parent) : [box];
  const beside = siblings.indexOf(box);
  if (key === "ArrowLeft") return siblings[beside - 1];
  if (key === "ArrowRight") return siblings[beside + 1];
  return key === away ? childrenOf(box)[0] : box.parent;
}

at("#boxes").addEventListener("click", ({ target }) => {
  if (!target.box) return;
  look(target.box);
  if (at("#boxes").contains(document.activeElement) || document.activeElement === document.body) focusBox(elementOf(focused()));
});
at("#boxes").addEventListener("keydown", (event) => {
  if (!event.target.box || !event.key.startsWith("Arrow")) return;
  event.preventDefault();
  const next = moveBy(event.key, event.target.box);
  if (next) focusBox(elementOf(next));
});
at("#boxes").addEventListener("pointermove", ({ target, clientX, clientY }) => {
  if (target.box) showTip(clientX, clientY, boxText(target.box));
  else hideTip();
});
at("#boxes").addEventListener("pointerleave", hideTip);
at("#boxes").addEventListener("focusin", ({ target }) => {
  const { left, bottom } = target.getBoundingClientRect();
  if (target.box && target.matches(":focus-visible")) showTip(left, bottom - 14, boxText(target.box));
});
at("#boxes").addEventListener("focusout", hideTip);
at("#graph .all").addEventListener("click", () => look(graphRoot()));
at("#find").addEventListener("input", ({ target }) => change({ find: target.value.trim() }));
addEventListener("keydown", ({ key }) => { if (key === "Escape" && state.focus) look(focused().parent ?? graphRoot()); });
shows.push(showGraph);
