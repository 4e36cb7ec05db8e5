// Elements and texts. Whatever peers sent gets into the document as text nodes, by this file alone.

/** An element with its attributes, listeners ("onclick") and children: nodes or texts. */
export function h(tag, attributes = {}, ...children) {
  const element = document.createElement(tag);
  for (const [name, value] of Object.entries(attributes)) {
    if (name.startsWith('on')) {
      element.addEventListener(name.slice(2), value);
    } else if (value !== false && value != null) {
      element.setAttribute(name, value === true ? '' : value);
    }
  }
  element.append(...children);
  return element;
}

export const byId = (id) => document.getElementById(id);

const CONTROLS = ('NUL SOH STX ETX EOT ENQ ACK BEL BS HT LF VT FF CR SO SI DLE DC1 DC2 DC3 DC4 NAK SYN ETB CAN EM SUB ' +
  'ESC FS GS RS US').split(' ');

// What the server gives of a peer is a text whose characters are bytes. These runs of them are visible UTF-8.
const RUN = new RegExp('(?:[\\x20-\\x7e]|[\\xc2-\\xdf][\\x80-\\xbf]|\\xe0[\\xa0-\\xbf][\\x80-\\xbf]|' +
  '[\\xe1-\\xec\\xee\\xef][\\x80-\\xbf]{2}|\\xed[\\x80-\\x9f][\\x80-\\xbf]|\\xf0[\\x90-\\xbf][\\x80-\\xbf]{2}|' +
  '[\\xf1-\\xf3][\\x80-\\xbf]{3}|\\xf4[\\x80-\\x8f][\\x80-\\xbf]{2}){1,4096}', 'y');

// Characters that are not seen, or that turn the order of others around.
const UNSEEN = /[\u0080-\u009f\u00ad\u034f\u061c\u115f\u1160\u17b4\u17b5\u180e\u200b-\u200f\u2028-\u202e\u2060-\u206f\u3164\ufeff\uffa0\ufff9-\ufffb]/u;
const UNSEEN_OR_NOT = new RegExp(`(${UNSEEN.source})`, 'u');

const utf8 = new TextDecoder('utf-8', { ignoreBOM: true });

export const toBytes = (binary) => Uint8Array.from(binary, (c) => c.charCodeAt(0));
export const toText = (binary) => utf8.decode(toBytes(binary));
export const toBinary = (text) => String.fromCharCode(...new TextEncoder().encode(text));

const hex = (number, digits) => number.toString(16).toUpperCase().padStart(digits, '0');
const box = (name, title, kind = '') => h('span', { class: `box ${kind}`, title }, name);

function boxOf(code) {
  return code < 32 ? box(CONTROLS[code], `0x${hex(code, 2)}`)
    : code === 127 ? box('DEL', '0x7F') : box(hex(code, 2), `0x${hex(code, 2)}, no UTF-8`, 'odd');
}

/**
 * Nodes that show bytes: UTF-8 as text, control bytes as boxes with their names, other bytes as boxes with their number.
 * "wire" shows every line end; "text" takes line ends and tabulators for what they are; "line" leaves nothing out either
 * and stays on its line.
 */
export function show(binary, manner = 'line') {
  const nodes = [];
  const most = 20000;
  for (let at = 0; at < binary.length && nodes.length < most;) {
    RUN.lastIndex = at;
    const run = RUN.exec(binary);
    if (run) {
      at += run[0].length;
      const text = toText(run[0]);
      if (UNSEEN.test(text)) {
        text.split(UNSEEN_OR_NOT).forEach((part, i) => nodes.push(i % 2
          ? box(`U+${hex(part.codePointAt(0), 4)}`, 'a character that is not seen', 'odd') : part));
      } else {
        nodes.push(text);
      }
      continue;
    }
    const code = binary.charCodeAt(at++);
    if (manner === 'text' && (code === 10 || code === 9)) {
      nodes.push(String.fromCharCode(code));
    } else if (!(manner === 'text' && code === 13 && binary[at] === '\n')) {
      nodes.push(boxOf(code));
      if (code === 10 && manner === 'wire') {
        nodes.push('\n');
      }
    }
  }
  if (nodes.length >= most) {
    nodes.push(box('…', 'the rest is in the download', 'odd'));
  }
  return nodes;
}

const counted = new Intl.NumberFormat('en');
export const count = (number) => counted.format(number);
export const exact = (bytes) => `${count(bytes)} ${bytes === 1 ? 'byte' : 'bytes'}`;

export function size(bytes) {
  if (bytes < 1000) {
    return `${bytes} B`;
  }
  const step = bytes < 999950 ? [1e3, 'kB'] : bytes < 999950000 ? [1e6, 'MB'] : [1e9, 'GB'];
  return `${(bytes / step[0]).toFixed(bytes / step[0] < 99.95 ? 1 : 0)} ${step[1]}`;
}

/** Of microseconds since 1970, the local time of day to the millisecond. */
export function clock(time) {
  const date = new Date(time / 1000);
  const two = (n) => String(n).padStart(2, '0');
  return `${two(date.getHours())}:${two(date.getMinutes())}:${two(date.getSeconds())}.` +
    String(date.getMilliseconds()).padStart(3, '0');
}

/** Microseconds as they are read. */
export function span(time) {
  if (time < 1000) {
    return `${time} µs`;
  }
  if (time < 1e6) {
    return `${(time / 1000).toFixed(time < 1e5 ? 1 : 0)} ms`;
  }
  if (time < 6e7) {
    return `${(time / 1e6).toFixed(time < 1e7 ? 2 : 1)} s`;
  }
  const seconds = Math.round(time / 1e6);
  return seconds < 3600 ? `${Math.floor(seconds / 60)} min ${seconds % 60} s`
    : `${Math.floor(seconds / 3600)} h ${Math.floor(seconds / 60) % 60} min`;
}

/** Says something for a moment, and to a screen reader. */
export function say(text) {
  byId('said').textContent = text;
  document.querySelector('.toast')?.remove();
  const toast = h('div', { class: 'toast', 'aria-hidden': 'true' }, text);
  document.body.append(toast);
  setTimeout(() => toast.remove(), 2200);
}
