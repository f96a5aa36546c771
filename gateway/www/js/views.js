// A module's page, generated from its part of GET /api/model: a list table as a table
// of rows, a table of named sections as one form per section, a dynamic table read
// only, and the actions the user may run. Nothing here knows any module by name.
import { h, uid } from './dom.js';
import { request } from './api.js';
import { collectAdd, collectDelete, collectSet, draftOf, forgetSet, isCollected } from './changes.js';
import { describe } from './errors.js';
import { changes, columnsOf, field, freeValue, kindOf, rowsOf, shown } from './values.js';

const POLL_MS = 5000;

// Views of their own for tables that want one (see extensions.js): "module/table" ->
// render(view), which fills view.body from view.rows and may use view.send.
const custom = new Map();
export function registerTableView(module, table, render) {
  custom.set(module + '/' + table, render);
}

// Shows what the gateway or the owner answered in el; true when the request succeeded.
async function answer(el, res, success) {
  const { ok, text } = await describe(res, success);
  if (el) {
    el.textContent = text;
    el.className = 'answer ' + (ok ? 'ok' : 'error');
  }
  return ok;
}

// Says in status that a change went into the change set rather than to the router.
function collected(status, count) {
  status.textContent = 'In the change set (' + count + (count === 1 ? ' change' : ' changes')
    + '), not yet applied.';
  status.className = 'answer';
}

// A modal form; submit(status) answers true to close it, and so does collect(status),
// which puts the change into the change set instead, when given. Escape or Cancel
// closes it without sending; the focus goes back where it was, or to what refocus() names.
function dialog(title, build, submitLabel, submit, refocus, collect) {
  const titleId = uid('d');
  const status = h('p', { class: 'answer', role: 'alert' });
  const body = h('div', { class: 'fields' });
  const cancel = h('button', { type: 'button', class: 'secondary cancel' }, 'Cancel');
  const later = collect ? h('button', { type: 'button', class: 'secondary collect' }, 'Add to change set') : null;
  const form = h('form', { method: 'dialog' },
    h('h2', { id: titleId }, title), body, status,
    h('div', { class: 'buttons' }, h('button', { type: 'submit' }, submitLabel), later, cancel));
  const d = h('dialog', { 'aria-labelledby': titleId }, form);
  const back = document.activeElement;
  build(body);
  cancel.addEventListener('click', () => d.close());
  if (later) later.addEventListener('click', () => { if (collect(status)) d.close(); });
  d.addEventListener('close', () => {
    d.remove();
    // The opener may have been drawn anew meanwhile: then its successor gets the focus.
    const to = back && back.isConnected ? back : refocus && refocus();
    if (to) to.focus();
  });
  form.addEventListener('submit', async (e) => {
    e.preventDefault();
    form.classList.add('busy');
    try {
      if (await submit(status)) d.close();
    } finally {
      form.classList.remove('busy');
    }
  });
  document.body.append(d);
  d.showModal();
  const first = body.querySelector('input, textarea, select');
  if (first) first.focus();
}

// Repeats an answer inside a dialog, which hides the page behind it.
function tell(status, answered) {
  status.textContent = answered.textContent;
  status.className = answered.className;
}

// Reads the values of fields, or says in status why it cannot.
function readForm(fields, status, read) {
  try {
    return read(fields);
  } catch (e) {
    status.textContent = 'A value is not valid JSON: ' + e.message;
    status.className = 'answer error';
    return null;
  }
}

class TableView {
  constructor(page, table) {
    this.page = page;
    this.module = page.module.name;
    this.table = table;
    this.dynamic = !table.stored;
    this.writable = page.writable && !this.dynamic;
    this.rows = [];
    this.count = 0;
    const headingId = uid('t');
    this.countEl = h('span', { class: 'count' });
    this.body = h('div', { class: 'body' });
    this.status = h('p', { class: 'answer', role: 'status' });
    this.tools = h('div', { class: 'tools' });
    const kind = 'table ' + table.kind + (this.dynamic ? ' dynamic' : '');
    this.el = h('section', { class: kind, 'data-table': table.name, 'aria-labelledby': headingId },
      h('h3', { id: headingId }, table.name, ' ',
        this.dynamic ? h('span', { class: 'tag' }, 'live') : null, ' ', this.countEl),
      this.tools, this.body, this.status);
    if (this.dynamic) this.addRefresh();
    if (this.writable && table.kind === 'list') {
      const add = h('button', { type: 'button', class: 'add', onclick: () => this.addDialog() }, 'Add a row');
      this.tools.append(add);
    }
  }

  send(text, options) {
    return request(text, options);
  }

  addRefresh() {
    const auto = h('input', { type: 'checkbox', id: uid('auto') });
    // Polling is marked as background, so that a page left open does not keep the session alive.
    auto.addEventListener('change', () => {
      clearInterval(this.poll);
      if (auto.checked) this.poll = setInterval(() => this.load({ background: true }), POLL_MS);
    });
    this.page.disposers.push(() => clearInterval(this.poll));
    // Not a live region: a poll every few seconds would be read out every time.
    this.stamp = h('span', { class: 'stamp' });
    this.tools.append(
      h('button', { type: 'button', class: 'refresh', onclick: () => this.load() }, 'Refresh'),
      h('span', { class: 'field check' },
        h('label', { for: auto.id }, 'every ' + POLL_MS / 1000 + ' s'), auto),
      this.stamp);
  }

  async load(options) {
    const res = await this.send({ method: 'get', [this.module]: { table: this.table.name } }, options);
    if (res.status === 200 && res.body && res.body.error_code === 0) this.fill(res.body[this.module]);
    else await answer(this.status, res);
  }

  // Renders the rows of this table from a module's part of a get's answer.
  fill(part) {
    this.rows = rowsOf(part && part[this.table.name]);
    const count = part && part.count && part.count[this.table.name];
    this.count = typeof count === 'number' ? count : this.rows.length;
    const unit = this.table.kind === 'named' ? 'section' : 'row';
    this.countEl.textContent = '(' + this.count + ' ' + unit + (this.count === 1 ? ')' : 's)');
    if (this.dynamic) {
      this.stamp.textContent = 'read at ' + new Date().toLocaleTimeString();
      this.status.textContent = '';
      this.status.className = 'answer';
    }
    this.redraw();
  }

  // Renders the rows read last again: after a change went into the change set.
  redraw() {
    const render = custom.get(this.module + '/' + this.table.name);
    this.body.replaceChildren();
    if (render) render(this);
    else if (this.table.kind === 'named') this.renderSections();
    else this.renderRows();
  }

  renderRows() {
    if (this.rows.length === 0) {
      this.body.append(h('p', { class: 'empty' }, 'No rows.'));
      return;
    }
    const columns = [...columnsOf(this.rows).keys()];
    const head = h('tr', null, h('th', { scope: 'col' }, 'section'),
      columns.map((c) => h('th', { scope: 'col' }, c)),
      this.writable ? h('th', { scope: 'col' }, h('span', { class: 'visually-hidden' }, 'changes')) : null);
    const rows = this.rows.map(([name, current]) => h('tr', { 'data-section': name },
      h('th', { scope: 'row' }, name,
        this.writable && isCollected(this.module, name) ? [' ', h('span', { class: 'tag draft' }, 'in change set')]
          : null),
      columns.map((c) => h('td', { 'data-option': c, 'data-label': c }, shown(current[c]))),
      this.writable ? h('td', { class: 'row-tools' },
        h('button', {
          type: 'button', class: 'edit', 'aria-label': 'Edit ' + name,
          onclick: () => this.editDialog(name, current),
        }, 'Edit'),
        h('button', {
          type: 'button', class: 'delete danger', 'aria-label': 'Delete ' + name,
          onclick: () => this.deleteDialog(name),
        }, 'Delete'))
        : null));
    this.body.append(h('div', { class: 'scroll' },
      h('table', null, h('caption', { class: 'visually-hidden' }, this.table.name + ' of ' + this.module),
        h('thead', null, head), h('tbody', null, rows))));
  }

  renderSections() {
    if (this.rows.length === 0) this.body.append(h('p', { class: 'empty' }, 'No sections.'));
    for (const [name, current] of this.rows) {
      const draft = this.writable ? draftOf(this.module, name) : undefined;
      const fields = Object.entries(current)
        .map(([o, v]) => field(o, kindOf(v), v, { disabled: !this.writable, draft: draft && draft[o] }));
      const status = h('p', { class: 'answer', role: 'status' });
      const tag = h('span', { class: 'tag draft', hidden: !draft }, 'in change set');
      const later = h('button', { type: 'button', class: 'secondary collect' }, 'Add ' + name + ' to change set');
      const form = h('form', { class: 'section', 'data-section': name },
        h('fieldset', null, h('legend', null, name, ' ', tag), h('div', { class: 'fields' }, fields.map((f) => f.el))),
        this.writable ? h('div', { class: 'buttons' }, h('button', { type: 'submit' }, 'Save ' + name), later) : null,
        status);
      // The form keeps what was typed; the change set holds it until it is applied or discarded.
      later.addEventListener('click', () => {
        const para = readForm(fields, status, changes);
        if (!para) return;
        const empty = Object.keys(para).length === 0;
        if (empty && !draftOf(this.module, name)) {
          status.textContent = 'Nothing changed.';
          status.className = 'answer';
          return;
        }
        const count = collectSet(this.module, name, para);
        tag.hidden = empty;
        if (empty) {
          status.textContent = 'Taken out of the change set.';
          status.className = 'answer';
        } else {
          collected(status, count);
        }
      });
      form.addEventListener('submit', async (e) => {
        e.preventDefault();
        const para = readForm(fields, status, changes);
        if (!para) return;
        if (Object.keys(para).length === 0) {
          status.textContent = 'Nothing changed.';
          status.className = 'answer';
          return;
        }
        const res = await this.send({ method: 'set', [this.module]: { [name]: para } });
        // The form stays as it is, with the focus where it was; what was sent is now the value.
        if (await answer(status, res, 'Saved ' + name + '.')) {
          fields.forEach((f) => f.saved());
          forgetSet(this.module, name);  // what it held is what was saved
          tag.hidden = true;
        }
      });
      this.body.append(form);
    }
  }

  addDialog() {
    const kinds = columnsOf(this.rows);
    const fields = [...kinds].map(([o, k]) => field(o, k, undefined, { blankMeansUnset: true }));
    const free = [];
    const addFree = (list) => {
      const nameId = uid('n');
      const valueId = uid('v');
      const name = h('input', { id: nameId, autocomplete: 'off', spellcheck: 'false' });
      const value = h('input', { id: valueId, autocomplete: 'off', spellcheck: 'false' });
      free.push({ name, value });
      list.append(h('div', { class: 'free' },
        h('div', { class: 'field' }, h('label', { for: nameId }, 'Other option'), name),
        h('div', { class: 'field' }, h('label', { for: valueId }, 'its value'), value)));
      return name;
    };
    const build = (body) => {
      body.append(...fields.map((f) => f.el));
      const list = h('div', { class: 'free-list' });
      addFree(list);
      const hint = 'A value that reads as JSON (12, true, "text") is sent as that; anything else as text.';
      body.append(list, h('p', { class: 'hint' }, hint),
        h('button', { type: 'button', class: 'secondary', onclick: () => addFree(list).focus() }, 'Another option'));
    };
    const read = (status) => {
      const para = readForm(fields, status, (fs) => {
        const out = {};
        for (const f of fs) {
          const v = f.read();
          if (v !== undefined) out[f.name] = v;
        }
        return out;
      });
      for (const { name, value } of para ? free : []) {
        if (name.value.trim()) para[name.value.trim()] = freeValue(value.value);
      }
      return para;
    };
    dialog('Add a row to ' + this.table.name, build, 'Add', async (status) => {
      const para = read(status);
      if (!para) return false;
      const res = await this.send({ method: 'add', [this.module]: { table: this.table.name, para } });
      const added = (b) => {
        const names = b[this.module] && b[this.module].name;
        return 'Added ' + (Array.isArray(names) ? names.join(', ') : 'a row') + '.';
      };
      const ok = await answer(this.status, res, added);
      if (ok) await this.load();
      else tell(status, this.status);
      return ok;
    }, null, (status) => {
      const para = read(status);
      if (para) collected(this.status, collectAdd(this.module, this.table.name, para));
      return para !== null;
    });
  }

  editDialog(name, current) {
    const draft = draftOf(this.module, name);
    const fields = Object.entries(current).map(([o, v]) => field(o, kindOf(v), v, { draft: draft && draft[o] }));
    const refocus = () => this.body.querySelector('tr[data-section="' + CSS.escape(name) + '"] button.edit');
    dialog('Edit ' + name, (body) => body.append(...fields.map((f) => f.el)), 'Save', async (status) => {
      const para = readForm(fields, status, changes);
      if (!para) return false;
      if (Object.keys(para).length === 0) {
        if (forgetSet(this.module, name)) this.redraw();  // the row as it is is what is wanted
        return true;
      }
      const res = await this.send({ method: 'set', [this.module]: { [name]: para } });
      const ok = await answer(this.status, res, 'Saved ' + name + '.');
      if (ok) {
        forgetSet(this.module, name);
        await this.load();
      } else {
        tell(status, this.status);
      }
      return ok;
    }, refocus, (status) => {
      const para = readForm(fields, status, changes);
      if (!para) return false;
      const count = collectSet(this.module, name, para);
      if (Object.keys(para).length) collected(this.status, count);
      this.redraw();
      return true;
    });
  }

  deleteDialog(name) {
    const text = 'The row ' + name + ' of ' + this.table.name + ' is removed.';
    dialog('Delete ' + name + '?', (body) => body.append(h('p', null, text)), 'Delete', async (status) => {
      const res = await this.send({ method: 'delete', [this.module]: { name } });
      const ok = await answer(this.status, res, 'Deleted ' + name + '.');
      if (ok) await this.load();
      else tell(status, this.status);
      return ok;
    }, () => this.el.querySelector('button.add, tbody button.edit'), () => {
      collected(this.status, collectDelete(this.module, name));
      this.redraw();
      return true;
    });
  }
}

function actionView(page, action) {
  const id = uid('p');
  const params = h('textarea', { id, rows: 2, spellcheck: 'false', class: 'params' });
  params.value = '{}';
  const status = h('p', { class: 'answer', role: 'status' });
  const result = h('pre', { class: 'result', hidden: true });
  const run = h('button', { type: 'submit' }, 'Run ' + action.name);
  const form = h('form', { class: 'action', 'data-action': action.name },
    h('div', { class: 'field' }, h('label', { for: id }, 'Parameters of ' + action.name + ' (JSON)'), params),
    run, status, result);
  form.addEventListener('submit', async (e) => {
    e.preventDefault();
    let para;
    try {
      para = JSON.parse(params.value || '{}');
    } catch (err) {
      status.textContent = 'The parameters are not JSON: ' + err.message;
      status.className = 'answer error';
      return;
    }
    run.disabled = true;
    try {
      const res = await request({ method: 'do', [page.module.name]: { [action.name]: para } });
      const ok = await answer(status, res, 'Done.');
      result.hidden = !ok;
      if (ok) {
        const { error_code: _, ...rest } = res.body;
        result.textContent = JSON.stringify(rest, null, 2);
      }
    } finally {
      run.disabled = false;
    }
  });
  return form;
}

// Renders a module into main; resolves when its tables are shown. dispose() stops its polls.
export async function renderModule(module, main) {
  // One request reads every table of the module, sent before the page is drawn.
  const reading = module.tables.length
    ? request({ method: 'get', [module.name]: { table: module.tables.map((t) => t.name) } }) : null;
  const page = { module, writable: module.access.includes('write'), disposers: [] };
  const headingId = uid('m');
  const status = h('p', { class: 'answer', role: 'status' });
  const views = module.tables.map((t) => new TableView(page, t));
  const runnable = module.actions.filter((a) => a.exec);
  main.replaceChildren(
    h('h2', { id: headingId, tabindex: '-1' }, module.name),
    h('p', { class: 'access' }, 'You may ', module.access.join(', '), ' here.'),
    status,
    ...views.map((v) => v.el),
    runnable.length ? h('section', { class: 'actions', 'aria-label': 'Actions' },
      h('h3', null, 'Actions'), runnable.map((a) => actionView(page, a))) : null);
  if (reading) {
    main.setAttribute('aria-busy', 'true');
    const res = await reading;
    if (res.status === 200 && res.body && res.body.error_code === 0) {
      views.forEach((v) => v.fill(res.body[module.name]));
    } else {
      await answer(status, res);
    }
    main.removeAttribute('aria-busy');
  }
  return { dispose: () => page.disposers.forEach((d) => d()) };
}
