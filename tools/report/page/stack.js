// Sites and their stack traces, with the source around their lines.

function excerptElement({ first, lines }, marked) {
  const rows = lines.map((line, i) => {
    const shown = `${String(first + i).padStart(5)}  ${line}\n`;
    return first + i === marked ? make("mark", { "aria-label": `line ${marked}: ${line}` }, shown) : shown;
  });
  return make("pre", { class: "excerpt", tabindex: "0" }, ...rows);
}

function frameLine({ frame, times: count }) {
  const where = frame.file ? `${frame.file}:${frame.line}` : frame.full === frame.module || frame.name.startsWith(frame.module) ? "" : frame.module;
  return [make("span", { class: "function", title: frame.full }, frame.name), times(count),
    frame.inlined ? make("span", { class: "where" }, " inlined") : "",
    make("span", { class: "where" }, where ? `  ${where}` : "")];
}

function frameItem(step, isOpen) {
  const { frame } = step;
  const item = make("li", { class: frame.start ? "start" : null });
  if (frame.excerpt)
    item.append(make("details", isOpen ? { open: "" } : {}, make("summary", {}, ...frameLine(step)),
      excerptElement(frame.excerpt, frame.line)));
  else
    item.append(...frameLine(step));
  return item;
}

// Its label without folders, and then what tells it from others.
function siteName({ label, name }) {
  const short = label.replace(/(^| at )\S*\/(?=[^/\s]+:\d+\b)/, "$1");
  return name.startsWith(label) ? [short, make("span", { class: "where" }, name.slice(label.length))] : [short];
}

const isHeader = ({ file }) => file.startsWith("/usr/include/"); // a library's

// Open is the source of the innermost frame of the program's own.
function traceList(trace, heading, cut = false) {
  const steps = folded(trace);
  const sourced = steps.filter(({ frame }) => frame.excerpt);
  const open = sourced.find(({ frame }) => frame.own && !isHeader(frame)) ?? sourced.find(({ frame }) => !isHeader(frame)) ?? sourced[0];
  const list = make("ol", { class: "trace" }, ...steps.map((step) => frameItem(step, step === open)));
  if (cut && !trace.at(-1).start) list.append(make("li", { title: "Callers beyond these were not recorded." }, "…"));
  return heading ? make("div", {}, make("p", { class: "heading" }, heading), list) : list;
}

function lineList(heading, lines) {
  return make("div", {}, make("p", { class: "heading" }, heading),
    make("ol", { class: "trace" }, ...lines.map((line) => make("li", {}, line))));
}
