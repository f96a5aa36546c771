// The page: the login, the list of modules the user may read, and one module's view
// at a time, chosen by the address's fragment (#dhcp), so that the browser's back
// button and a bookmark work.
import { call, loggedIn, login, logout, onSessionEnd } from './api.js';
import { clearChanges, initChanges } from './changes.js';
import { forgetMeanings, loadMeanings } from './errors.js';
import { h } from './dom.js';
import { stopWatching, watchPending } from './pending.js';
import { renderModule } from './views.js';
import './extensions.js';

const $ = (id) => document.getElementById(id);
let modules = [];
let current = null;  // the shown module's view
let showing = 0;     // which render is the latest, when renders overlap

function showLogin(message, error = true) {
  stopWatching();
  clearChanges();
  if (current) current.dispose();
  current = null;
  modules = [];
  forgetMeanings();
  $('app').hidden = true;
  $('who').hidden = true;
  $('logout').hidden = true;
  $('module').replaceChildren();
  $('modules').replaceChildren();
  $('login-view').hidden = false;
  $('login-message').textContent = message || '';
  $('login-message').className = message && error ? 'answer error' : 'answer';
  for (const d of document.querySelectorAll('dialog')) d.close();
  $('username').focus();
}

onSessionEnd((message) => showLogin(message));

function moduleFromHash() {
  let name = location.hash.replace(/^#/, '');
  try {
    name = decodeURIComponent(name);
  } catch (e) {
    // not percent-encoded as this page writes it: taken as it stands
  }
  return modules.find((m) => m.name === name) || modules[0];
}

async function show(focus) {
  const module = moduleFromHash();
  const mine = ++showing;
  if (current) current.dispose();
  current = null;
  for (const a of $('modules').querySelectorAll('a')) {
    if (module && a.dataset.module === module.name) a.setAttribute('aria-current', 'page');
    else a.removeAttribute('aria-current');
  }
  if (!module) {
    $('module').replaceChildren(h('p', { class: 'empty' }, 'Your role may read no module.'));
    return;
  }
  const view = await renderModule(module, $('module'));
  if (mine !== showing) {
    view.dispose();
    return;
  }
  current = view;
  if (focus) $('module').querySelector('h2').focus();
}

// The shown module is read again when a change set changed or undid its values, or
// changes collected for it were discarded.
function reread(names) {
  const module = moduleFromHash();
  if (loggedIn() && module && names.includes(module.name)) show(false);
}
initChanges(reread);

window.addEventListener('hashchange', () => {
  if (loggedIn()) show(true);
});

async function start(username, role) {
  const r = await call('GET', '/api/model');
  if (!r.ok) {
    // Nothing to show: the session is given up rather than left open behind the login form.
    await logout();
    $('login-message').textContent = 'The modules could not be read (' + r.status + '). Try again shortly.';
    $('login-message').className = 'answer error';
    return;
  }
  modules = (await r.json()).modules;
  $('who').textContent = username + ' · ' + role;
  $('modules').replaceChildren(...modules.map((m) => h('li', null,
    h('a', { href: '#' + encodeURIComponent(m.name), 'data-module': m.name }, m.name))));
  $('login-view').hidden = true;
  $('app').hidden = false;
  $('who').hidden = false;
  $('logout').hidden = false;
  await show(false);
  $('module').querySelector('h2, p').focus();
  performance.mark('kep-first-view');
  watchPending(username, reread);
  loadMeanings();  // after the first view: needed only when something fails
}

$('login').addEventListener('submit', async (e) => {
  e.preventDefault();
  performance.clearMarks();
  performance.mark('kep-login');
  const form = e.target;
  const button = form.querySelector('button');
  button.disabled = true;
  try {
    const username = $('username').value;
    const result = await login(username, $('password').value);
    if (!result.ok) {
      $('login-message').textContent = result.message;
      $('login-message').className = 'answer error';
      $('password').value = '';
      $('password').focus();
      return;
    }
    form.reset();
    $('login-message').textContent = '';
    await start(username, result.role);
  } catch (err) {
    $('login-message').textContent = 'The gateway cannot be reached.';
    $('login-message').className = 'answer error';
  } finally {
    button.disabled = false;
  }
});

$('logout').addEventListener('click', async () => {
  await logout();
  showLogin('You are logged out.', false);
});
