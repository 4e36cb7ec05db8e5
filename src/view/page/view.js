// The live page: takes events, keeps the connections, and hands them to the list, the time line and the detail.

import { h, byId, count, size, say, toBinary } from './dom.js';
import { copy } from './copy.js';
import { Detail } from './detail.js';
import { List, stateOf } from './list.js';
import { Timeline } from './timeline.js';

const MOST = 10000;

const connections = new Map();
let order = [];
let versions = 0;  // of connections, so that the list knows which rows to draw again
let arrived = new Map();  // while it is paused: what came meanwhile
let run = null;
let cleared = 0;
let counts = { seen: 0, open: 0, droppedConnections: 0, droppedBytes: 0 };
let paused = false;
let filter = '';
let matches = new Set();
let searched = 0;
let searching = false;
let listener = { raw: false, secure: false, port: 0 };

const timeline = new Timeline(() => order, (id) => list.choose(id));
const detail = new Detail(close);
const list = new List((id) => {
  timeline.chosen = id;
  timeline.draw();
  document.body.classList.toggle('chosen', id !== null);
  detail.choose(id);
});

function close() {
  list.choose(null);
  byId('rows').focus();
}

// ---- the filter

const lower = (text) => text.replace(/[A-Z]/g, (c) => c.toLowerCase());

/** What can be told of a connection without asking the server, which knows all its bytes. */
function matchesHere(one) {
  return [one.method, one.target, one.first, one.peer, one.status, stateOf(one)].some((text) => text && lower(text).includes(lower(toBinary(filter))));
}

const isShown = (one) => !filter || matchesHere(one) || matches.has(one.id);

async function search() {
  if (!filter || searching) {
    return;
  }
  searching = true;
  const asked = filter;
  try {
    const answer = await (await fetch(`/search?after=${searched}&text=${encodeURIComponent(asked)}`)).json();
    if (asked === filter) {
      searched = answer.change;
      answer.ids.forEach((id) => matches.add(id));
      update();
    }
  } catch { /* the stream of events tells that the connection is lost */ }
  searching = false;
  if (asked !== filter) {
    search();
  }
}

let typed = 0;
byId('filter').addEventListener('input', (event) => {
  filter = event.target.value;
  matches = new Set();
  searched = 0;
  update();
  clearTimeout(typed);
  typed = setTimeout(search, 120);
});

// ---- what is shown

function update(goneFromFront = 0) {
  const shown = filter ? order.filter(isShown) : order;
  list.set(shown, filter ? 0 : goneFromFront);
  const parts = [`${count(counts.seen)} seen`, `${count(counts.open)} open`];
  if (filter) {
    parts.unshift(`${count(shown.length)} of ${count(order.length)} shown`);
  }
  if (counts.droppedConnections || counts.droppedBytes) {
    parts.push(`dropped ${count(counts.droppedConnections)} connections, ${size(counts.droppedBytes)}`);
  }
  byId('counts').textContent = parts.join(' · ');
  byId('pause').textContent = paused ? (arrived.size ? `Resume, ${count(arrived.size)} new` : 'Resume') : 'Pause';
  document.title = counts.seen ? `(${count(counts.seen)}) keltop ${listener.port}` : `keltop ${listener.port}`;
  document.body.classList.toggle('empty', order.length === 0);
  byId('empty').hidden = shown.length > 0;
  if (!shown.length) {
    order.length ? byId('empty').replaceChildren(h('p', {}, 'Nothing that came matches the filter.')) : showWhatToDo();
  }
}

function showWhatToDo() {
  const host = `127.0.0.1:${listener.port}`;
  const address = `${listener.secure ? 'https' : 'http'}://${host}/`;
  const bytes = "printf 'STX 7101 CLEAN\\r\\nETX' | ";
  const line = !listener.raw ? `curl ${listener.secure ? '--insecure ' : ''}-d 'hello' ${address}`
    : bytes + (listener.secure ? `openssl s_client -quiet -no_ign_eof -connect ${host}` : `nc -q 0 127.0.0.1 ${listener.port}`);
  byId('empty').replaceChildren(
    h('p', { class: 'big' }, 'Nothing has come yet.'),
    h('p', {}, 'Send something to ', h('code', {}, listener.raw ? host : address), ', from here or, by this machine’s own address, from elsewhere. For example:'),
    h('div', { class: 'try' }, h('code', {}, line), h('button', { type: 'button', onclick: () => copy(line, 'the command') }, 'Copy')));
}

function add(all) {
  let fresh = false;
  for (const one of all) {
    if (one.id <= cleared) {
      continue;
    }
    const before = connections.get(one.id);
    one.version = versions += 1;
    if (before) {
      Object.assign(before, one);
    } else {
      connections.set(one.id, one);
      order.push(one);
      fresh ||= order.length > 1 && order.at(-2).id > one.id;
    }
  }
  if (fresh) {
    order.sort((a, b) => a.id - b.id);
  }
  const over = Math.max(0, order.length - MOST);
  order.splice(0, over).forEach((one) => connections.delete(one.id));
  if (all.some((one) => one.id === list.chosen)) {
    detail.refresh();
  }
  return over;
}

let dirty = false;
let gone = 0;

/** Shows what came, once a frame. */
function soon() {
  if (!dirty) {
    dirty = true;
    requestAnimationFrame(() => {
      dirty = false;
      update(gone);
      gone = 0;
      timeline.draw();
    });
  }
}

function changed({ connections: all, ...rest }) {
  counts = rest;
  if (paused) {
    all.forEach((one) => (connections.has(one.id) ? add([one]) : one.id > cleared && arrived.set(one.id, one)));
  } else {
    gone += add(all);
  }
  soon();
  if (filter) {
    clearTimeout(typed);
    typed = setTimeout(search, 200);
  }
}

function pause() {
  paused = !paused;
  byId('pause').setAttribute('aria-pressed', String(paused));
  if (!paused) {
    gone += add([...arrived.values()]);
    arrived = new Map();
  }
  setLive('live');
  soon();
}

function clear() {
  cleared = Math.max(cleared, order.at(-1)?.id ?? 0, ...arrived.keys());
  connections.clear();
  order = [];
  arrived = new Map();
  list.choose(null);
  update();
  timeline.draw();
  say('Cleared here. The log keeps everything.');
}

// ---- events

function setLive(state) {
  const shown = state === 'live' && paused ? 'paused' : state;
  byId('live').dataset.state = shown;
  byId('live-text').textContent = { live: 'Live', paused: 'Paused', lost: 'Connection lost, trying again' }[shown];
}

function listen() {
  const events = new EventSource('/events');
  events.addEventListener('hello', ({ data }) => {
    const hello = JSON.parse(data);
    if (run !== null && run !== hello.run) {  // another run of the program: it numbers from one again
      cleared = 0;
      connections.clear();
      order = [];
      arrived = new Map();
      list.choose(null);
      counts = { seen: 0, open: 0, droppedConnections: 0, droppedBytes: 0 };
    }
    run = hello.run;
    listener = hello;
    detail.raw = hello.raw;
    detail.secure = hello.secure;
    const protocol = hello.raw ? `Raw ${hello.secure ? 'TLS' : 'TCP'}` : `HTTP${hello.secure ? 'S' : ''}`;
    byId('about').textContent = `${protocol} on port ${hello.port}`;
    byId('har').hidden = hello.raw;
    setLive('live');
    soon();
  });
  events.addEventListener('changes', ({ data }) => changed(JSON.parse(data)));
  events.addEventListener('error', () => {
    setLive('lost');
    if (events.readyState === EventSource.CLOSED) {
      setTimeout(listen, 1000);
    }
  });
}

// ---- keyboard

const inText = (target) => target.matches('input, textarea');

function onKey(event) {
  if (event.ctrlKey || event.altKey || event.metaKey) {
    return;
  }
  if (event.key === 'Escape') {
    if (inText(event.target)) {
      event.target.value = '';
      event.target.dispatchEvent(new Event('input'));
      byId('rows').focus();
    } else if (list.chosen !== null) {
      close();
    }
    return;
  }
  if (inText(event.target)) {
    if (event.key === 'ArrowDown' || event.key === 'Enter') {
      event.preventDefault();
      byId('rows').focus();
    }
    return;
  }
  const inDetail = byId('detail').contains(event.target) && !event.target.matches('#detail');
  const moves = {
    ArrowUp: -1, ArrowDown: 1, PageUp: -list.page, PageDown: list.page, Home: -Infinity, End: Infinity,
  };
  if (event.key === '/') {
    event.preventDefault();
    byId('filter').focus();
    byId('filter').select();
  } else if (event.key === ' ' && !event.target.matches('button, a')) {
    event.preventDefault();
    pause();
  } else if (event.key in moves && !inDetail) {
    event.preventDefault();
    list.move(moves[event.key]);
  } else if (event.key === 'Enter' && event.target.id === 'rows' && list.chosen !== null) {
    document.querySelector('#detail [role=tab][tabindex="0"]')?.focus();
  }
}

document.addEventListener('keydown', onKey);
byId('pause').addEventListener('click', pause);
byId('clear').addEventListener('click', clear);
setInterval(() => timeline.draw(), 1000);
listen();
