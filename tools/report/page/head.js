// Whose report it is, what it comes to, and what is wrong.

function showProcesses() {
  const { processes } = report;
  const names = processes.map((process) => process.name);
  at("#programs").textContent =
    names.slice(0, 6).join(", ") + (names.length > 6 ? ` and ${number(names.length - 6)} more` : "");
  const list = at("#process");
  const label = (process) => process.name +
    (process.cycles.length ? `: ${size(process.cycles.at(-1).bytes)}` : "") +
    (process.allCycles > 1 ? `, ${number(process.allCycles)} cycles` : "");
  list.append(make("option", { value: everyone }, `All ${number(processes.length)} together`),
    ...processes.map((process, i) => make("option", { value: i }, label(process))));
  list.parentElement.hidden = processes.length < 2;
  list.addEventListener("change", () => change({ process: Number(list.value), focus: "", site: -1 }));
}

function showTotals() {
  at("#process").value = state.process;
  at("#views").hidden = !report.searched;
  const processes = processesOf(state.process);
  const last = processes.flatMap((process) => process.cycles.slice(-1));
  const sum = (items, field) => items.reduce((all, item) => all + (item[field] ?? 0), 0);
  const rows = rowsOf(state.process);
  const leftOut = leftOutOf(state.process);
  const totals = [["bytes", sum(last, "bytes")], ["blocks", sum(last, "blocks")]];
  if (report.searched) totals.push(["bytes lost", sum(rows, "lostBytes") + leftOut.lostBytes]);
  const sites = state.process === everyone ? report.sites.length + report.leftOut.sites : rows.length + leftOut.sites;
  totals.push(["sites", sites], ["cycles", Math.max(0, ...processes.map((process) => process.allCycles))]);
  if (processes.length > 1) totals.push(["processes", sum(processes, "count")]);
  at("#totals").replaceChildren(...totals.map(([name, value]) =>
    make("div", {}, make("dt", {}, name), make("dd", {}, number(value)))));
}

const openFindings = 20;
const listedFindings = 200;

function findingItem(finding, isOpen) {
  const title = report.processes.length > 1 ? `${finding.title} in ${report.processes[finding.process].name}` : finding.title;
  if (finding.trails.length === 0) return make("li", { class: "title" }, title);
  return make("li", {}, make("details", isOpen ? { open: "" } : {}, make("summary", { class: "title" }, title),
    ...finding.trails.map((trail) => traceList(trail.trace, trail.heading))));
}

const showFindings = remembered((process) => {
  const shown = report.findings.filter((finding) => process === everyone || finding.process === process);
  for (const [section, faults] of [["#faults", true], ["#notes", false]]) {
    const findings = shown.filter((finding) => finding.fault === faults);
    const more = Math.max(0, findings.length - listedFindings) + (faults && process === everyone ? report.findingsLeftOut : 0);
    at(section).hidden = findings.length + more === 0;
    at("ul", at(section)).replaceChildren(
      ...findings.slice(0, listedFindings).map((finding, i) => findingItem(finding, i < openFindings)),
      ...more > 0 ? [make("li", {}, `and ${number(more)} more`)] : []);
  }
});

shows.push(showTotals, () => { showFindings(state.process); });
