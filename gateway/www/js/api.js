// The gateway's API. The session token lives in this module's memory only: never in
// a URL, a cookie or storage, so a reload or a closed tab logs out, and no script of
// another page can read it.

let token = null;
let idleMs = 0;
let watch = 0;
let ended = () => {};

// Called with a message when the session ends by itself (idle, limit, gateway restart).
export function onSessionEnd(handler) {
  ended = handler;
}

export function loggedIn() {
  return token !== null;
}

function end(message) {
  if (token === null) return;
  token = null;
  clearTimeout(watch);
  ended(message);
}

// Checks the session shortly after it would end if idle, and again until it does;
// the check is marked as background, so it does not itself keep the session alive.
function arm(ms) {
  clearTimeout(watch);
  if (token !== null) watch = setTimeout(check, Math.max(0, Math.min(ms, 60000)) + 250);
}

async function check() {
  const r = await call('GET', '/api/session', undefined, { background: true }).catch(() => null);
  if (!r || !r.ok) {
    // A 401 has ended the session; anything else (no answer, 503) is tried again soon.
    if (!r || r.status !== 401) arm(5000);
    return;
  }
  const s = await r.json();
  idleMs = s.idle_timeout * 1000;
  const served = Date.parse(r.headers.get('Date') || '');
  arm(s.expires * 1000 - (Number.isNaN(served) ? Date.now() : served));
}

// fetch() with the session. A 401 while logged in ends the session; every other
// answer is the caller's. A call that the user did not cause passes background: the
// gateway then does not count it as activity.
export async function call(method, path, body, { background = false } = {}) {
  const headers = {};
  if (token !== null) headers.Authorization = 'Bearer ' + token;
  if (background) headers['X-Kep-Background'] = '1';
  const init = { method, headers, cache: 'no-store' };
  if (body !== undefined) {
    headers['Content-Type'] = 'application/json';
    init.body = typeof body === 'string' ? body : JSON.stringify(body);
  }
  const r = await fetch(path, init);
  if (r.status === 401 && token !== null && path !== '/api/login') {
    end('Your session ended. Please log in again.');
  } else if (!background && token !== null && idleMs) {
    arm(idleMs);
  }
  return r;
}

// { ok, role } or { ok: false, message }.
export async function login(username, password) {
  const r = await call('POST', '/api/login', { username, password });
  if (r.ok) {
    const s = await r.json();
    token = s.token;
    idleMs = 0;
    check();  // learns the idle time-out and starts watching
    return { ok: true, role: s.role };
  }
  if (r.status === 429) {
    const wait = r.headers.get('Retry-After') || 'a few';
    return { ok: false, message: 'Too many failed logins. Try again in ' + wait + ' s.' };
  }
  if (r.status === 401) return { ok: false, message: 'Wrong user name or password.' };
  return { ok: false, message: 'The gateway answered ' + r.status + '.' };
}

export async function logout() {
  if (token === null) return;
  await call('POST', '/api/logout', '').catch(() => null);
  token = null;
  clearTimeout(watch);
}

// One request of the library; { status, body } with body the parsed response (or
// the gateway's {"error": ...} for a refusal), null when it was not JSON.
// Status 0 when the gateway could not be reached at all.
export function request(text, options) {
  return answerOf('POST', '/api/request', text, options);
}

// Requests applied by the host as one: all of them or none. With a confirm window
// (seconds) they are undone when it ends unless confirmChanges() comes first.
export function applyChanges(requests, confirm) {
  return answerOf('POST', '/api/apply', { changes: requests, confirm });
}

export function confirmChanges() {
  return answerOf('POST', '/api/confirm');
}

export function cancelChanges() {
  return answerOf('POST', '/api/cancel');
}

// The change set the host holds, if any; polled, so sent as background.
export function pendingChanges() {
  return answerOf('GET', '/api/pending', undefined, { background: true });
}

async function answerOf(method, path, body, options) {
  let r;
  try {
    r = await call(method, path, body, options);
  } catch (e) {
    return { status: 0, body: null };
  }
  let parsed = null;
  try { parsed = await r.json(); } catch (e) { parsed = null; }
  return { status: r.status, body: parsed };
}
