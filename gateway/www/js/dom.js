// Builds elements without HTML strings: every text a module or an owner sends is
// set as text, never parsed as markup.

// h('button', {class: 'x', onclick: f}, 'text', child...): attributes starting with
// "on" become listeners; false, null and undefined attributes and children are left out.
export function h(tag, attrs, ...children) {
  const el = document.createElement(tag);
  for (const [name, value] of Object.entries(attrs || {})) {
    if (value === false || value === null || value === undefined) continue;
    if (name.startsWith('on')) el.addEventListener(name.slice(2), value);
    else if (value === true) el.setAttribute(name, '');
    else el.setAttribute(name, String(value));
  }
  append(el, children);
  return el;
}

function append(el, children) {
  for (const c of children) {
    if (c === false || c === null || c === undefined) continue;
    if (Array.isArray(c)) append(el, c);
    else el.append(c instanceof Node ? c : String(c));
  }
}

// A fresh id for tying a label or a description to its control.
let serial = 0;
export function uid(prefix) {
  serial += 1;
  return prefix + '-' + serial;
}
