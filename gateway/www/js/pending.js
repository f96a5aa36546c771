// The change set the host holds, in a banner above the page of every logged-in user
// while it lasts: whose it is, on which modules, the time left to confirm it. Only the
// user that applied it gets Confirm and Undo: the host refuses them to anybody else.
import { cancelChanges, confirmChanges, pendingChanges } from './api.js';
import { h } from './dom.js';
import { describe } from './errors.js';

// Asked as background calls, so that an open page does not keep its session alive;
// more often while a change set lasts, so that its end shows promptly.
const IDLE_MS = 3000;
const PENDING_MS = 1500;
const ENDING_MS = 400;

const $ = (id) => document.getElementById(id);
let me = null;        // the logged-in user; null while logged out
let reread = () => {};
let shown = null;     // { p: the host's record, end: { lo, hi } in performance.now() ms, left: its element }
let timer = 0;
let ticker = 0;
let polls = 0;
let expected = null;  // a change set this page just applied: its values are read already
let focusing = null;  // the same, whose Confirm is still to take the focus
let settled = null;   // { id, text, kind }: what this page's Confirm or Undo did

// The outcome of an apply, a confirm, an undo or a change set's end, above the module.
export function say(text, kind = '') {
  $('outcome').textContent = text;
  $('outcome').className = 'answer ' + kind;
}

// {"dhcp": "restored", "system": "not restored: ..."} in words: { ok, text }.
export function restoredText(restored) {
  const all = Object.entries(restored || {});
  const bad = all.filter(([, how]) => how !== 'restored');
  if (all.length === 0) return { ok: true, text: 'nothing had been changed.' };
  if (bad.length === 0) return { ok: true, text: 'everything was put back (' + all.map(([m]) => m).join(', ') + ').' };
  return { ok: false, text: 'not everything could be put back: ' + bad.map(([m, how]) => m + ' ' + how).join('; ') + '.' };
}

// reread(modules) is called when a change set that changes them appears or ends.
export function watchPending(user, onChanged) {
  me = user;
  reread = onChanged;
  poll();
}

export function stopWatching() {
  me = null;
  clearTimeout(timer);
  polls += 1;  // an answer on its way is dropped
  shown = null;
  expected = null;
  focusing = null;
  settled = null;
  render();
  say('');
}

// After this page applied a change set with a window: the banner comes at once, and
// its Confirm takes the focus.
export function expectPending(id) {
  expected = id;
  focusing = id;
  poll();
}

// After an apply without a window: the banner of its applying goes at once.
export function checkPending() {
  poll();
}

async function poll() {
  clearTimeout(timer);
  const mine = ++polls;
  const sent = performance.now();
  const res = await pendingChanges();
  if (me === null || mine !== polls) return;
  // Anything else (a gateway restarting, the host unreachable) is asked again; a 401
  // has ended the session and with it this watch.
  if (res.status === 200 && res.body && res.body.error_code === 0) {
    update(res.body.pending || null, sent, performance.now());
  }
  const p = shown && shown.p;
  timer = setTimeout(poll, !p ? IDLE_MS
    : (p.state === 'pending' && secondsLeft() > 0) || p.state === 'recovering' ? PENDING_MS : ENDING_MS);
}

// When the window ends, on this page's clock (the router's may be set otherwise): the
// host counts the seconds left in whole seconds, so each answer places the end within
// a second, and the answers together narrow it down.
function narrow(end, p, sent, received) {
  if (typeof p.seconds_left !== 'number') return null;
  const lo = sent + (p.seconds_left - 1) * 1000;
  const hi = received + p.seconds_left * 1000;
  if (!end || lo > end.hi || hi < end.lo) return { lo, hi };  // first, or the router's clock jumped
  return { lo: Math.max(lo, end.lo), hi: Math.min(hi, end.hi) };
}

function update(p, sent, received) {
  const last = shown;
  if (last && (!p || p.id !== last.p.id)) finished(last);
  if (!p) {
    shown = null;
    render();
    return;
  }
  if (last && last.p.id === p.id) {
    const state = last.p.state;
    last.p = p;
    last.end = narrow(last.end, p, sent, received);
    if (state !== p.state) render();
    else tick();
    return;
  }
  shown = { p, end: narrow(null, p, sent, received), left: null };
  render();
  if (p.id !== expected) reread(p.modules);  // not applied here: its values are new
}

function owner(p) {
  return p.user || 'uid ' + p.uid + ' (pid ' + p.pid + ')';
}

function isMine(p) {
  return me !== null && p.user === me;
}

function whose(p) {
  return isMine(p) ? 'Your change set ' + p.id : 'Change set ' + p.id + ' of ' + owner(p);
}

function finished(last) {
  const { p } = last;
  let text = null;
  let kind = '';
  if (settled && settled.id === p.id) {
    ({ text, kind } = settled);
  } else if (p.state === 'applying' && isMine(p)) {
    // Applied without a window, or refused: the page that applied it tells how it went.
  } else if ((p.state === 'pending' || p.state === 'undoing') && last.end
             && performance.now() >= last.end.lo - 1000) {
    text = whose(p) + ' was not confirmed in time and has been undone.';
  } else if (p.state === 'undoing') {
    text = whose(p) + ' has been undone.';
  } else {
    text = whose(p) + ' has ended: confirmed or undone.';
  }
  settled = null;
  if (expected === p.id) expected = null;
  // The focus was on Confirm or Undo, which go: the outcome takes it.
  const refocus = $('pending').contains(document.activeElement);
  if (text) say(text + ' The values shown are read again.', kind);
  if (refocus) $('outcome').focus();
  reread(p.modules);
}

function duration(s) {
  return s < 60 ? s + ' s' : Math.floor(s / 60) + ' min ' + String(s % 60).padStart(2, '0') + ' s';
}

function secondsLeft() {
  if (!shown || !shown.end) return Infinity;
  return Math.ceil(((shown.end.lo + shown.end.hi) / 2 - performance.now()) / 1000);
}

function tick() {
  if (!shown || !shown.left) return;
  const s = secondsLeft();
  const unless = isMine(shown.p) ? ' unless you confirm it.' : ' unless ' + owner(shown.p) + ' confirms it.';
  const text = s > 0 ? 'Undone in ' + duration(s) + unless : 'Not confirmed in time: being undone.';
  if (shown.left.textContent !== text) shown.left.textContent = text;
}

function render() {
  const box = $('pending');
  clearInterval(ticker);
  if (!shown) {
    box.replaceChildren();
    box.classList.remove('active');
    return;
  }
  const { p } = shown;
  const mine = isMine(p);
  // Modules this user may not read are only counted by the gateway.
  const modules = p.modules.concat(p.hidden ? [p.hidden + ' other module' + (p.hidden > 1 ? 's' : '')] : [])
    .join(', ');
  const state = {
    applying: ' is being applied.',
    pending: ' is applied and waits for a confirm.',
    undoing: ' is being undone.',
    recovering: ' was pending when the router\'s configuration service stopped; it is undone as soon as'
      + ' its modules are served again.',
  }[p.state] || ' is not finished.';
  // The time left changes every second: not read out as it does (the banner itself is).
  shown.left = p.state === 'pending' ? h('span', { class: 'left', role: 'timer', 'aria-live': 'off' }) : null;
  const problem = h('p', { class: 'answer', role: 'alert' });
  let buttons = null;
  if (mine && p.state === 'pending') {
    buttons = h('div', { class: 'buttons' },
      h('button', { type: 'button', class: 'confirm', onclick: () => settle(true, problem) }, 'Confirm'),
      h('button', { type: 'button', class: 'danger undo', onclick: () => settle(false, problem) }, 'Undo'));
  }
  box.replaceChildren(...[
    h('p', { class: 'what' },
      h('strong', null, whose(p)),
      ' on ' + modules + state),
    shown.left,
    mine ? null : h('p', { class: 'hint' }, 'Until it ends, changes to ' + modules + ' are refused.'),
    buttons, problem].filter(Boolean));
  box.classList.add('active');
  tick();
  if (shown.left) ticker = setInterval(tick, 250);
  if (buttons && p.id === focusing) {
    focusing = null;  // once: a later render leaves the focus where the user put it
    buttons.querySelector('.confirm').focus();
  }
}

async function settle(confirm, problem) {
  const id = shown.p.id;
  const buttons = [...$('pending').querySelectorAll('button')];
  buttons.forEach((b) => { b.disabled = true; });
  const res = await (confirm ? confirmChanges() : cancelChanges());
  const b = res.body;
  if (res.status === 200 && b && b.error_code === 0 && confirm) {
    settled = { id, text: 'Change set ' + id + ' is confirmed: its changes stay.', kind: 'ok' };
  } else if (res.status === 200 && b && b.restored) {
    const back = restoredText(b.restored);
    settled = { id, text: 'Change set ' + id + ' is undone: ' + back.text, kind: back.ok ? 'ok' : 'error' };
  } else {
    // Too late (the window ended), or not this user's: said here; the next poll tells the rest.
    const why = await describe(res);
    problem.textContent = why.text;
    problem.className = 'answer error';
    buttons.forEach((x) => { x.disabled = false; });
  }
  poll();
}
