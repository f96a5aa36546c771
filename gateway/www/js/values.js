// Option values between the library's JSON and a form's controls. The model says
// which tables and sections exist but not what their options hold, so a value's
// control is chosen by the kind of value the owner sent.
import { h, uid } from './dom.js';

// [[section, {option: value}]] from a get's rows ([{"host_1": {...}}, ...]).
export function rowsOf(rows) {
  const out = [];
  for (const row of Array.isArray(rows) ? rows : []) {
    for (const [name, values] of Object.entries(row || {})) {
      out.push([name, values && typeof values === 'object' ? values : {}]);
    }
  }
  return out;
}

// The options of all rows, in the order they first appear, with the kind of their first value.
export function columnsOf(rows) {
  const kinds = new Map();
  for (const [, values] of rows) {
    for (const [name, value] of Object.entries(values)) if (!kinds.has(name)) kinds.set(name, kindOf(value));
  }
  return kinds;
}

export function kindOf(value) {
  if (typeof value === 'boolean') return 'boolean';
  if (typeof value === 'number') return 'number';
  if (typeof value === 'string') return 'text';
  return 'json';
}

// A value as a table cell shows it.
export function shown(value) {
  if (value === undefined) return '';
  if (typeof value === 'boolean') return value ? 'yes' : 'no';
  if (typeof value === 'object') return JSON.stringify(value);
  return String(value);
}

// A free option's value: JSON when it reads as JSON (12, true, "text", {...}), else the text itself.
export function freeValue(text) {
  try {
    return JSON.parse(text);
  } catch (e) {
    return text;
  }
}

// A labelled control for one option; read() gives its value, undefined when left empty
// where that means "not given" (an empty number, or any empty field of a new row).
// A draft (the value a change set holds for it) is shown instead of the value, which
// stays what changed() compares with.
export function field(name, kind, value, { blankMeansUnset = false, disabled = false, draft } = {}) {
  const id = uid('f');
  const showing = draft === undefined ? value : draft;
  let input;
  if (kind === 'boolean') {
    input = h('input', { id, type: 'checkbox', name, disabled });
    input.checked = showing === true;
  } else if (kind === 'json') {
    input = h('textarea', { id, name, rows: 2, spellcheck: 'false', disabled });
    input.value = showing === undefined ? '' : JSON.stringify(showing);
  } else {
    const number = kind === 'number';
    input = h('input', {
      id, name, type: number ? 'number' : 'text', step: number ? 'any' : null, disabled,
      autocomplete: 'off', spellcheck: 'false',
    });
    input.value = showing === undefined ? '' : String(showing);
  }
  const label = h('label', { for: id }, name);
  const wrap = h('div', { class: kind === 'boolean' ? 'field check' : 'field' }, label, input);
  const read = () => {
    if (kind === 'boolean') return input.checked;
    if (input.value === '' && (blankMeansUnset || kind !== 'text')) return undefined;
    if (kind === 'number') return Number(input.value);
    if (kind === 'json') return JSON.parse(input.value);  // throws: the form says so
    return input.value;
  };
  let baseline = value;
  return {
    name, el: wrap, input, read,
    changed: () => !same(read(), baseline),
    saved: () => { baseline = read(); },
  };
}

function same(a, b) {
  return JSON.stringify(a) === JSON.stringify(b);
}

// The options of fields whose values differ from those shown, as a "set" takes them.
export function changes(fields) {
  const out = {};
  for (const f of fields) {
    if (!f.changed()) continue;
    const v = f.read();
    if (v !== undefined) out[f.name] = v;
  }
  return out;
}
