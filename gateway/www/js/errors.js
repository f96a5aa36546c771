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
