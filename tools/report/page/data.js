// What the page shows: the data as it stands in the page, with numbers of texts and frames in place of them.

const report = read(JSON.parse(at("#report").textContent));

function read(data) {
  const frames = data.frames.map(([name, full, file, line, module, flags, excerpt], id) => ({
    id,
    key: name, // frames of one function have one
    name: data.texts[name],
    full: data.texts[full],
    file: file ? data.texts[file - 1] : "",
    line,
    module: data.texts[module],
    inlined: (flags & 1) !== 0,
    start: (flags & 2) !== 0, // of what calls main
    own: (flags & 4) !== 0,   // no library's
    excerpt: excerpt ? { first: data.excerpts[excerpt - 1][0], lines: data.excerpts[excerpt - 1].slice(1) } : null,
  }));
  const trace = (numbers) => numbers.map((id) => frames[id]);
  const seen = (row) => {
    const members = Object.fromEntries(data.fields.map((field, i) => [field, row[i]]));
    const holders = row[data.fields.length];
    if (holders) members.holders = holders.map((lines) => lines.map((line) => data.texts[line]));
    return members;
  };
  return {
    sort: data.sort,
    texts: data.texts,
    counts: data.fields.includes("allocatedBytes"), // since the start
    searched: data.processes.some((process) => process.searched),
    total: { blocks: data.total[0], bytes: data.total[1] },
    leftOut: data.leftOut, // how many sites, and what each held at most
    processes: data.processes.map((process) => ({
      ...process,
      name: data.texts[process.name],
      cycles: process.cycles.map(([number, time, blocks, bytes]) => ({ number, time, blocks, bytes })),
      leftOut: counters(process.leftOut),
    })),
    sites: data.sites.map(([label, name, type, cut, numbers, rows], id) => ({
      id, label: data.texts[label], name: data.texts[name], type: data.texts[type], texts: [label, name, type],
      cut: cut !== 0, trace: trace(numbers), seen: rows.map(seen),
    })),
    findings: data.findings.map(([process, fault, title, trails]) => ({
      process, fault: fault !== 0, title: data.texts[title],
      trails: trails.map(([heading, numbers]) => ({ heading: data.texts[heading], trace: trace(numbers) })),
    })),
    findingsLeftOut: data.findingsLeftOut,
  };
}

function counters([sites, blocks, bytes, lostBlocks, lostBytes]) {
  return { sites, blocks, bytes, lostBlocks, lostBytes };
}

// ---- Of one process, or of all of them ----

const everyone = -1;

const processesOf = (process) => process === everyone ? report.processes : [report.processes[process]];

// A row has a site's numbers, which are added up; of the oldest and the largest block, it has the highest.
const rowsOf = remembered((process) => {
  const rows = [];
  for (const site of report.sites) {
    const seen = process === everyone ? site.seen : site.seen.filter((each) => each.process === process);
    if (seen.length > 0) rows.push(rowOf(site, seen));
  }
  return rows;
});

function rowOf(site, seen) {
  const row = { site, seen, oldest: 0, largest: 0, growth: null };
  for (const each of seen) {
    for (const field of ["blocks", "bytes", "lostBlocks", "lostBytes", "most", "allocatedBlocks",
      "allocatedBytes", "temporaryBlocks", "temporaryBytes"])
      if (field in each) row[field] = (row[field] ?? 0) + each[field];
    row.oldest = Math.max(row.oldest, each.oldest);
    row.largest = Math.max(row.largest, each.largest);
    const { cycles } = report.processes[each.process];
    if (cycles.length > 1)
      row.growth = (row.growth ?? 0) + bytesIn(each.series, cycles.length - 1) - bytesIn(each.series, 0);
  }
  return row;
}

// A series has the cycles in which bytes change, counted from 0, and the bytes from there on.
function bytesIn(series, cycle) {
  let bytes = 0;
  for (let i = 0; i < series.length && series[i] <= cycle; i += 2) bytes = series[i + 1];
  return bytes;
}

function bytesInAll(series, count) {
  const all = new Array(count).fill(0);
  for (let i = 0; i < series.length; i += 2) all.fill(series[i + 1], series[i]);
  return all;
}

// What is shown of blocks: all of them, or those that are lost, or those that are not.
const parts = {
  all: (row) => ({ blocks: row.blocks, bytes: row.bytes }),
  lost: (row) => ({ blocks: row.lostBlocks, bytes: row.lostBytes }),
  held: (row) => ({ blocks: row.blocks - row.lostBlocks, bytes: row.bytes - row.lostBytes }),
};

const shownRows = remembered((process, view) =>
  view === "all" ? rowsOf(process) : rowsOf(process).filter((row) => parts[view](row).blocks > 0));

function leftOutOf(process) {
  const sum = { sites: 0, blocks: 0, bytes: 0, lostBlocks: 0, lostBytes: 0 };
  for (const each of processesOf(process))
    for (const field of Object.keys(sum)) sum[field] += each.leftOut[field];
  return sum;
}

// ---- Over time ----

const mostMoments = 400;

// Of clocks that were set back, nothing can be drawn.
const hasTimes = ({ cycles }) =>
  cycles.every(({ time }, i) => time > 0 && (i === 0 || time >= cycles[i - 1].time));

// The moments of a plot, and for each process which of its cycles was its last by then, or -1. A process that has
// ended keeps what it held then.
const timelineOf = remembered((process) => {
  const processes = processesOf(process).filter((each) => each.cycles.length > 0);
  const timed = processes.filter(hasTimes);
  const times = [...new Set(timed.flatMap((each) => each.cycles.map((cycle) => cycle.time)))].sort((a, b) => a - b);
  const longest = Math.max(0, ...processes.map((each) => each.cycles.length));
  const byTime = times.length > 1 && times.length >= longest / 2 &&
    timed.length === processes.filter((each) => each.count === 1).length;
  const cyclesOfOne = processes.length === 1 ? processes[0].cycles : null;
  let moments;
  if (byTime && !cyclesOfOne)
    moments = thinned(times, mostMoments).map((time) => ({ x: time, cycle: null }));
  else if (cyclesOfOne)
    moments = cyclesOfOne.map((cycle) => ({ x: byTime ? cycle.time : cycle.number, cycle: cycle.number }));
  else
    moments = Array.from({ length: longest }, (_, i) => ({ x: i + 1, cycle: i + 1 }));
  const last = (cycles) => {
    if (cyclesOfOne) return moments.map((_, i) => i);
    if (!byTime) return moments.map((_, i) => Math.min(i, cycles.length - 1));
    let next = 0;
    return moments.map(({ x }) => {
      while (next < cycles.length && cycles[next].time <= x) ++next;
      return next - 1;
    });
  };
  const lasts = new Map(processes.map((each) => [report.processes.indexOf(each), last(each.cycles)]));
  return { byTime, moments, lasts, grows: longest > 1 };
});

function thinned(items, most) {
  if (items.length <= most) return items;
  return Array.from({ length: most }, (_, i) => items[Math.round(i * (items.length - 1) / (most - 1))]);
}

function sumOver(timeline, bytesByProcess) {
  const sums = new Array(timeline.moments.length).fill(0);
  for (const [process, bytes] of bytesByProcess)
    timeline.lasts.get(process)?.forEach((cycle, moment) => { if (cycle >= 0) sums[moment] += bytes[cycle]; });
  return sums;
}

const totalOver = (timeline) => sumOver(timeline,
  [...timeline.lasts.keys()].map((process) => [process, report.processes[process].cycles.map((cycle) => cycle.bytes)]));

const rowOver = (timeline, row) => sumOver(timeline,
  row.seen.map(({ process, series }) => [process, bytesInAll(series, report.processes[process].cycles.length)]));

// ---- Stacks ----

// A function that calls itself is one step, however deep.
function folded(trace) {
  const steps = [];
  for (const frame of trace) {
    if (steps.at(-1)?.frame.key === frame.key) ++steps.at(-1).times;
    else steps.push({ frame, times: 1 });
  }
  return steps;
}

const times = (low, high = low) => high === 1 ? "" : low === high ? ` × ${high}` : ` × ${low}–${high}`;
