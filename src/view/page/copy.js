// What is copied must be safe where it is pasted, whatever the peer sent: one line of visible ASCII in which a shell finds
// nothing but the words that are meant.

import { say, exact } from './dom.js';

/** A word for a shell: as it is, in quotes, or where it has bytes that are not visible in the quotes of bash and zsh. */
export function shellWord(binary) {
  if (/^[A-Za-z0-9_@%+:,./-]+$/.test(binary)) {
    return binary;
  }
  if (/^[\x20-\x7e]*$/.test(binary)) {
    return `'${binary.replaceAll("'", "'\\''")}'`;
  }
  const escaped = binary.replace(/[^A-Za-z0-9 _@%+:,./=&?;(){}[\]<>#*~^|-]/g,
    (c) => `\\x${c.charCodeAt(0).toString(16).padStart(2, '0')}`);
  return `$'${escaped}'`;
}

// What curl sends of itself when the request has no such header.
const CURL_SENDS = ['User-Agent', 'Accept'];

// A name that is no token may be an order to curl: "@file" reads a file.
const TOKEN = /^[A-Za-z0-9!#$%&'*+.^_`|~-]+$/;
const PLAIN_TARGET = /^\/[A-Za-z0-9_~%+:,.@/?=&;!$'()*-]*$/;

function headerWords(headers, hasBody) {
  const words = [];
  const names = new Set(headers.map(([name]) => name.toLowerCase()));
  for (const [name, value] of headers) {
    if (TOKEN.test(name) && name.toLowerCase() !== 'content-length') {
      const line = value.replace(/[\0\r\n]+[ \t]*/g, ' ');
      words.push('-H', shellWord(line === '' ? `${name};` : `${name}: ${line}`));
    }
  }
  for (const name of hasBody ? [...CURL_SENDS, 'Content-Type'] : CURL_SENDS) {
    if (!names.has(name.toLowerCase())) {
      words.push('-H', shellWord(`${name}:`));
    }
  }
  return words;
}

/** The command that sends a request again, as near to how it came as curl can, and why it is not the same where it is not. */
export function curl(request, own, secure = false) {
  const { first: method, second: target, headers, body } = request;
  const words = secure ? ['curl', '--insecure'] : ['curl'];  // the certificate is often one that nobody vouches for
  const origin = `${secure ? 'https' : 'http'}://${own}`;
  const hasBody = body.size > 0;
  if (method === 'HEAD') {
    words.push('--head');
  } else if (method !== (hasBody ? 'POST' : 'GET')) {
    words.push('-X', shellWord(method));
  }
  words.push(...headerWords(headers, hasBody));
  let note = '';
  if (hasBody && (body.bytes.length < body.size || body.bytes.includes('\0'))) {
    // An argument cannot carry it: it comes from the file that the download of the body saves.
    words.push('--data-binary', '@body.bin');
    note = '; download the body and save it as body.bin';
  } else if (hasBody) {
    words.push('--data-raw', shellWord(body.bytes));
  }
  if (PLAIN_TARGET.test(target)) {
    words.push('--globoff', '--path-as-is', shellWord(origin + target));
  } else {
    words.push('--request-target', shellWord(target), `${origin}/`);
  }
  return { command: words.join(' '), note };
}

export async function copy(text, what) {
  try {
    await navigator.clipboard.writeText(text);
    say(`Copied ${what}.`);
  } catch {
    say('The browser did not let it be copied.');
  }
}

/** Bytes as text where they are one, else in hexadecimal. */
export function copyBytes(bytes) {
  try {
    const text = new TextDecoder('utf-8', { fatal: true, ignoreBOM: true }).decode(bytes);
    if (!/[\0-\x08\x0b\x0c\x0e-\x1f\x7f]/.test(text)) {
      return copy(text, `${exact(bytes.length)} as text`);
    }
  } catch { /* not UTF-8 */ }
  return copy(Array.from(bytes, (b) => b.toString(16).padStart(2, '0')).join(' '),
    `${exact(bytes.length)} in hexadecimal`);
}
