"use strict";
// Elements, numbers and words.

const at = (selector, root = document) => root.querySelector(selector);

function make(tag, attributes = {}, ...children) {
  const element = tag.startsWith("svg:")
    ? document.createElementNS("http://www.w3.org/2000/svg", tag.slice(4))
    : document.createElement(tag);
  for (const [name, value] of Object.entries(attributes)) {
    if (name.startsWith("on")) element.addEventListener(name.slice(2), value);
    else if (value !== null) element.setAttribute(name, value);
  }
  element.append(...children);
  return element;
}

const number = (value) => value.toLocaleString("en-US");
const signed = (value) => (value > 0 ? "+" : "") + number(value);
const counted = (count, what) => `${number(count)} ${what}${count === 1 ? "" : "s"}`;
const percent = (part, whole) => `${(100 * part / Math.max(1, whole)).toFixed(1)} %`;

function size(bytes) {
  const units = ["B", "KiB", "MiB", "GiB", "TiB"];
  let unit = 0;
  while (Math.abs(bytes) >= 1024 && unit < units.length - 1) { bytes /= 1024; ++unit; }
  return (unit === 0 ? bytes : bytes.toFixed(bytes < 10 ? 2 : bytes < 100 ? 1 : 0)) + " " + units[unit];
}

const held = (counter) => `${counted(counter.bytes, "byte")} in ${counted(counter.blocks, "block")}`;

// The function with the arguments that it had last, and what it gave.
function remembered(compute) {
  let known, result;
  return (...given) => {
    if (!known || given.some((value, i) => value !== known[i])) {
      result = compute(...given);
      known = given;
    }
    return result;
  };
}
