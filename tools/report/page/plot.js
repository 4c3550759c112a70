// What is held over time: all of it, and by the sites that held most.

const colours = ["#3b7dd8", "#e0752d", "#2f9e5b", "#c2407a", "#8a63d2", "#b59410", "#199aa8", "#8c6d5a"];
const margin = { left: 76, right: 16, top: 8, bottom: 38 };

function niceStep(highest, steps) {
  const rough = Math.max(highest, 1) / steps;
  const unit = 2 ** Math.floor(Math.log2(rough));
  return Math.max(1, rough / unit > 1.5 ? 2 * unit : unit);
}

const stepsOfTime = [1, 2, 5, 10, 15, 30, 60, 120, 300, 600, 900, 1800, 3600, 7200, 10800, 21600, 43200, 86400];

// Where the axis is marked: at round times or numbers of cycles.
function marksOf(timeline, room) {
  const first = timeline.moments[0].x, last = timeline.moments.at(-1).x;
  const rough = (last - first) / Math.max(2, Math.floor(room / 90));
  const step = timeline.byTime
    ? stepsOfTime.find((each) => each >= rough) ?? Math.ceil(rough / 86400) * 86400
    : Math.max(1, Math.ceil(rough));
  const zone = timeline.byTime ? new Date(first * 1000).getTimezoneOffset() * 60 : 0;
  const begin = timeline.byTime ? Math.ceil((first - zone) / step) * step + zone : first;
  const marks = [];
  for (let x = begin; x <= last; x += step) marks.push(x);
  return marks;
}

function timeText(time, withDay) {
  const options = { hour: "2-digit", minute: "2-digit", second: "2-digit", hourCycle: "h23" };
  if (withDay) Object.assign(options, { day: "numeric", month: "short", year: "numeric" });
  return new Date(time * 1000).toLocaleString("en-GB", options);
}

const momentText = (timeline, { x, cycle }) =>
  timeline.byTime ? timeText(x, false) + (cycle ? `, cycle ${number(cycle)}` : "") : `cycle ${number(x)}`;

// The number of the cycle that was the last at a time, where there is one process.
function cycleAt(timeline, x) {
  const moment = timeline.moments.findLast((each) => each.x <= x);
  return moment?.cycle ?? null;
}

function scaleOf(svg, timeline, highest) {
  const width = svg.clientWidth, height = svg.clientHeight;
  const first = timeline.moments[0].x, last = timeline.moments.at(-1).x;
  const step = niceStep(highest, height > 200 ? 4 : 2);
  const ceiling = Math.max(step, Math.ceil(highest / step) * step);
  return {
    width, height, step, ceiling,
    x: (moment) => margin.left + (width - margin.left - margin.right) * ((moment - first) / Math.max(1e-9, last - first)),
    y: (bytes) => height - margin.bottom - (height - margin.top - margin.bottom) * (bytes / ceiling),
  };
}

function drawAxes(svg, timeline, scale) {
  const { width, height, x, y } = scale;
  for (let bytes = 0; bytes <= scale.ceiling; bytes += scale.step)
    svg.append(make("svg:line", { class: "grid", x1: margin.left, x2: width - margin.right, y1: y(bytes), y2: y(bytes) }),
      make("svg:text", { x: margin.left - 8, y: y(bytes) + 4, "text-anchor": "end" }, size(bytes)));
  for (const mark of marksOf(timeline, width - margin.left)) {
    const cycle = timeline.byTime ? cycleAt(timeline, mark) : null;
    svg.append(make("svg:line", { class: "grid", x1: x(mark), x2: x(mark), y1: y(0), y2: y(0) + 4 }),
      make("svg:text", { x: x(mark), y: height - 20, "text-anchor": "middle" }, timeline.byTime ? timeText(mark, false) : number(mark)));
    if (cycle) svg.append(make("svg:text", { class: "cycle", x: x(mark), y: height - 5, "text-anchor": "middle" }, `cycle ${number(cycle)}`));
  }
}

const pathOf = (timeline, scale, values) =>
  values.map((bytes, i) => `${i ? "L" : "M"}${scale.x(timeline.moments[i].x).toFixed(1)},${scale.y(bytes).toFixed(1)}`).join("");

// ---- The two plots ----

const plottedRows = remembered((process, chosen) => {
  const rows = [...rowsOf(process)].sort((a, b) => b.most - a.most).slice(0, colours.length);
  const row = rowsOf(process).find(({ site }) => site.id === chosen);
  if (row && !rows.includes(row)) rows[Math.min(rows.length, colours.length - 1)] = row;
  return rows;
});

let plot = null; // what is drawn, for the pointer

const drawPlot = remembered(() => {
  const timeline = timelineOf(state.process);
  at("#growth").hidden = !timeline.grows;
  plot = null;
  if (!timeline.grows) return;
  const rows = plottedRows(state.process, state.site);
  plot = { timeline, rows, total: totalOver(timeline), lines: rows.map((row) => rowOver(timeline, row)) };
  at("#growth .axis").textContent = axisText(timeline);
  drawTotal();
  drawSites();
  showLegend();
});

const showPlot = () => { drawPlot(state.process, state.site, innerWidth); };

function axisText(timeline) {
  const first = timeline.moments[0].x;
  const sampled = processesOf(state.process).some((process) => process.allCycles > process.cycles.length && process.count === 1);
  const unit = timeline.byTime
    ? `Across: time of day from ${timeText(first, true)} on, in the time zone of this browser` +
      (timeline.moments[0].cycle ? ", and the report's cycle" : "")
    : "Across: the report's cycles";
  return unit + (sampled ? ", of which some are shown." : ".") +
    (state.process === everyone && report.processes.length > 1 ? " A process that has ended counts on with what it held." : "");
}

function drawTotal() {
  const svg = at("#total");
  const scale = scaleOf(svg, plot.timeline, Math.max(1, ...plot.total));
  svg.replaceChildren();
  drawAxes(svg, plot.timeline, scale);
  const line = pathOf(plot.timeline, scale, plot.total);
  const ends = [plot.timeline.moments.at(-1).x, plot.timeline.moments[0].x].map((x) => `L${scale.x(x)},${scale.y(0)}`).join("");
  svg.append(make("svg:path", { class: "area", d: line + ends + "Z" }), make("svg:path", { class: "line total", d: line }));
}

function drawSites() {
  const svg = at("#lines");
  const scale = scaleOf(svg, plot.timeline, Math.max(1, ...plot.lines.flat()));
  svg.replaceChildren();
  drawAxes(svg, plot.timeline, scale);
  plot.rows.forEach(({ site }, i) => {
    const dim = state.site >= 0 && plot.rows.some((row) => row.site.id === state.site) && site.id !== state.site ? " dim" : "";
    svg.append(make("svg:path", { class: "line" + dim, d: pathOf(plot.timeline, scale, plot.lines[i]), stroke: colours[i] }));
  });
}

function showLegend() {
  at("#growth .legend").replaceChildren(...plot.rows.map(({ site }, i) => make("li", {}, make("button", {
    type: "button", "aria-pressed": String(state.site === site.id), title: site.name,
    onclick: () => change({ site: state.site === site.id ? -1 : site.id }),
  }, make("i", { style: `background:${colours[i]}` }), make("span", {}, ...siteName(site)),
  make("b", {}, size(plot.lines[i].at(-1)))))));
}

// ---- Under the pointer ----

function showMoment(event) {
  const svg = event.currentTarget;
  const scale = scaleOf(svg, plot.timeline, 1);
  const left = event.clientX - svg.getBoundingClientRect().left;
  const distance = ({ x }) => Math.abs(scale.x(x) - left);
  let nearest = 0;
  plot.timeline.moments.forEach((moment, i) => { if (distance(moment) < distance(plot.timeline.moments[nearest])) nearest = i; });
  const x = scale.x(plot.timeline.moments[nearest].x);
  for (const each of document.querySelectorAll("#growth svg")) {
    at(".pointer", each)?.remove();
    each.append(make("svg:line", { class: "pointer", x1: x, x2: x, y1: margin.top, y2: each.clientHeight - margin.bottom }));
  }
  showTip(event.clientX, event.clientY, [
    make("b", {}, momentText(plot.timeline, plot.timeline.moments[nearest])),
    make("div", {}, `All: ${size(plot.total[nearest])}`),
    ...plot.rows.map(({ site }, i) => make("div", {}, make("i", { style: `background:${colours[i]}` }), `${size(plot.lines[i][nearest])}  `, ...siteName(site)))]);
}

function hideMoment() {
  hideTip();
  for (const each of document.querySelectorAll("#growth .pointer")) each.remove();
}

for (const svg of document.querySelectorAll("#growth svg")) {
  svg.addEventListener("pointermove", (event) => { if (plot) showMoment(event); });
  svg.addEventListener("pointerleave", hideMoment);
}
shows.push(showPlot);
addEventListener("resize", showPlot);
