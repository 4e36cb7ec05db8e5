// The chosen connection.

import { h, byId, show, clock, span, count, exact, size, toBytes } from './dom.js';
import { curl, copy, copyBytes } from './copy.js';
import { hexView, image, kindOf, plain, pretty, table } from './pretty.js';
import { stateOf } from './list.js';

const HEX_PART = 32768;
const MOST_LINES = 2000;

export class Detail {
  #pane = byId('detail');
  #id = null;
  #one = null;
  #pieces = [];
  #dropped = 0;
  #tab = 'message';
  #asItCame = false;
  #hexShown = HEX_PART;
  #hexSent = false;
  #loading = false;
  #stale = false;
  #parts = new Map();
  #before = 0;  // the time of the last piece in the transcript

  constructor(onClose) {
    this.onClose = onClose;
    this.raw = false;
    this.secure = false;
    this.#render();
  }

  async choose(id) {
    if (id !== this.#id) {
      this.#id = id;
      this.#one = null;
      this.#pieces = [];
      this.#dropped = 0;
      this.#hexShown = HEX_PART;
      this.#asItCame = false;
      this.#parts.clear();
      this.#pane.scrollTop = 0;
      if (id === null) {
        this.#render();
      }
    }
    await this.refresh();
  }

  /** Reads the chosen connection again, once for all changes meanwhile. */
  async refresh() {
    if (this.#id === null) {
      return;
    }
    if (this.#loading) {
      this.#stale = true;
      return;
    }
    this.#loading = true;
    const id = this.#id;
    try {
      const answer = await fetch(`/connections/${id}`);
      const one = answer.ok ? await answer.json() : null;
      await this.#readPieces(id);
      if (id === this.#id) {
        if (one) {
          this.#one = one;
        }
        this.#render(!one);
      }
    } catch { /* the connection to the program is lost, which the head of the page says */ }
    this.#loading = false;
    if (this.#stale) {
      this.#stale = false;
      setTimeout(() => this.refresh(), id === this.#id ? 200 : 0);
    }
  }

  async #readPieces(id) {
    for (let more = true; more && id === this.#id;) {
      const last = this.#pieces.at(-1)?.number ?? 0;
      const part = await (await fetch(`/connections/${id}/pieces?after=${last}`)).json();
      if (id !== this.#id) {
        return;
      }
      this.#pieces.push(...part.pieces);
      if (this.#pieces.length > MOST_LINES) {
        this.#dropped += this.#pieces.splice(0, this.#pieces.length - MOST_LINES).length;
      }
      more = part.more;
    }
  }

  #render(gone = false) {
    delete this.#pane.dataset.shows;
    if (this.#id === null) {
      this.#pane.replaceChildren(h('p', { class: 'hint' }, 'Choose a connection to see all of it.'));
      return;
    }
    const one = this.#one;
    if (!one) {
      this.#pane.replaceChildren(h('p', { class: 'hint' }, gone ? 'The log has dropped this connection for newer ones.' : ''));
      return;
    }
    const tabs = this.#tabsOf(one);
    const tab = tabs.find(([name]) => name === this.#tab) ?? tabs[0];
    const focused = this.#pane.contains(document.activeElement) ? document.activeElement?.id : '';
    const notices = this.#notices(one, gone);
    const parts = [
      this.#part('head', '', () => this.#head()),
      this.#part('notices', notices.map((notice) => notice.textContent).join('\n'), () => h('div', { class: 'notices' }, ...notices)),
      this.#part('tabs', `${tabs.map(([name]) => name)} ${tab[0]}`, () => this.#tabList(tabs, tab[0])),
      this.#part('panel', `${tab[0]} ${tab[3]}`, () => h('div', {
        class: 'panel', role: 'tabpanel', id: 'panel', 'aria-labelledby': `tab-${tab[0]}`,
      }, ...tab[2]())),
    ];
    if (parts.some((part, i) => part !== this.#pane.children[i])) {
      this.#pane.replaceChildren(...parts);
    }
    this.#fillHead(one);
    this.#pane.dataset.shows = one.id;
    if (tab[0] === 'wire') {
      this.#addLines();
    }
    if (focused && document.activeElement === document.body) {
      byId(focused)?.focus({ preventScroll: true });
    }
  }

  /** A part of the pane, made again only when what it is made of has changed: a selection and a pressed button stay. */
  #part(name, key, make) {
    const before = this.#parts.get(name);
    if (before?.key === key) {
      return before.element;
    }
    const element = make();
    this.#parts.set(name, { key, element });
    return element;
  }

  #head() {
    return h('div', { class: 'top' },
      h('div', { class: 'title' }, h('h2', {}),
        h('button', { type: 'button', id: 'close', class: 'plain', 'aria-label': 'Close', onclick: () => this.onClose() }, '×')),
      h('dl', { class: 'facts' }), h('div', { class: 'actions' }));
  }

  #fillHead(one) {
    const state = stateOf(one);
    const title = one.request ? [h('b', {}, ...show(one.request.first)), ' ', ...show(one.request.second)]
      : [one.kind === 'tls' ? 'TLS hello on a plain port' : one.kind === 'silent' ? 'Nothing came' : `${exact(one.in)} received`];
    const fact = (name, value) => h('div', {}, h('dt', {}, name), h('dd', {}, value));
    this.#pane.querySelector('h2').replaceChildren(...title);
    this.#pane.querySelector('.facts').replaceChildren(
      h('div', {}, h('dt', { class: 'unseen' }, 'State'), h('dd', { class: 'state', 'data-state': state }, h('span', { class: 'dot' }),
        one.state === 'closed by peer' && state === 'closed' ? 'closed by the peer' : state)),
      fact('Peer', one.peer), fact('To', one.own), fact('Began', clock(one.begin)), fact('Lasted', span(one.end - one.begin)),
      fact('Received', exact(one.in)), fact('Sent', exact(one.out)), ...(one.request ? [fact('Version', h('span', {}, ...show(one.request.third)))] : []));
    const actions = this.#actions(one);
    const place = this.#pane.querySelector('.actions');
    const words = (nodes) => [...nodes].map((node) => node.textContent).join();
    if (words(actions) !== words(place.children)) {
      place.replaceChildren(...actions);
    }
  }

  #actions(one) {
    const button = (id, text, onclick) => h('button', { type: 'button', id, onclick }, text);
    const link = (part, text) => h('a', { class: 'button', href: `/connections/${one.id}/${part}`, download: '' }, text);
    const actions = [];
    const downloads = [];
    if (one.request) {
      actions.push(button('copy-curl', 'Copy as curl', () => {
        const { command, note } = curl(this.#one.request, one.own, this.secure);
        copy(command, `a curl command${note}`);
      }));
    }
    if (one.in) {
      actions.push(button('copy-bytes', 'Copy bytes', async () => {
        copyBytes(new Uint8Array(await (await fetch(`/connections/${one.id}/received`)).arrayBuffer()));
      }));
      downloads.push(link('received', 'Received'));
    }
    if (one.request?.body.size) {
      downloads.push(link('body', 'Body'));
    }
    if (one.out) {
      downloads.push(link('sent', 'Answer'));
    }
    if (downloads.length) {
      actions.push(h('div', { class: 'choice', role: 'group', 'aria-label': 'Download' }, h('span', { 'aria-hidden': 'true' }, 'Download'), ...downloads));
    }
    return actions;
  }

  #notices(one, gone) {
    const bad = [];
    const note = [];
    const body = one.request?.body;
    if (body?.end === 'shorter') {
      bad.push(body.chunked ? `The body ended within its chunks, after ${exact(body.size)}.`
        : `The body is shorter than announced: ${count(body.wireSize)} of ${exact(body.announced)} came.`);
    } else if (body?.end === 'broken') {
      bad.push('The body is announced as chunked, but its chunks are none.');
    } else if (body?.end === 'coming') {
      note.push(body.chunked ? 'The body is still coming.' : `The body is still coming: ${count(body.wireSize)} of ${exact(body.announced)}.`);
    }
    if (one.kind === 'tls') {
      bad.push('The peer speaks TLS (https) to a port that speaks plain HTTP or TCP.');
    } else if (!one.request && one.answer && !this.raw) {
      bad.push(`This is no request that an HTTP server takes. It was answered ${one.answer.second} ${one.answer.third}.`);
    }
    if (one.refusal) {
      bad.push(['Refused: ', ...show(one.refusal)]);
    }
    if (one.kind === 'silent') {
      note.push(one.state === 'open' ? 'The peer has connected and says nothing.' : 'The peer connected and left without a word.');
    }
    if (one.request?.rest.size) {
      note.push(`${exact(one.request.rest.size)} came after the end of the request.`);
    }
    if (one.lost) {
      note.push(`The log was full: the first ${exact(one.lost)} have made place for newer ones.`);
    }
    if (gone) {
      note.push('The log has dropped this connection for newer ones. This is what was read before.');
    }
    const notice = (kind) => (text) => h('p', { class: `notice ${kind}` }, ...[text].flat());
    return [...bad.map(notice('bad')), ...note.map(notice(''))];
  }

  #tabsOf(one) {
    const tabs = [];
    if (one.request) {
      const body = one.request.body;
      tabs.push(['message', 'Request', () => this.#message(one.request, one.query), `${body.bytes.length} ${body.size} ${body.end} ${this.#asItCame}`]);
    }
    if (one.answer) {
      tabs.push(['answer', 'Answer', () => [...one.interim.map((head) => h('pre', {}, ...show(head, 'wire'))), ...this.#message(one.answer)], `${one.out} ${this.#asItCame}`]);
    }
    tabs.push(['wire', one.request ? 'Wire' : 'Transcript', () => this.#transcript(), this.#dropped],
      ['hex', 'Hex', () => this.#hex(one), `${one.in} ${one.out} ${this.#hexSent} ${this.#hexShown}`]);
    return one.request ? tabs : [...tabs.slice(-2), ...tabs.slice(0, -2)];
  }

  #tabList(tabs, chosen) {
    const choose = (name) => {
      this.#tab = name;
      this.#render();
      byId(`tab-${name}`).focus();
    };
    return h('div', {
      role: 'tablist', 'aria-label': 'Views', onkeydown: (event) => {
        const step = { ArrowLeft: -1, ArrowRight: 1 }[event.key];
        if (step) {
          event.preventDefault();
          const now = tabs.findIndex(([name]) => name === chosen);
          choose(tabs[(now + step + tabs.length) % tabs.length][0]);
        }
      },
    }, ...tabs.map(([name, text]) => h('button', {
      type: 'button', role: 'tab', id: `tab-${name}`, 'aria-selected': String(name === chosen), 'aria-controls': 'panel',
      tabindex: name === chosen ? '0' : '-1', onclick: () => choose(name),
    }, text)));
  }

  #message(message, query) {
    const part = (name, ...nodes) => h('section', {}, h('h3', {}, name), ...nodes);
    const parts = query ? [] : [part('Status', h('pre', {}, ...show([message.first, message.second, message.third].join(' '))))];
    if (query?.length) {
      parts.push(part('Query', table(query, 'Query')));
    }
    parts.push(part(`Headers`, message.headers.length ? table(message.headers, 'Headers') : h('p', { class: 'hint' }, 'None.')));
    if (message.body.size) {
      parts.push(this.#body(message));
    }
    if (message.rest.size) {
      parts.push(part('After the end', h('pre', { tabindex: '0' }, ...show(message.rest.bytes, 'wire'))));
    }
    return parts;
  }

  #body(message) {
    const { body } = message;
    const type = message.headers.find(([name]) => name.toLowerCase() === 'content-type')?.[1] ?? '';
    const kind = kindOf(type, body.bytes);
    const made = this.#asItCame || body.end === 'shorter' && kind === 'image' ? null
      : kind === 'image' ? this.#image(body) : pretty(kind, body.bytes);
    const names = { json: 'JSON', xml: 'XML', form: 'Form', image: 'Image', text: 'Text' };
    const choice = (text, asItCame) => h('button', {
      type: 'button', id: asItCame ? 'body-came' : 'body-pretty', 'aria-pressed': String(this.#asItCame === asItCame),
      onclick: () => { this.#asItCame = asItCame; this.#render(); },
    }, text);
    const canBePretty = kind !== 'text' && (made || this.#asItCame);
    return h('section', { class: 'body' },
      h('div', { class: 'body-head' }, h('h3', {}, 'Body'), h('p', {}, `${names[kind]}, ${exact(body.size)}${body.chunked ? ' in chunks' : ''}`),
        ...(canBePretty ? [h('div', { class: 'choice', role: 'group', 'aria-label': 'How the body is shown' },
          choice(names[kind], false), choice('As it came', true))] : [])),
      made ?? plain(body.bytes),
      ...(body.bytes.length < body.size ? [h('p', { class: 'hint' }, `These are the first ${size(body.bytes.length)}. The download has all of it.`)] : []));
  }

  #image(body) {
    const place = h('div', { class: 'picture' });
    const bytes = body.bytes.length < body.size ? fetch(`/connections/${this.#id}/body`).then((answer) => answer.arrayBuffer())
      : Promise.resolve(toBytes(body.bytes));
    bytes.then(image).then((canvas) => place.replaceChildren(canvas),
      () => place.replaceChildren(h('p', { class: 'hint' }, 'This is no image that the browser can show.'), plain(body.bytes)));
    return place;
  }

  #transcript() {
    const note = this.#dropped ? [h('p', { class: 'hint' }, `${count(this.#dropped)} earlier pieces are in the download.`)] : [];
    this.#before = this.#dropped ? this.#pieces[0].time : this.#one.begin;
    return [...note, h('p', { class: 'hint' }, 'No bytes yet.'), h('ol', { class: 'transcript', 'aria-label': 'Pieces as they came' })];
  }

  /** The pieces that are not in the transcript yet. */
  #addLines() {
    const list = this.#pane.querySelector('.transcript');
    list.append(...this.#pieces.slice(list.children.length).map((piece) => {
      const since = piece.time - this.#before;
      this.#before = piece.time;
      return h('li', { class: piece.sent ? 'sent' : 'came' },
        h('p', { class: 'piece' }, h('span', { title: clock(piece.time) }, `+${span(since)}`),
          h('span', {}, piece.sent ? 'sent' : 'received'), h('span', {}, exact(piece.size))),
        h('pre', {}, ...show(piece.bytes, 'wire'),
          ...(piece.bytes.length < piece.size ? [h('span', { class: 'quiet' }, ` … ${size(piece.size - piece.bytes.length)} more`)] : [])));
    }));
    list.previousElementSibling.hidden = list.children.length > 0;
  }

  #hex(one) {
    const place = h('div', {});
    const sent = this.#hexSent && one.out > 0 || !one.in;
    const choice = (text, isSent) => h('button', {
      type: 'button', id: isSent ? 'hex-sent' : 'hex-received', 'aria-pressed': String(sent === isSent),
      onclick: () => { this.#hexSent = isSent; this.#hexShown = HEX_PART; this.#render(); },
    }, text);
    const total = sent ? one.out - one.lostOut : one.in - one.lostIn;
    fetch(`/connections/${one.id}/${sent ? 'sent' : 'received'}?most=${this.#hexShown}`).then((answer) => answer.arrayBuffer()).then((buffer) => {
      let binary = '';
      new Uint8Array(buffer).forEach((b) => { binary += String.fromCharCode(b); });
      const width = this.#pane.clientWidth < 640 ? 8 : 16;
      place.replaceChildren(hexView(binary, sent ? one.lostOut : one.lostIn, width), ...(buffer.byteLength < total
        ? [h('button', { type: 'button', id: 'hex-more', onclick: () => { this.#hexShown *= 2; this.#render(); } }, `Show more of ${exact(total)}`)] : []));
    }).catch(() => {});
    return [...(one.in && one.out ? [h('div', { class: 'choice', role: 'group', 'aria-label': 'Direction' },
      choice('Received', false), choice('Sent', true))] : []), place];
  }
}
