// The strip: each connection a bar from its begin to its end, each piece a tick; above it how many came when.

import { byId, count, size } from './dom.js';
import { isBad } from './list.js';

// In pixels of a usual screen; on a larger one all of it grows with the letters.
const RATE_HEIGHT = 18;
const LANE = 7;
const AXIS = 15;

export class Timeline {
  #canvas = document.querySelector('#strip canvas');
  #width = 300e6;
  #end = 0;
  #bars = [];
  #entries = () => [];
  #colours = {};
  #scale = 1;

  constructor(entries, onChoose) {
    this.#entries = entries;
    const look = matchMedia('(prefers-color-scheme: dark)');
    look.addEventListener('change', () => this.#readColours());
    this.#readColours();
    new ResizeObserver(() => this.draw()).observe(this.#canvas);
    this.#canvas.addEventListener('click', (event) => {
      const id = this.#at(event.offsetX / this.#scale, event.offsetY / this.#scale);
      if (id !== null) {
        onChoose(id);
      }
    });
    const widths = [...document.querySelectorAll('[data-width]')];
    widths.forEach((button) => button.addEventListener('click', () => {
      widths.forEach((one) => one.setAttribute('aria-pressed', String(one === button)));
      this.#width = Number(button.dataset.width) * 1e6;
      this.#end = 0;
      this.draw();
    }));
  }

  chosen = null;

  #readColours() {
    const style = getComputedStyle(document.documentElement);
    for (const name of ['accent', 'muted', 'bad', 'line', 'ink', 'rate', 'bar']) {
      this.#colours[name] = style.getPropertyValue(`--${name}`);
    }
    this.draw();
  }

  /** The bar nearest to a point, within a finger's width. */
  #at(x, y) {
    let best = null;
    let nearest = 14;
    for (const bar of this.#bars) {
      const distance = Math.hypot(Math.max(bar.left - x, 0, x - bar.right), (bar.y - y) * 1.5);
      if (distance <= nearest) {
        nearest = distance;
        best = bar.id;
      }
    }
    return best;
  }

  // The window begins with the first connection. It stands still, and steps on when the present reaches its edge.
  #moveWindow() {
    const now = Date.now() * 1000;
    const first = (this.#entries()[0]?.begin ?? now) - this.#width / 40;
    if (now - first < this.#width) {
      this.#end = first + this.#width;
    } else if (now > this.#end || this.#end - now > this.#width) {
      this.#end = now + this.#width / 6;
    }
    return this.#end - this.#width;
  }

  draw() {
    if (!this.#canvas.clientWidth || !this.#colours.accent) {
      return;
    }
    this.#scale = parseFloat(getComputedStyle(document.documentElement).fontSize) / 14;
    const ratio = devicePixelRatio * this.#scale;
    const width = this.#canvas.clientWidth / this.#scale;
    const height = this.#canvas.clientHeight / this.#scale;
    if (this.#canvas.width !== Math.round(width * ratio) || this.#canvas.height !== Math.round(height * ratio)) {
      this.#canvas.width = Math.round(width * ratio);
      this.#canvas.height = Math.round(height * ratio);
    }
    const to = this.#canvas.getContext('2d');
    to.setTransform(ratio, 0, 0, ratio, 0, 0);
    to.clearRect(0, 0, width, height);
    const begin = this.#moveWindow();
    const x = (time) => (time - begin) / this.#width * width;
    const seen = this.#entries().filter((one) => this.#lastOf(one) >= begin);
    this.#drawAxis(to, width, height, begin, x);
    this.#drawRate(to, seen, width, x);
    this.#drawBars(to, seen, width, height, x);
    this.#tell(seen);
  }

  #lastOf = (one) => (one.state === 'open' ? Date.now() * 1000 : one.end);

  #drawAxis(to, width, height, begin, x) {
    const steps = [1, 5, 10, 30, 60, 300, 600, 1800].map((s) => s * 1e6);
    const step = steps.find((s) => s / this.#width * width >= 76) ?? 3600e6;
    to.font = '11px system-ui, sans-serif';
    to.textBaseline = 'bottom';
    for (let time = Math.ceil(begin / step) * step; time < this.#end; time += step) {
      to.fillStyle = this.#colours.line;
      to.fillRect(Math.round(x(time)), height - AXIS - 4, 1, 4);
      to.fillStyle = this.#colours.muted;
      const text = new Date(time / 1000).toTimeString().slice(0, step < 60e6 ? 8 : 5);
      const half = to.measureText(text).width / 2;
      if (x(time) > half && x(time) < width - half) {
        to.fillText(text, x(time) - half, height);
      }
    }
    const now = x(Date.now() * 1000);
    to.fillStyle = this.#colours.line;
    to.fillRect(0, height - AXIS, width, 1);
    to.fillStyle = this.#colours.accent;
    to.fillRect(Math.round(now), 0, 1, height - AXIS);
  }

  #drawRate(to, seen, width, x) {
    const column = 4;
    const counts = new Array(Math.ceil(width / column)).fill(0);
    seen.forEach((one) => {
      const at = Math.floor(x(one.begin) / column);
      if (at >= 0 && at < counts.length) {
        counts[at] += 1;
      }
    });
    const most = Math.max(4, ...counts);
    to.fillStyle = this.#colours.rate;
    counts.forEach((n, i) => {
      const high = n ? Math.max(2, n / most * RATE_HEIGHT) : 0;
      to.fillRect(i * column, RATE_HEIGHT - high, column - 1, high);
    });
  }

  // A connection takes the first lane that is free where it begins; where none is, they share.
  #drawBars(to, seen, width, height, x) {
    const lanes = new Array(Math.max(1, Math.floor((height - AXIS - RATE_HEIGHT - 6) / LANE))).fill(-1);
    this.#bars = [];
    for (const one of seen) {
      const left = Math.max(0, x(one.begin));
      const right = Math.min(width, Math.max(x(this.#lastOf(one)), left + 3));
      const free = lanes.findIndex((end) => end < left);
      const lane = free < 0 ? one.id % lanes.length : free;
      lanes[lane] = Math.max(lanes[lane], right + 2);
      this.#bars.push({ id: one.id, left, right, y: RATE_HEIGHT + 6 + lane * LANE + LANE / 2, one });
    }
    this.#bars.forEach((bar) => this.#drawBar(to, bar, x));
    this.#bars.filter((bar) => bar.id === this.chosen).forEach((bar) => {
      this.#drawBar(to, bar, x);
      to.strokeStyle = this.#colours.ink;
      to.lineWidth = 1.5;
      to.strokeRect(bar.left - 3, bar.y - 4.5, bar.right - bar.left + 6, 9);
    });
  }

  #drawBar(to, { one, left, right, y }, x) {
    to.fillStyle = isBad(one) ? this.#colours.bad : one.state === 'open' ? this.#colours.accent : this.#colours.bar;
    to.fillRect(left, y - 1.5, right - left, 3);
    for (let i = 0; right - left > 6 && i < one.ticks.length; i += 2) {
      const at = x(one.begin + one.ticks[i]);
      if (at >= left) {
        to.fillRect(at, y - 3, 1.5, 6);
      }
    }
  }

  #tell(seen) {
    const recent = Date.now() * 1000 - 10e6;
    const rate = seen.filter((one) => one.begin >= recent).length / 10;
    const bytes = seen.reduce((sum, one) => sum + one.in + one.out, 0);
    const shown = `${count(seen.length)} connections, ${size(bytes)}`;
    byId('rate').textContent = `${rate < 10 ? rate.toFixed(1) : count(Math.round(rate))}/s now · ${shown}`;
    this.#canvas.setAttribute('aria-label', `Connections over time: ${shown} in this window`);
  }
}
