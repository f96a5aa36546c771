// Views of their own for modules that want one. Every table gets the generic view
// unless a view is registered here for it, e.g.
//
//   registerTableView('dhcp', 'client', (view) => {
//     view.body.append(...view.rows.map(([name, values]) => h('p', null, name + ': ' + values.ip)));
//   });
//
// view.rows holds [section, {option: value}] pairs, view.body is emptied before each
// render, view.send(request) sends a request and view.load() reads the table again.
import { registerTableView } from './views.js';
