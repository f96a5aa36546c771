// What each "error_code" means: the gateway serves kepctl's table, loaded once per
// login and off the path of the first view.
import { call } from './api.js';

let table = null;
let loading = null;

export function loadMeanings() {
  if (!loading) {
    loading = call('GET', '/api/errors', undefined, { background: true })
      .then((r) => (r.ok ? r.json() : null))
      .then((t) => { table = t; })
      .catch(() => { loading = null; });
  }
  return loading;
}

export function forgetMeanings() {
  table = null;
  loading = null;
}

// "error_code 1002: code passed on from the owner's callback".
export async function explain(code) {
  await loadMeanings();
  const meaning = table ? (table.codes[String(code)] || table.other)
    : 'meaning unknown: the table could not be loaded';
  return 'error_code ' + code + ': ' + meaning;
}

// What the gateway or the host answered, in words: { ok, text }. success is the text
// for an answer with "error_code" 0, or a function of that answer giving it. A refusal
// that says why in "error" (a pending change set names itself and whose it is) is shown
// in its own words.
export async function describe(res, success) {
  const b = res.body;
  if (res.status === 200 && b && b.error_code === 0) {
    return { ok: true, text: typeof success === 'function' ? success(b) : success };
  }
  let text;
  if (res.status === 200 && b && typeof b.error_code === 'number') {
    text = 'Refused: ' + (typeof b.error === 'string' ? b.error + ' (error_code ' + b.error_code + ')'
      : await explain(b.error_code));
  } else if (res.status === 403) {
    text = 'Not allowed for your role: ' + ((b && b.error) || 'refused by the rules');
  } else if (res.status === 401) {
    text = 'The session ended.';
  } else if (res.status === 0) {
    text = 'The gateway cannot be reached.';
  } else if (res.status === 503) {
    text = 'The router\'s configuration service cannot be reached. Try again shortly.';
  } else {
    const why = b && b.error;
    text = 'The gateway answered ' + res.status + (why ? ': ' + why : '.');
  }
  return { ok: false, text };
}
