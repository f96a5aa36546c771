// The change set: changes to sections and rows of any modules, collected instead of
// sent one by one, then applied by the host as one (all of them, or none when one is
// refused), with a window after which they are undone unless confirmed. Only this page
// knows them until they are applied: a reload or a logout discards them.
import { applyChanges } from './api.js';
import { h } from './dom.js';
import { describe } from './errors.js';
import { checkPending, expectPending, restoredText, say } from './pending.js';
import { shown } from './values.js';

const $ = (id) => document.getElementById(id);
const entries = new Map();  // key -> { module, section, what, detail, request }
let serial = 0;
let reread = () => {};

// reread(modules) is called when the values of those modules may differ from the shown ones.
export function initChanges(onChanged) {
  reread = onChanged;
}

function values(para) {
  return Object.entries(para).map(([o, v]) => o + ' ' + shown(v)).join(', ');
}

// A set of a section or a row; one entry per section, which the latest edit replaces, so
// that the entry always holds everything the form or dialog shows as changed. An empty
// one takes the section out. Answers how many changes the set holds.
export function collectSet(module, section, para) {
  const key = 'set ' + module + '/' + section;
  if (Object.keys(para).length === 0) {
    entries.delete(key);
  } else {
    entries.set(key, {
      module, section, what: module + ' · ' + section, detail: values(para),
      request: { method: 'set', [module]: { [section]: para } },
    });
  }
  render();
  return entries.size;
}

export function collectAdd(module, table, para) {
  serial += 1;
  entries.set('add ' + serial, {
    module, what: module + ' · ' + table + ': new row', detail: values(para),
    request: { method: 'add', [module]: { table, para } },
  });
  render();
  return entries.size;
}

export function collectDelete(module, section) {
  entries.set('delete ' + module + '/' + section, {
    module, section, what: module + ' · ' + section + ': delete', detail: '',
    request: { method: 'delete', [module]: { name: section } },
  });
  render();
  return entries.size;
}

// The options the change set sets for a section, or undefined.
export function draftOf(module, section) {
  const e = entries.get('set ' + module + '/' + section);
  return e && e.request[module][section];
}

// Whether the change set changes or deletes that section or row.
export function isCollected(module, section) {
  return entries.has('set ' + module + '/' + section) || entries.has('delete ' + module + '/' + section);
}

// Drops the set of a section (saved directly meanwhile); true when there was one.
export function forgetSet(module, section) {
  const had = entries.delete('set ' + module + '/' + section);
  if (had) render();
  return had;
}

export function clearChanges() {
  entries.clear();
  render();
}

function discard(keys) {
  const modules = new Set();
  for (const k of keys) {
    modules.add(entries.get(k).module);
    entries.delete(k);
  }
  render();
  reread([...modules]);  // the forms show the stored values again
}

function item(key, e) {
  // The focus goes on to the next entry's Discard, or to the outcome once the list is empty.
  const drop = (ev) => {
    const li = ev.target.closest('li');
    const next = li.nextElementSibling || li.previousElementSibling;
    const nextKey = next && next.dataset.key;
    discard([key]);
    if (nextKey) $('change-list').querySelector('li[data-key="' + CSS.escape(nextKey) + '"] button').focus();
    else $('outcome').focus();
  };
  return h('li', { 'data-key': key },
    h('span', { class: 'what' }, e.what), ' ',
    e.detail ? h('span', { class: 'detail' }, e.detail) : null,
    e.failed ? h('span', { class: 'tag refused' }, 'refused') : null,
    h('button', { type: 'button', class: 'secondary discard', 'aria-label': 'Discard ' + e.what, onclick: drop },
      'Discard'));
}

function render() {
  const n = entries.size;
  $('changes').hidden = n === 0;
  $('change-count').textContent = '(' + n + (n === 1 ? ' change)' : ' changes)');
  $('change-list').replaceChildren(...[...entries].map(([key, e]) => item(key, e)));
}

$('confirm-on').addEventListener('change', (e) => {
  $('confirm-seconds').disabled = !e.target.checked;
});

$('discard-changes').addEventListener('click', () => {
  discard([...entries.keys()]);
  say('The change set was discarded; nothing was sent.');
  $('outcome').focus();
});

$('apply-changes').addEventListener('submit', async (e) => {
  e.preventDefault();
  const form = e.target;
  const seconds = $('confirm-on').checked ? Number($('confirm-seconds').value) : 0;
  const keys = [...entries.keys()];
  const list = keys.map((k) => entries.get(k));
  const modules = [...new Set(list.map((c) => c.module))];
  form.classList.add('busy');
  form.querySelector('button[type=submit]').disabled = true;
  let res;
  try {
    res = await applyChanges(list.map((c) => c.request), seconds);
  } finally {
    form.classList.remove('busy');
    form.querySelector('button[type=submit]').disabled = false;
  }
  const b = res.body;
  if (!(res.status === 200 && b && b.pending)) checkPending();
  const count = list.length + (list.length === 1 ? ' change' : ' changes');
  list.forEach((c) => { c.failed = false; });
  if (res.status === 200 && b && b.error_code === 0) {
    keys.forEach((k) => entries.delete(k));  // not what was collected meanwhile
    render();
    if (b.pending) {
      say('Applied ' + count + ' together. They are undone in ' + b.pending.seconds
        + ' s unless you confirm them.', 'ok');
      expectPending(b.pending.id);  // the banner takes the focus with its Confirm
    } else {
      say('Applied ' + count + ' together.', 'ok');
      $('outcome').focus();
    }
    reread(modules);
  } else if (res.status === 200 && b && typeof b.failed === 'number' && list[b.failed]) {
    // Everything ran up to the refused request and was put back: the entries stay, to be
    // corrected or discarded, the refused one marked.
    const failed = list[b.failed];
    failed.failed = true;
    render();
    const why = await describe({ status: 200, body: b.response || { error_code: b.error_code } });
    const back = restoredText(b.restored);
    say('Change ' + (b.failed + 1) + ' of ' + list.length + ' (' + failed.what + ') was '
      + why.text.replace(/^Refused: /, 'refused: ') + '. '
      + 'Undoing all of them: ' + back.text, 'error');
    reread(modules);
  } else {
    // Refused before anything ran: another change set, the rules, an unreachable host.
    const why = await describe(res);
    say('Nothing was applied. ' + why.text, 'error');
  }
});
