// What somebody has chosen to see. It stands in the address, so that a link leads to the same.

const unchosen = {
  view: "all", process: everyone, sort: report.sort, up: false, filter: "", focus: "", find: "",
  site: -1, graph: "callers", layout: "icicle", colour: "function",
};
const state = { ...unchosen };
const shows = []; // the parts of the page, which show the state

function readAddress() {
  const given = new URLSearchParams(location.hash.slice(1));
  Object.assign(state, unchosen);
  for (const [name, kind] of Object.entries(unchosen)) {
    const value = given.get(name);
    if (value === null) continue;
    if (typeof kind === "boolean") state[name] = value === "1";
    else if (typeof kind === "number") state[name] = Number.parseInt(value, 10);
    else state[name] = value;
  }
  if (!report.processes[state.process]) state.process = everyone;
  if (!(state.view in parts) || !report.searched) state.view = "all";
}

function writeAddress() {
  const given = new URLSearchParams();
  for (const [name, value] of Object.entries(state))
    if (value !== unchosen[name]) given.set(name, value === true ? "1" : value);
  const hash = given.toString();
  history.replaceState(null, "", hash ? `#${hash}` : location.href.split("#")[0]);
}

function change(changes) {
  Object.assign(state, changes);
  writeAddress();
  show();
}

function show() {
  for (const each of shows) each();
}

// Buttons of which one is pressed: data-choice names the member of the state.
function showChoices() {
  for (const button of document.querySelectorAll("[data-choice] button"))
    button.setAttribute("aria-pressed", String(button.value === state[button.parentElement.dataset.choice]));
}

addEventListener("hashchange", () => { readAddress(); show(); });
addEventListener("click", (event) => {
  const button = event.target.closest?.("[data-choice] button");
  if (button) change({ focus: "", [button.parentElement.dataset.choice]: button.value });
});
