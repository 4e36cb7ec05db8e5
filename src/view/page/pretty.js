// Bodies as they are read easily. Only blanks between tokens change; the tokens are the peer's.

import { h, show, toText, toBinary, toBytes } from './dom.js';

// Beyond that a body is shown as it came: peers can make it as deep and as long as they like.
const DEEPEST = 40;
const MOST_TOKENS = 20000;

const indent = (depth) => '  '.repeat(Math.min(depth, DEEPEST));
const mark = (kind, text) => h('span', { class: kind }, ...show(toBinary(text), 'text'));

function json(text) {
  try {
    JSON.parse(text);
  } catch {
    return null;
  }
  const nodes = [];
  const line = (depth) => `\n${indent(depth)}`;
  let depth = 0;
  let opened = false;
  for (const [token] of text.matchAll(/"(?:\\.|[^"\\])*"(?:\s*:)?|[{}[\],]|[^\s{}[\],"]+/g)) {
    if (nodes.length > MOST_TOKENS) {
      return null;
    }
    if (token === '}' || token === ']') {
      depth -= 1;
      nodes.push(opened ? token : line(depth) + token);
      opened = false;
      continue;
    }
    if (opened) {
      nodes.push(line(depth));
      opened = false;
    }
    if (token === '{' || token === '[') {
      nodes.push(token);
      depth += 1;
      opened = true;
    } else if (token === ',') {
      nodes.push(`,${line(depth)}`);
    } else if (token.startsWith('"') && token.endsWith(':')) {
      nodes.push(mark('key', token.slice(0, token.lastIndexOf('"') + 1)), ': ');
    } else {
      nodes.push(mark(token.startsWith('"') ? 'string' : 'number', token));
    }
  }
  return nodes;
}

function xml(text) {
  const tokens = text.match(/<!--[\s\S]*?-->|<!\[CDATA\[[\s\S]*?\]\]>|<\?[\s\S]*?\?>|<(?:"[^"]*"|'[^']*'|[^>"'])*>|[^<]+|</g) ?? [];
  if (tokens.length > MOST_TOKENS) {
    return null;
  }
  const nodes = [];
  let depth = 0;
  let inline = false;
  tokens.forEach((token, i) => {
    const closes = token.startsWith('</');
    const isTag = /^<[^!?]/.test(token);
    if (!token.startsWith('<') || token === '<') {
      if (token.trim() !== '') {
        inline = /^<[^!?/]/.test(tokens[i - 1] ?? '') && (tokens[i + 1] ?? '').startsWith('</');
        nodes.push(...(inline ? [] : ['\n', indent(depth)]), ...show(toBinary(inline ? token : token.trim()), 'text'));
      }
      return;
    }
    depth = Math.max(0, depth - (closes ? 1 : 0));
    const empty = closes && tokens[i - 1] === token.replace('</', '<');
    nodes.push(...(inline || empty || nodes.length === 0 ? [] : ['\n', indent(depth)]), mark(isTag ? 'key' : 'quiet', token));
    inline = false;
    depth += isTag && !closes && !token.endsWith('/>') ? 1 : 0;
  });
  return nodes;
}

function form(binary) {
  const rows = binary.split('&').filter((part) => part !== '').map((part) => {
    const at = part.indexOf('=');
    const decode = (text) => text.replaceAll('+', ' ')
      .replace(/%([0-9a-f]{2})/gi, (_, digits) => String.fromCharCode(parseInt(digits, 16)));
    return at < 0 ? [decode(part), ''] : [decode(part.slice(0, at)), decode(part.slice(at + 1))];
  });
  return rows.length && binary.includes('=') ? rows : null;
}

/** A table of names and values, both as bytes. */
export const table = (rows, label) => h('table', { 'aria-label': label }, h('tbody', {}, ...rows.map(([name, value]) =>
  h('tr', {}, h('th', { scope: 'row' }, ...show(name)), h('td', {}, ...show(value, 'wire'))))));

/** What kind of body it is, by its type and, where that says nothing, by its first character. */
export function kindOf(type, binary) {
  const name = type.toLowerCase().split(';')[0].trim();
  if (/^image\/(png|jpeg|gif|webp|bmp|avif)$/.test(name)) {
    return 'image';
  }
  const first = binary.trimStart()[0];
  if (/[/+]json$/.test(name) || first === '{' || first === '[') {
    return 'json';
  }
  if (/[/+]xml$/.test(name) || first === '<') {
    return 'xml';
  }
  return name === 'application/x-www-form-urlencoded' ? 'form' : 'text';
}

/** A picture is drawn: nothing of it becomes an element or an address. */
export async function image(bytes) {
  const bitmap = await createImageBitmap(new Blob([bytes]));
  const canvas = h('canvas', { role: 'img', 'aria-label': `Image of ${bitmap.width} by ${bitmap.height} pixels`, class: 'image' });
  canvas.width = bitmap.width;
  canvas.height = bitmap.height;
  canvas.getContext('2d').drawImage(bitmap, 0, 0);
  return canvas;
}

/** The body made easy to read, or nothing where it cannot be. */
export function pretty(kind, binary) {
  if (kind === 'form') {
    const rows = form(binary);
    return rows && table(rows, 'Form');
  }
  const nodes = kind === 'json' ? json(toText(binary)) : kind === 'xml' ? xml(toText(binary)) : null;
  return nodes && h('pre', { tabindex: '0' }, ...nodes);
}

export const plain = (binary) => h('pre', { tabindex: '0' }, ...show(binary, 'text'));

/** Offset, bytes and text beside each other. */
export function hexView(binary, from, width) {
  const offsets = [];
  const bytes = [];
  const texts = [];
  const data = toBytes(binary);
  for (let at = 0; at < data.length; at += width) {
    const line = data.subarray(at, at + width);
    offsets.push((from + at).toString(16).padStart(8, '0'));
    const digits = Array.from(line, (b) => b.toString(16).padStart(2, '0'));
    bytes.push(width > 8 ? `${digits.slice(0, 8).join(' ')}  ${digits.slice(8).join(' ')}` : digits.join(' '));
    texts.push(String.fromCharCode(...line).replace(/[^\x20-\x7e]/g, '·'));
  }
  return h('div', { class: 'hex', tabindex: '0', role: 'group', 'aria-label': 'Hexadecimal' },
    h('pre', { class: 'quiet' }, offsets.join('\n')), h('pre', {}, bytes.join('\n')), h('pre', {}, texts.join('\n')));
}
