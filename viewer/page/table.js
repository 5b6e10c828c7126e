// The frames of a run in a table of any length: only the rows that are seen are there.
import { make, pretty } from './dom.js';
import { kinds } from './run.js';

/** @typedef {import('./run.js').Frame} Frame */

const rowHeight = 24;

/** @type {{key: string, name: string, text: (frame: Frame) => string}[]} */
const columns = [
  { key: 'name', name: 'Frame', text: (frame) => frame.name },
  { key: 'start', name: 'UTC', text: (frame) => (frame.start ? new Date(1000 * frame.start).toISOString().slice(11, 19) : '') },
  { key: 'filter', name: 'Filter', text: (frame) => frame.filter },
  { key: 'fwhm', name: 'FWHM', text: (frame) => frame.fwhm?.toFixed(2) ?? '' },
  { key: 'stars', name: 'Stars', text: (frame) => String(frame.stars ?? '') },
  { key: 'sky', name: 'Sky', text: (frame) => (frame.sky === undefined ? '' : pretty(Number(frame.sky.toPrecision(4)))) },
  { key: 'elongation', name: 'Elong.', text: (frame) => frame.elongation?.toFixed(2) ?? '' },
  { key: 'shift', name: 'Shift', text: (frame) => frame.shift?.toFixed(1) ?? '' },
  { key: 'weight', name: 'Weight', text: (frame) => frame.weight?.toFixed(2) ?? '' },
  { key: 'rejected', name: 'Rej. %', text: (frame) => (frame.rejected === undefined ? '' : (100 * frame.rejected).toFixed(2)) },
  { key: 'status', name: 'Status', text: (frame) => frame.status },
];

/** Those that tell something. @param {Frame[]} frames */
const toldOf = (frames) => columns.filter(({ text }) => frames.some((frame) => text(frame) !== ''));

export class FrameTable {
  /** @type {import('./run.js').RunView} */
  #run;
  /** Numbers of frames, as they are sorted. @type {number[]} */
  #order = [];
  #columns = columns;
  #key = 'start';
  #rises = true;
  #scroll;
  #body = make('tbody');
  #head = make('tr');
  #above = make('div');
  #below = make('div');

  /** @param {import('./run.js').RunView} run @param {HTMLElement} place */
  constructor(run, place) {
    this.#run = run;
    const table = make('table', { role: 'grid' }, make('thead', {}, this.#head), this.#body);
    this.#scroll = place;
    place.tabIndex = 0;
    place.ariaLabel = 'Frames: arrows up and down choose, Space and Enter do as in the picture';
    place.append(this.#above, table, this.#below);
    place.addEventListener('scroll', () => this.#draw());
    place.addEventListener('keydown', (event) => this.#onKey(event));
    new ResizeObserver(() => this.#draw()).observe(place);
    run.addEventListener('load', () => this.#sort());
    run.addEventListener('flags', () => this.#draw());
    run.addEventListener('choose', () => {
      this.#reveal();
      this.#draw();
    });
  }

  #sort() {
    const frames = this.#run.info?.frames ?? [];
    this.#columns = toldOf(frames);
    const value = (/** @type {number} */ i) => /** @type {any} */ (frames[i])[this.#key] ?? null;
    this.#order = frames.map((_, i) => i).sort((a, b) => {
      const p = value(a), q = value(b);
      if (p === q) return a - b;
      if (p === null || q === null) return p === null ? 1 : -1;  // what is not known comes last
      return (p < q ? -1 : 1) * (this.#rises ? 1 : -1);
    });
    this.#head.replaceChildren(...this.#columns.map(({ key, name }) => make('th', {
      scope: 'col', ariaSort: key === this.#key ? (this.#rises ? 'ascending' : 'descending') : 'none',
    }, make('button', { type: 'button', title: `sort by ${name}`, onclick: () => {
      this.#rises = this.#key === key ? !this.#rises : true;
      this.#key = key;
      this.#sort();
    } }, name + (key === this.#key ? (this.#rises ? ' ▴' : ' ▾') : '')))));
    this.#draw();
  }

  #draw() {
    const run = this.#run, frames = run.info?.frames ?? [];
    const first = Math.max(Math.floor(this.#scroll.scrollTop / rowHeight) - 4, 0);
    const count = Math.ceil(this.#scroll.clientHeight / rowHeight) + 8;
    const rows = this.#order.slice(first, first + count);
    this.#above.style.height = `${first * rowHeight}px`;
    this.#below.style.height = `${(this.#order.length - first - rows.length) * rowHeight}px`;
    this.#body.replaceChildren(...rows.map((i) => {
      const kind = kinds[run.kind(i)];
      const row = make('tr', {
        ariaSelected: String(run.selected.has(i)), title: frames[i].status,
        className: (i === run.current ? 'current ' : '') + (run.kind(i) === 2 ? 'flagged' : ''),
        onclick: (/** @type {MouseEvent} */ event) => this.#click(i, event),
      }, ...this.#columns.map(({ text }) => make('td', {}, text(frames[i]))));
      row.dataset.frame = String(i);
      row.firstElementChild?.prepend(make('i', { style: `background:${kind.colour}`, title: kind.name }));
      return row;
    }));
  }

  /** @param {number} frame @param {MouseEvent} event */
  #click(frame, event) {
    const run = this.#run;
    if (event.shiftKey && run.current >= 0) {
      const from = this.#order.indexOf(run.current), to = this.#order.indexOf(frame);
      run.choose(frame, this.#order.slice(Math.min(from, to), Math.max(from, to) + 1));
    } else if (event.ctrlKey || event.metaKey) {
      const selected = new Set(run.selected);
      if (!selected.delete(frame)) selected.add(frame);
      run.choose(frame, selected);
    } else {
      run.choose(frame);
    }
  }

  /** @param {KeyboardEvent} event */
  #onKey(event) {
    const step = { ArrowDown: 1, ArrowUp: -1 }[event.key];
    if (!step) return;
    event.preventDefault();
    event.stopPropagation();
    const at = this.#order.indexOf(this.#run.current);
    const next = this.#order[Math.min(Math.max(at + step, 0), this.#order.length - 1)];
    if (next === undefined) return;
    this.#run.choose(next, event.shiftKey ? [...this.#run.selected, next] : [next]);
  }

  #reveal() {
    const at = this.#order.indexOf(this.#run.current);
    if (at < 0) return;
    const top = at * rowHeight, room = this.#scroll.clientHeight - 2 * rowHeight;
    if (top < this.#scroll.scrollTop) this.#scroll.scrollTop = top;
    else if (top > this.#scroll.scrollTop + room) this.#scroll.scrollTop = top - room;
  }
}
