// The gateway's page: logs in, shows the tables and actions the user may read, and
// sends requests. The token lives in this page's memory only, never in a URL.
'use strict';
let token = null;
let poll = null;
const $ = (id) => document.getElementById(id);

async function api(path, body, background) {
  const headers = {};
  if (token) headers.Authorization = 'Bearer ' + token;
  if (background) headers['X-Kep-Background'] = '1';
  const init = { method: body === undefined ? 'GET' : 'POST', headers };
  if (body !== undefined) {
    headers['Content-Type'] = 'application/json';
    init.body = typeof body === 'string' ? body : JSON.stringify(body);
  }
  const r = await fetch(path, init);
  if (r.status === 401 && token) loggedOut('The session ended.');
  return r;
}

function loggedOut(message) {
  token = null;
  clearInterval(poll);
  $('main').hidden = true;
  $('logout').hidden = true;
  $('who').textContent = '';
  $('login').hidden = false;
  $('login-error').textContent = message || '';
}

async function send(text) {
  $('request').value = text;
  const r = await api('/api/request', text);
  const body = await r.text();
  let shown = body;
  try { shown = JSON.stringify(JSON.parse(body), null, 2); } catch (e) { /* shown as it came */ }
  $('response').textContent = r.status + '\n' + shown;
}

function entry(label, request) {
  const b = document.createElement('button');
  b.textContent = label;
  b.addEventListener('click', () => send(JSON.stringify(request)));
  return b;
}

async function showModel() {
  const r = await api('/api/model');
  if (!r.ok) return;
  const nav = $('model');
  nav.replaceChildren();
  for (const m of (await r.json()).modules) {
    const h = document.createElement('h3');
    h.textContent = m.name + ' (' + m.access.join(', ') + ')';
    nav.append(h);
    for (const t of m.tables) {
      const request = { method: 'get' };
      request[m.name] = { table: t.name };
      nav.append(entry(t.name + (t.stored ? '' : ' (live)'), request));
    }
    for (const a of m.actions) {
      if (!a.exec) continue;
      const request = { method: 'do' };
      request[m.name] = { [a.name]: {} };
      nav.append(entry('do ' + a.name, request));
    }
  }
}

$('login').addEventListener('submit', async (e) => {
  e.preventDefault();
  const form = new FormData(e.target);
  const r = await api('/api/login', { username: form.get('username'), password: form.get('password') });
  if (!r.ok) {
    const wait = r.headers.get('Retry-After');
    $('login-error').textContent = r.status === 429 ? 'Too many failed logins: try again in ' + wait + ' s.'
                                                    : 'Wrong user name or password.';
    return;
  }
  const session = await r.json();
  token = session.token;
  e.target.reset();
  $('login').hidden = true;
  $('main').hidden = false;
  $('logout').hidden = false;
  $('who').textContent = form.get('username') + ' (' + session.role + ')';
  // Checks the session now and then without keeping it alive.
  poll = setInterval(() => api('/api/session', undefined, true), 30000);
  showModel();
});

$('logout').addEventListener('click', async () => {
  await api('/api/logout', '');
  loggedOut();
});
$('send').addEventListener('click', () => send($('request').value));
