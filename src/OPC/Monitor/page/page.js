// The status page: asks the monitor every few seconds and shows what it says. Texts of the server are never taken for HTML.

import { ItemList, kindOf, set, timeText, valueText } from '/items.js';

const SECONDS = 1000;
const KEPT_MESSAGES = 500;
const MOST_TRENDS = 50;
const byId = id => document.getElementById(id);
const state = { up: false, before: null, lastMessage: 0, process: null, chosen: readChosen(), courses: new Map() };

class Unanswered extends Error {
  constructor(kind, text) {
    super(text);
    this.kind = kind;
  }
}

async function ask(path) {
  let response;
  try {
    response = await fetch(path, { cache: 'no-store' });
  } catch {
    throw new Unanswered('away', 'The monitor does not answer: is quelm-monitor running, and the network there?');
  }
  const answer = await response.json().catch(() => ({}));
  if (!response.ok) {
    throw new Unanswered(answer.state ?? String(response.status), answer.error ?? `HTTP ${response.status}`);
  }
  return answer;
}

function make(tag, className, text, ...children) {
  const element = document.createElement(tag);
  if (className) {
    element.className = className;
  }
  if (text !== undefined && text !== null) {
    element.textContent = text;
  }
  element.append(...children);
  return element;
}

function facts(pairs) {
  const list = make('dl', 'facts');
  for (const [name, value] of pairs) {
    list.append(make('dt', '', name), make('dd', '', value));
  }
  return list;
}

const count = number => (number ?? 0).toLocaleString();
const plural = (number, word) => `${count(number)} ${word}${number === 1 ? '' : 's'}`;
const milliseconds = number => (number === null || number === undefined ? '–' : `${Number(number.toPrecision(3))} ms`);

function bytesText(bytes) {
  return bytes >= 1e6 ? `${(bytes / 1e6).toFixed(bytes < 1e7 ? 1 : 0)} MB` : `${Math.ceil((bytes ?? 0) / 1e3)} KB`;
}

function spanText(from, to) {
  const seconds = Math.max(0, (Date.parse(to) - Date.parse(from)) / SECONDS);
  if (seconds < 120) {
    return `${Math.round(seconds)} s`;
  }
  const minutes = Math.floor(seconds / 60);
  if (minutes < 120) {
    return `${minutes} min`;
  }
  return minutes < 2880 ? `${Math.floor(minutes / 60)} h` : `${Math.floor(minutes / 1440)} days`;
}

const ago = (time, now) => (time ? `${timeText(time)}, ${spanText(time, now)} ago` : 'never');

// Calls a second since the answer before, of the same process.
function rate(status, name) {
  const before = state.before;
  const seconds = before && before.process === status.process ? (Date.parse(status.now) - Date.parse(before.now)) / SECONDS : 0;
  return seconds > 0 ? `${Number(((status[name] - before[name]) / seconds).toPrecision(2))} a second` : '';
}

function showFigures(status) {
  const figures = [
    ['Clients', count(status.clients), plural(status.connections, 'connection')],
    ['Groups', count(status.groups), ''],
    ['Calls', count(status.calls), rate(status, 'calls')],
    ['Callbacks', count(status.callbacks), rate(status, 'callbacks')],
    ['Callbacks failed', count(status.callbacksFailed), '', status.callbacksFailed > 0],
    ['Refusals', count(status.refusals), '', status.refusals > 0],
    ['Longest turn', milliseconds(status.longestTurnMilliseconds), '', status.longestTurnMilliseconds > 250],
    ['Memory', bytesText(status.memoryBytes), ''],
  ];
  byId('figures').replaceChildren(...figures.map(([name, value, more, wrong]) => {
    const number = make('dd', '', value);
    if (more) {
      number.append(' ', make('small', '', more));
    }
    return make('div', wrong ? 'wrong' : '', null, make('dt', '', name), number);
  }));
}

const DATABASE = { up: ['good', 'Database answers'], down: ['bad', 'Database does not answer'] };

function siteCard(site, now) {
  const [kind, words] = DATABASE[site.database] ?? ['', 'Database not asked yet'];
  const bar = make('div', 'bar');
  bar.setAttribute('aria-hidden', 'true');
  const legend = make('div', 'legend');
  for (const quality of ['good', 'uncertain', 'bad']) {
    const part = make('i', quality);
    part.style.flexGrow = site[quality];
    part.hidden = !site[quality];
    bar.append(part);
    legend.append(make('span', `quality ${quality}`, `${count(site[quality])} ${quality}`));
  }
  const card = make('article', 'card', null,
    make('header', '', null, make('h3', '', site.site), make('span', `quality ${kind}`, words)),
    facts([['Last pass', ago(site.lastPass, now)], ['took', milliseconds(site.passMilliseconds)],
      ['Last read of the database', ago(site.lastSnapshot, now)], ['took', milliseconds(site.snapshotMilliseconds)],
      ['Reads that failed', `${count(site.snapshotsFailed)} of ${count(site.snapshots)}`], ['Items', count(site.items)]]),
    bar, legend);
  if (site.database === 'down' && site.databaseMessage) {
    card.append(make('p', 'trouble', site.databaseMessage));
  }
  return card;
}

function showStatus(status) {
  if (state.process !== null && state.process !== status.process) {
    state.lastMessage = 0;  // another process counts its messages from one
    byId('messages').replaceChildren();
  }
  showFigures(status);
  byId('sites').replaceChildren(...status.sites.map(site => siteCard(site, status.now)));
  byId('sites').nextElementSibling.hidden = status.sites.length > 0;
  items.setSites(status.sites.map(site => site.site));
  set(byId('about'), `Version ${status.version}, process ${status.process}, running for ${spanText(status.started, status.now)}` +
    (status.keepRunning ? ', kept running without clients' : ''));
  state.before = status;
  state.process = status.process;
}

function groupTable(groups) {
  const head = make('tr', '', null, ...['Group', 'State', 'Rate', 'Items', 'Active', 'Callbacks'].map(name => {
    const cell = make('th', ['Rate', 'Items', 'Active'].includes(name) ? 'number' : '', name);
    cell.scope = 'col';
    return cell;
  }));
  const rows = groups.map(group => make('tr', '', null, make('td', '', group.name || '(no name)'),
    make('td', '', group.active ? 'active' : 'inactive'), make('td', 'number', `${group.rateMilliseconds / 1000} s`),
    make('td', 'number', count(group.items)), make('td', 'number', count(group.activeItems)), make('td', '', null,
      group.callbacks === 'failing' ? make('span', 'quality bad', 'failing') : group.callbacks)));
  return make('div', 'wide', null, make('table', '', null, make('thead', '', null, head), make('tbody', '', null, ...rows)));
}

function showClients(answer, now) {
  const open = new Set([...byId('clients').querySelectorAll('details[open]')].map(each => each.dataset.key));
  const focused = document.activeElement?.closest('#clients details')?.dataset.key;
  const list = answer.clients.map((client, index) => {
    const summary = make('summary', '', null, make('strong', '', client.name || client.account || 'without a name'),
      ...[client.name ? client.account : '', `from ${client.address}`, `level ${client.level}`,
        plural(client.groupCount ?? client.groups.length, 'group'), plural(client.calls, 'call'), `since ${timeText(client.since)}`,
        `last call ${ago(client.lastCall, now)}`, `holds ${bytesText(client.bytesHeld)}`]
        .filter(Boolean).map(text => make('span', '', text)));
    const details = make('details', '', null, summary,
      client.groups.length ? groupTable(client.groups) : make('div', 'wide', 'It has no groups.'));
    details.dataset.key = `${client.address} ${client.since} ${index}`;
    details.open = open.has(details.dataset.key);
    return details;
  });
  byId('clients').replaceChildren(...list);
  list.find(each => each.dataset.key === focused)?.firstChild.focus({ preventScroll: true });
  byId('clients-empty').hidden = list.length > 0;
  set(byId('clients-count'), answer.more ? `the first ${list.length}` : plural(list.length, 'client'));
}

async function showMessages() {
  const list = byId('messages');
  for (;;) {
    const { messages } = await ask(`/api/messages?after=${state.lastMessage}`);
    for (const message of messages) {
      const weight = /error|critical/i.test(message.type) ? 'wrong' : /warning/i.test(message.type) ? 'doubtful' : '';
      const time = make('time', '', timeText(message.time));
      time.dateTime = message.time;
      list.prepend(make('li', weight, null, time, make('span', 'type', message.type), make('span', 'text', message.text)));
      state.lastMessage = Math.max(state.lastMessage, message.number);
    }
    while (list.children.length > KEPT_MESSAGES) {
      list.lastChild.remove();
    }
    byId('messages-empty').hidden = list.children.length > 0;
    if (!messages.length) {
      return;
    }
  }
}

// Which items have a trend is this browser's.
function readChosen() {
  try {
    const list = JSON.parse(localStorage.getItem('trends') ?? '[]');
    return Array.isArray(list) ? list.filter(id => typeof id === 'string').slice(0, MOST_TRENDS) : [];
  } catch {
    return [];
  }
}

function choose(id) {
  const isChosen = state.chosen.includes(id);
  state.chosen = isChosen ? state.chosen.filter(other => other !== id) : [...state.chosen, id].slice(-MOST_TRENDS);
  try {
    localStorage.setItem('trends', JSON.stringify(state.chosen));
  } catch {
    // A browser that keeps nothing forgets them with the page.
  }
  items.show();
  showTrends().catch(() => {});
}

function svg(tag, attributes) {
  const element = document.createElementNS('http://www.w3.org/2000/svg', tag);
  for (const [name, value] of Object.entries(attributes)) {
    element.setAttribute(name, value);
  }
  return element;
}

// One curve over the last hour; a value that is bad or missing, or a minute without one, leaves a gap.
function curve(samples, low, high, now) {
  const span = high - low || 1;
  let path = '';
  let before = null;
  let lonely = '';
  for (const [time, value, quality] of samples) {
    const at = Date.parse(time);
    if (value === null || kindOf(quality) === 'bad') {
      before = null;
      continue;
    }
    const place = `${(600 * (1 - (now - at) / 3600000)).toFixed(1)} ${(high === low ? 50 : 96 - 92 * (value - low) / span).toFixed(1)}`;
    path += before !== null && at - before < 90 * SECONDS ? `L${place}` : `M${place}`;
    lonely = place;
    before = at;
  }
  const picture = svg('svg', { viewBox: '0 0 600 100', preserveAspectRatio: 'none', role: 'img' });
  for (const x of [0, 150, 300, 450, 600]) {
    picture.append(svg('line', { class: 'grid', x1: x, x2: x, y1: 0, y2: 100 }));
  }
  picture.append(svg('path', { class: 'curve', d: path }));
  if (before !== null) {
    picture.append(svg('path', { class: 'point', d: `M${lonely}l0 0` }));
  }
  return picture;
}

function trendCard(id) {
  const samples = state.courses.get(id);
  const button = make('button', '', 'Remove');
  button.type = 'button';
  button.setAttribute('aria-label', `Remove the trend of ${id}`);
  button.addEventListener('click', () => choose(id));
  const name = make('h3', '', id);
  name.title = id;
  const card = make('article', 'card', null, make('header', '', null, name, button));
  card.dataset.item = id;
  if (!samples) {
    card.append(make('p', 'count', 'There is no such item now.'));
    return card;
  }
  const numbers = samples.filter(each => each[1] !== null && kindOf(each[2]) !== 'bad').map(each => each[1]);
  if (!numbers.length) {
    card.append(make('p', 'count', 'No usable number yet.'));
    return card;
  }
  const low = Math.min(...numbers);
  const high = Math.max(...numbers);
  const picture = curve(samples, low, high, state.before ? Date.parse(state.before.now) : Date.now());
  picture.setAttribute('aria-label', `${id}: ${numbers.length} values from ${valueText(low)} to ${valueText(high)}, ` +
    `last ${valueText(numbers.at(-1))}`);
  const scale = make('div', 'scale', null, make('span', '', '1 hour ago'),
    make('span', '', `${valueText(low)} to ${valueText(high)}`), make('span', '', 'now'));
  card.append(make('p', 'now', null, make('strong', '', valueText(numbers.at(-1)))), picture, scale);
  return card;
}

async function showTrends() {
  for (const id of state.chosen) {
    try {
      state.courses.set(id, (await ask(`/api/trend?item=${encodeURIComponent(id)}`)).samples);
    } catch (trouble) {
      if (trouble.kind !== '404') {
        throw trouble;
      }
      state.courses.delete(id);
    }
  }
  const focused = document.activeElement?.closest('.trends .card')?.dataset.item;
  const cards = state.chosen.map(trendCard);
  byId('trends').replaceChildren(...cards);
  cards.find(card => card.dataset.item === focused)?.querySelector('button').focus({ preventScroll: true });
  byId('trends-empty').hidden = cards.length > 0;
  set(byId('trends-count'), cards.length ? plural(cards.length, 'item') : '');
}

const TROUBLE = {
  stopped: ['Server is not running', 'The server is not running',
    'Nothing is served now. Unless it is kept running, it starts when the first OPC client connects and ends after the last; ' +
    'this page shows it as soon as it runs.'],
  forbidden: ['No right to ask', 'The monitor may not ask the server', 'Its user must be in the group of the control socket.'],
  failed: ['Server does not answer', 'The server does not answer', 'Its process is there, but gives no answer.'],
  away: ['Monitor does not answer', 'The monitor does not answer', 'What is shown below is what was known last.'],
};

function showState(trouble) {
  state.up = !trouble;
  const [short, title, what] = trouble ? TROUBLE[trouble.kind] ?? TROUBLE.failed : ['Running'];
  set(byId('state'), short);
  byId('state').dataset.state = trouble ? (TROUBLE[trouble.kind] ? trouble.kind : 'failed') : 'running';
  document.title = trouble ? `${short} – Quelm OPC Server` : 'Quelm OPC Server';
  const notice = byId('notice');
  if (trouble) {
    set(notice.querySelector('h2'), title);
    set(notice.querySelector('.what'), what);
    set(notice.querySelector('.why'), trouble.message);
  }
  notice.hidden = !trouble;
  document.querySelector('main').classList.toggle('stale', Boolean(trouble));
  document.querySelector('main').hidden = Boolean(trouble) && !state.before;
}

async function turn() {
  if (!document.hidden && !state.asking) {
    state.asking = true;
    try {
      const status = await ask('/api/status');
      showStatus(status);
      showState(null);
      await items.refresh();
      showClients(await ask('/api/clients'), status.now);
      await showMessages();
      await showTrends();
    } catch (trouble) {
      showState(trouble instanceof Unanswered ? trouble : new Unanswered('failed', String(trouble)));
    } finally {
      state.asking = false;
    }
  }
  clearTimeout(state.timer);
  state.timer = setTimeout(turn, 5 * SECONDS);
}

const items = new ItemList(ask, id => state.chosen.includes(id), choose);
// Whoever comes back to the page sees what is now.
document.addEventListener('visibilitychange', () => {
  if (!document.hidden) {
    clearTimeout(state.timer);
    turn();
  }
});
turn();
