// The frame of the page: which view is shown, the connection, the banner.
//
// A view is a module with open(root, parameters). It fills `root` and returns an object:
//   change(parameters)  the fragment of the address changed, the view is the same
//   close()             another view comes: ends timers and listeners; `root` is emptied by the frame
import {loadSession} from './api.js';
import {element, setClass, setText} from './dom.js';
import {on, plant, start} from './live.js';
import * as overview from './overview.js';
import {fragmentOf, parseFragment} from './route.js';
import {logInAddress, showSession} from './session.js';
import {language, text} from './texts.js';
import * as values from './values.js';

// What is not needed at once is loaded when it is opened.
const kViews = {
  overview: () => overview,
  values: () => values,
  trend: () => import('./trend.js'),
  journal: () => import('./journal.js'),
};

const byId = id => document.getElementById(id);
let shown = {name: '', view: null};
let turn = 0;
let program = null;
// The address of each view when it was left: the tabs lead back to it.
const lastOf = new Map();

function fillFrame() {
  document.documentElement.lang = language;
  const skip = byId('skip');
  setText(skip, text('skip'));
  skip.addEventListener('click', () => byId('view').focus());
  byId('views').setAttribute('aria-label', text('views'));
  for (const name of Object.keys(kViews)) {
    byId('views').append(element('a', {href: fragmentOf(name), id: `to-${name}`},
      text(`view.${name}`)));
  }
}

function markTab(name) {
  for (const other of Object.keys(kViews)) {
    const tab = byId(`to-${other}`);
    if (other === name)
      tab.setAttribute('aria-current', 'page');
    else
      tab.removeAttribute('aria-current');
    tab.href = lastOf.get(other) ?? fragmentOf(other);
  }
  document.title = Object.keys(kViews).includes(name) ? `${text(`view.${name}`)} – ${text('title')}` : text('title');
}

function fail(root, name, error) {
  root.replaceChildren(element('p', {class: 'notice'}, text('failed', {reason: error.message})),
    element('button', {type: 'button', onclick: () => show(true)}, text('again')));
}

async function show(isAgain = false) {
  const {view: wanted, parameters} = parseFragment(location.hash);
  const name = wanted || 'overview';
  if (name === shown.name && shown.view && !isAgain) {
    lastOf.set(name, location.hash);
    shown.view.change(parameters);
    return;
  }
  const mine = ++turn;
  shown.view?.close();
  shown = {name, view: null};
  const root = byId('view');
  root.replaceChildren();
  scrollTo(0, 0);
  lastOf.set(name, location.hash || fragmentOf(name));
  markTab(name);
  if (!Object.keys(kViews).includes(name)) {
    root.append(element('p', {class: 'notice'}, text('noView')));
    return;
  }
  try {
    const module = await kViews[name]();
    if (mine === turn)
      shown.view = module.open(root, parameters);
  } catch (error) {
    if (mine === turn)
      fail(root, name, error);
  }
}

function showConnection() {
  const state = plant.connection;
  setText(byId('connection'), text(`connection.${state}`));
  setClass(byId('connection'), `connection is-${state}`);
  setText(byId('banner'), state === 'lost' ? text('banner.lost') : '');
  document.body.classList.toggle('is-lost', state === 'lost' || state === 'login');
  if (state === 'login')
    location.assign(logInAddress());
  else if (state === 'live')
    loadSession().catch(() => {}); // of a gateway that was restarted it is another one
}

// A gateway of another version has another page.
function reloadWhenUpdated() {
  program ??= plant.status.program;
  if (program !== plant.status.program)
    location.reload();
}

fillFrame();
showSession(byId('session'));
start();
on('status', reloadWhenUpdated);
on('connection', showConnection);
showConnection();
addEventListener('hashchange', () => show());
show();
