// The list of connections. Of ten thousand rows those are in the document that are seen.

import { h, byId, show, size, clock, exact, toText } from './dom.js';

/** What a connection's state is called: what went wrong counts most. */
export function stateOf(one) {
  if (one.refusal !== undefined || (one.kind !== 'http' && one.status)) {
    return 'refused';
  }
  return one.state === 'closed by peer' ? 'closed' : one.state;
}

export const isBad = (one) => ['refused', 'reset', 'failed'].includes(stateOf(one)) || one.bodyEnd === 'shorter' ||
  one.bodyEnd === 'broken' || one.kind === 'tls';

function message(one) {
  switch (one.kind) {
    case 'http': return [h('b', {}, ...show(one.method)), ' ', ...show(one.target)];
    case 'tls': return [h('b', {}, 'TLS hello'), ' on a plain port'];
    case 'silent': return [h('i', {}, one.state === 'open' ? 'nothing yet' : 'nothing came')];
    default: return show(one.first);
  }
}

/** What a body lacks, in a word. */
const flaw = (one) => ({ shorter: 'cut short', broken: 'bad chunks' }[one.bodyEnd] ?? '');

export class List {
  #rows = byId('rows');
  #spacer = h('div', { role: 'presentation', class: 'spacer' });
  #drawn = new Map();
  #shown = [];
  #chosen = null;
  #wanted = false;
  follows = true;

  constructor(onChoose) {
    this.onChoose = onChoose;
    this.#rows.append(this.#spacer);
    this.#rows.addEventListener('scroll', () => {
      this.follows = this.#rows.scrollTop + this.#rows.clientHeight >= this.#rows.scrollHeight - 4;
      this.draw();
    }, { passive: true });
    this.#rows.addEventListener('click', (event) => {
      const row = event.target.closest('[role=option]');
      if (row) {
        this.choose(Number(row.dataset.id));
      }
    });
    new ResizeObserver(() => this.draw(true)).observe(this.#rows);
    byId('newest').addEventListener('click', () => this.toEnd());
  }

  get chosen() { return this.#chosen; }
  get #height() { return parseFloat(getComputedStyle(this.#rows).getPropertyValue('--row')) * parseFloat(getComputedStyle(document.documentElement).fontSize); }

  /** The connections to show; where some went from the front the rest stays where it is seen. */
  set(shown, goneFromFront = 0) {
    if (goneFromFront && !this.follows) {
      this.#rows.scrollTop -= goneFromFront * this.#height;
    }
    this.#shown = shown;
    this.draw();
  }

  toEnd() {
    this.follows = true;
    this.draw();
  }

  choose(id) {
    this.#chosen = id;
    this.onChoose(id);
    if (id !== null) {
      this.#reveal(this.#indexOf(id));  // the list may have got smaller, too
    }
    this.draw(true);
  }

  #indexOf(id) {
    let low = 0;
    let high = this.#shown.length;
    while (low < high) {
      const middle = (low + high) >> 1;
      if (this.#shown[middle].id < id) {
        low = middle + 1;
      } else {
        high = middle;
      }
    }
    return this.#shown[low]?.id === id ? low : -1;
  }

  #reveal(index) {
    if (index < 0) {
      return;
    }
    const top = index * this.#height;
    if (top < this.#rows.scrollTop) {
      this.#rows.scrollTop = top;
    } else if (top + this.#height > this.#rows.scrollTop + this.#rows.clientHeight) {
      this.#rows.scrollTop = top + this.#height - this.#rows.clientHeight;
    }
    this.follows = this.#rows.scrollTop + this.#rows.clientHeight >= this.#shown.length * this.#height - 4;
  }

  /** Chooses another row: so many further, or the first or the last. */
  move(step) {
    if (!this.#shown.length) {
      return;
    }
    const last = this.#shown.length - 1;
    const now = this.#chosen === null ? -1 : this.#indexOf(this.#chosen);
    const index = now < 0 && Math.abs(step) !== Infinity ? (this.follows ? last : Math.floor(this.#rows.scrollTop / this.#height))
      : Math.min(last, Math.max(0, now + step));
    this.choose(this.#shown[index].id);
  }

  get page() { return Math.max(1, Math.floor(this.#rows.clientHeight / this.#height) - 1); }

  /** Draws once for all changes until the next frame. */
  draw(afresh = false) {
    this.afresh ||= afresh;
    if (!this.#wanted) {
      this.#wanted = true;
      requestAnimationFrame(() => {
        this.#wanted = false;
        this.#draw();
      });
    }
  }

  #draw() {
    const height = this.#height;
    this.#spacer.style.height = `${this.#shown.length * height}px`;
    if (this.follows) {
      this.#rows.scrollTop = this.#rows.scrollHeight;
    }
    byId('newest').hidden = this.follows;
    const first = Math.max(0, Math.floor(this.#rows.scrollTop / height) - 6);
    const end = Math.min(this.#shown.length, first + Math.ceil(this.#rows.clientHeight / height) + 12);
    const keep = new Map();
    for (let i = first; i < end; i += 1) {
      const one = this.#shown[i];
      const row = this.#drawn.get(one.id) ?? { element: this.#spacer.appendChild(h('div', { role: 'option', id: `row-${one.id}`, 'data-id': one.id })) };
      if (row.version !== one.version || this.afresh) {
        this.#fill(row.element, one);
        row.version = one.version;
      }
      row.element.style.transform = `translateY(${i * height}px)`;
      row.element.setAttribute('aria-posinset', i + 1);
      row.element.setAttribute('aria-setsize', this.#shown.length);
      keep.set(one.id, row);
      this.#drawn.delete(one.id);
    }
    this.#drawn.forEach((row) => row.element.remove());
    this.#drawn = keep;
    this.afresh = false;
    if (this.#chosen !== null && keep.has(this.#chosen)) {
      this.#rows.setAttribute('aria-activedescendant', `row-${this.#chosen}`);
    } else {
      this.#rows.removeAttribute('aria-activedescendant');
    }
  }

  /** A row stays the same element as long as it is seen: what a pointer has begun to press must not go away. */
  #fill(row, one) {
    const state = stateOf(one);
    row.className = `row${isBad(one) ? ' bad' : ''}`;
    row.dataset.state = state;
    row.title = `${one.kind === 'http' ? `${toText(one.target)}\n` : ''}${exact(one.in)}`;
    row.setAttribute('aria-selected', String(one.id === this.#chosen));
    row.replaceChildren(h('span', { class: 'time' }, clock(one.begin)), h('span', { class: 'peer' }, one.peer),
      h('span', { class: 'what' }, ...message(one)), h('span', { class: 'size' }, size(one.in)),
      h('span', { class: 'state' }, h('span', { class: 'dot' }), flaw(one) || state));
  }
}
