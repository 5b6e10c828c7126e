// A run that is finished: its frames in plots and a table, what is flagged, and stacking it again.
import { get, post } from './api.js';
import { addTool, find, make, onKey, tell } from './dom.js';
import { Blink } from './blink.js';
import { addRejected } from './rejected.js';
import { FrameTable } from './table.js';
import { addWork } from './work.js';

/**
 * @typedef {Object} Frame
 * @property {string} name
 * @property {string} filter
 * @property {string} stack
 * @property {number | null} start seconds since 1970
 * @property {string} status
 * @property {boolean} stacked
 * @property {boolean} measured
 * @property {boolean} registered
 * @property {number} [stars]
 * @property {number} [fwhm]
 * @property {number} [elongation]
 * @property {number} [sky]
 * @property {number} [noise]
 * @property {number} [shift]
 * @property {number} [degrees]
 * @property {number} [light]
 * @property {number} [weight]
 * @property {number} [rejected] share
 */
/** @typedef {{version: number, out: boolean[], saved: boolean, undo: boolean, problem: string}} Flags */
/** @typedef {{name: string, image: number | null, maps: boolean, filter: string, frames: number, lights: number, fwhm: number, noise: number}} Stack */
/**
 * @typedef {Object} RunInfo
 * @property {number} version
 * @property {number} width
 * @property {number} height
 * @property {number | null} reference
 * @property {Frame[]} frames
 * @property {Stack[]} stacks
 * @property {Flags} flags
 */

/** What is plotted. @type {{key: keyof Frame, name: string, help: string}[]} */
const plotted = [
  { key: 'fwhm', name: 'FWHM', help: 'pixels' },
  { key: 'stars', name: 'Stars', help: 'found' },
  { key: 'sky', name: 'Sky', help: 'raw values' },
  { key: 'elongation', name: 'Elongation', help: 'of the usual star' },
  { key: 'shift', name: 'Shift', help: 'pixels from the reference' },
  { key: 'weight', name: 'Weight', help: 'in the stack' },
];

/** Colours that eyes of all kinds tell apart (Okabe and Ito), and shapes that do without them. */
export const kinds = [
  { name: 'stacked', colour: '#56b4e9' },
  { name: 'left out', colour: '#e69f00' },
  { name: 'flagged', colour: '#e58ac0' },
];

/**
 * A run, and which of its frames are chosen: one is current, any number are selected.
 * Events: "load", "choose", "flags".
 */
export class RunView extends EventTarget {
  /** @type {RunInfo | null} */
  info = null;
  id = -1;
  current = -1;
  /** @type {Set<number>} */
  selected = new Set();

  /** @param {number} id */
  async load(id) {
    const info = /** @type {RunInfo} */ (await get('run', { run: id }));
    const name = this.id === id ? this.info?.frames[this.current]?.name : undefined;
    this.id = id;
    this.info = info;
    this.current = info.frames.findIndex((frame) => frame.name === name);
    this.selected.clear();
    this.dispatchEvent(new Event('load'));
    this.dispatchEvent(new Event('flags'));
    if (info.flags.problem) tell(info.flags.problem);
  }

  /** 0: stacked, 1: left out by the run, 2: flagged. @param {number} frame */
  kind(frame) {
    if (!this.info) return 1;
    return this.info.flags.out[frame] ? 2 : this.info.frames[frame].stacked ? 0 : 1;
  }

  /** Makes one frame the current one, and selects it alone unless others are told. @param {number} frame @param {Iterable<number>} [selected] */
  choose(frame, selected = frame < 0 ? [] : [frame]) {
    this.current = frame;
    this.selected = new Set(selected);
    this.dispatchEvent(new Event('choose'));
  }

  /** What keys and buttons are about. */
  chosen() {
    return this.selected.size > 0 ? [...this.selected] : this.current >= 0 ? [this.current] : [];
  }

  /** Flags what is chosen, or takes the flags off where all of it has them. */
  toggle() {
    const frames = this.chosen(), out = this.info?.flags.out;
    if (out && frames.length > 0) this.#change('run/flag', { frames, out: !frames.every((frame) => out[frame]) });
  }
  undo() {
    this.#change('run/undo', {});
  }
  save() {
    return this.#change('run/save', {});
  }

  /** @param {string} name @param {Object} body */
  async #change(name, body) {
    try {
      const flags = await post(name, { run: this.id, version: this.info?.version, ...body });
      if (!this.info) return;
      this.info.flags = flags;
      this.dispatchEvent(new Event('flags'));
    } catch (error) {
      tell(error);
      await this.renew();
    }
  }

  /** Takes over what other pages, or a run in a terminal, have changed. */
  async renew() {
    const { info, id } = this;
    if (!info) return;
    try {
      const flags = /** @type {Flags} */ (await get('run/flags', { run: id }));
      if (this.info !== info) return;
      if (flags.version !== info.version) return void (await this.load(id));
      if (JSON.stringify(flags) === JSON.stringify(info.flags)) return;
      info.flags = flags;
      this.dispatchEvent(new Event('flags'));
    } catch {
      // The server is gone, or the run is being written.
    }
  }
}

/** Small plots over time, which show and make the choice. @param {RunView} run @param {HTMLElement} place */
function addPlots(run, place) {
  /** @type {any[]} */
  let plots = [];
  const axis = { stroke: '#97a1af', grid: { stroke: '#222933', width: 1 }, ticks: { show: false }, font: '10px system-ui', gap: 2 };

  /** Rings about what is chosen. @param {any} plot @param {keyof Frame} key @param {number[]} x */
  const mark = (plot, key, x) => {
    const context = plot.ctx, frames = run.info?.frames ?? [];
    context.save();
    context.beginPath();
    context.rect(plot.bbox.left, plot.bbox.top, plot.bbox.width, plot.bbox.height);
    context.clip();
    context.lineWidth = 2 * devicePixelRatio;
    for (const frame of run.selected) {
      const value = frames[frame]?.[key];
      if (typeof value !== 'number') continue;
      context.strokeStyle = frame === run.current ? '#ffffff' : '#d6dbe2aa';
      context.beginPath();
      context.arc(plot.valToPos(x[frame], 'x', true), plot.valToPos(value, 'y', true), 5 * devicePixelRatio, 0, 7);
      context.stroke();
    }
    if (run.current >= 0) {
      const at = plot.valToPos(x[run.current], 'x', true);
      context.strokeStyle = '#ffffff55';
      context.lineWidth = devicePixelRatio;
      context.beginPath();
      context.moveTo(at, plot.bbox.top);
      context.lineTo(at, plot.bbox.top + plot.bbox.height);
      context.stroke();
    }
    context.restore();
  };

  const draw = () => {
    for (const plot of plots) plot.destroy();
    plots = [];
    place.replaceChildren();
    const info = run.info;
    if (!info || find('dock').hidden) return;
    const frames = info.frames;
    // Without times, one after the other.
    const isTimed = frames.every((frame) => !frame.measured || frame.start !== null);
    const x = frames.map((frame, i) => (isTimed ? frame.start ?? 0 : i));
    const shown = frames.map((_, i) => i).filter((i) => frames[i].measured).sort((a, b) => x[a] - x[b]);
    const width = Math.floor(place.clientWidth / 3), height = Math.floor(place.clientHeight / 2);
    for (const { key, name, help } of plotted) {
      const cell = make('figure', { title: `${name}: ${help}` }, make('figcaption', {}, name, make('span', {}, help)));
      place.append(cell);
      const valuesOf = (/** @type {number} */ kind) =>
        shown.map((i) => (run.kind(i) === kind ? /** @type {number | undefined} */ (frames[i][key]) ?? null : null));
      const plot = new uPlot({
        width, height: height - 20, legend: { show: false },
        cursor: { drag: { x: true, y: true, setScale: false, uni: 6 }, points: { show: false }, y: false,
          bind: { dblclick: () => () => draw() } },
        padding: [4, 8, 0, 0],
        scales: { x: { time: isTimed, range: (/** @type {any} */ _, /** @type {number} */ low, /** @type {number} */ high) => {
          const margin = (high - low) * 0.04 || 1;
          return [low - margin, high + margin];
        } } },
        axes: [{ ...axis, size: 18, space: 60, values: (/** @type {any} */ _, /** @type {number[]} */ at) =>
          at.map((value) => (isTimed ? new Date(1000 * value).toISOString().slice(11, 16) : Number.isInteger(value) ? String(value + 1) : '')) },
        { ...axis, size: 44, space: 22 }],
        series: [{}, ...kinds.map(({ colour }) => ({
          stroke: colour, fill: colour, paths: () => null, points: { show: true, size: 6, width: 1, stroke: colour, fill: colour },
        }))],
        hooks: {
          draw: [(/** @type {any} */ plot) => mark(plot, key, x)],
          setSelect: [(/** @type {any} */ plot) => {
            const { left, top, width: w, height: h } = plot.select;
            if (w < 4 && h < 4) return;
            const inside = shown.filter((i) => {
              const value = frames[i][key];
              if (typeof value !== 'number') return false;
              const px = plot.valToPos(x[i], 'x'), py = plot.valToPos(value, 'y');
              return px >= left && px <= left + w && py >= top && py <= top + (h || plot.over.clientHeight);
            });
            plot.setSelect({ left: 0, top: 0, width: 0, height: 0 }, false);
            if (inside.length > 0) run.choose(inside[0], inside);
          }],
        },
      }, [shown.map((i) => x[i]), ...kinds.map((_, kind) => valuesOf(kind))], cell);
      const over = /** @type {HTMLElement} */ (plot.over);
      over.addEventListener('click', (event) => {
        const bounds = over.getBoundingClientRect();
        const px = event.clientX - bounds.left, py = event.clientY - bounds.top;
        let best = -1, nearest = 18;
        for (const i of shown) {
          const value = frames[i][key];
          if (typeof value !== 'number') continue;
          const distance = Math.hypot(plot.valToPos(x[i], 'x') - px, plot.valToPos(value, 'y') - py);
          if (distance < nearest) [best, nearest] = [i, distance];
        }
        if (best < 0) return;
        if (!event.shiftKey && !event.ctrlKey) return run.choose(best);
        run.choose(best, [...run.selected, best]);
      });
      // The wheel comes closer in time, about the pointer; a double click shows all of it.
      over.addEventListener('wheel', (event) => {
        event.preventDefault();
        const at = plot.posToVal(event.clientX - over.getBoundingClientRect().left, 'x');
        const factor = event.deltaY < 0 ? 0.8 : 1.25, { min, max } = plot.scales.x;
        const sideways = event.shiftKey ? (max - min) * 0.1 * Math.sign(event.deltaY) : 0;
        const low = event.shiftKey ? min + sideways : at - (at - min) * factor;
        const high = event.shiftKey ? max + sideways : at + (max - at) * factor;
        for (const other of plots) zoom(other, low, high);
      }, { passive: false });
      plots.push(plot);
    }
    const zoom = (/** @type {any} */ plot, /** @type {number} */ low, /** @type {number} */ high) => {
      plot.scales.x.range = () => [low, high];
      plot.setScale('x', { min: low, max: high });
    };
  };
  const redraw = () => plots.forEach((plot) => plot.redraw(false));
  for (const name of ['load', 'flags']) run.addEventListener(name, draw);
  run.addEventListener('choose', redraw);
  let resizing = 0;
  new ResizeObserver(() => {
    clearTimeout(resizing);
    resizing = window.setTimeout(draw, 80);
  }).observe(place);
}

/** Counts, saving, and stacking again. @param {RunView} run @param {HTMLElement} place @param {Blink} blink */
function addActions(run, place, blink) {
  const text = make('span', { className: 'counts' });
  const button = (/** @type {string} */ name, /** @type {string} */ title, /** @type {() => void} */ onclick) =>
    make('button', { type: 'button', title, onclick }, name);
  const flag = button('Flag', 'leave the chosen frames out, or take them back (x)', () => run.toggle());
  const undo = button('Undo', 'the last change of flags (u)', () => run.undo());
  const save = button('Save', 'write selection.json beside the results, which korimg run --selection reads', () => void run.save());
  const again = button('Stack again…', 'without the flagged frames', () => ask());
  const legend = make('span', { className: 'legend' },
    ...kinds.map(({ name, colour }) => make('span', {}, make('i', { style: `background:${colour}` }), name)));
  place.append(legend, text, flag, undo, save, again);

  const dialog = make('dialog', { id: 'again', ariaLabel: 'Stack again' });
  document.body.append(dialog);
  const ask = async () => {
    await run.renew();
    const info = run.info;
    if (!info) return;
    const out = info.flags.out.filter(Boolean).length;
    const folder = make('input', { type: 'text', className: 'wide', placeholder: 'second', ariaLabel: 'Name of a new folder' });
    const start = async (/** @type {Object} */ body) => {
      try {
        await post('run/again', { run: run.id, version: run.info?.version, ...body });
        dialog.close();
        work.follow();
      } catch (error) {
        tell(error);
      }
    };
    dialog.replaceChildren(
      make('h3', {}, 'Stack again'),
      make('p', {}, `${out} of ${info.frames.length} frames are flagged and will be left out. The flags are saved to selection.json first. ` +
        'What was measured of the others is used again.'),
      make('div', { className: 'row' },
        button('Replace the results', 'the stacks, pictures and the report in this folder are made anew', () => start({ replace: true })),
        make('span', { className: 'faint' }, 'stack, pictures and report of this folder are made anew')),
      make('div', { className: 'row again' }, folder,
        button('Into a new folder', 'below the results', () => start({ folder: folder.value.trim() || folder.placeholder }))),
      make('div', { className: 'row' }, button('Cancel', '', () => dialog.close())));
    dialog.showModal();
  };
  const write = () => {
    const info = run.info;
    if (!info) return;
    const out = info.flags.out.filter(Boolean).length, stacked = info.frames.filter((frame) => frame.stacked).length;
    text.textContent = `${info.frames.length} frames, ${stacked} stacked, ${out} flagged`;
    undo.disabled = !info.flags.undo;
    save.disabled = info.flags.saved;
    save.textContent = info.flags.saved ? 'Saved' : 'Save';
    flag.disabled = run.chosen().length === 0;
    flag.setAttribute('aria-pressed', String(run.chosen().length > 0 && run.chosen().every((i) => info.flags.out[i])));
  };
  for (const name of ['load', 'choose', 'flags']) run.addEventListener(name, write);
  const work = addWork(place, (ended) => {
    if (ended.state !== 'done' || ended.result?.run !== run.id) return;
    run.load(run.id).then(() => blink.showStack(true)).catch(tell);
  });
}

/** Shows finished runs, if there are any. @param {import('./image.js').ImageView} view */
export async function addRun(view) {
  /** @type {{id: number, name: string}[]} */
  const runs = await get('runs');
  if (runs.length === 0) return null;
  const run = new RunView();
  const dock = find('dock');
  dock.hidden = false;
  const bar = make('div', { className: 'bar', role: 'toolbar', ariaLabel: 'Frames of the run' });
  const plots = make('div', { className: 'plots', ariaLabel: 'Plots over time' });
  const list = make('div', { className: 'frames' });
  if (runs.length > 1) {
    const choice = make('select', { ariaLabel: 'Run', onchange: () => open(Number(choice.value)) },
      ...runs.map(({ id, name }) => make('option', { value: id }, name)));
    bar.append(choice);
  } else {
    bar.append(make('b', {}, runs[0].name));
  }
  dock.replaceChildren(bar, make('div', { className: 'both' }, plots, list));
  const blink = new Blink(view, run);
  addActions(run, bar, blink);
  addPlots(run, plots);
  new FrameTable(run, list);
  addRejected(view, run);
  const toggle = () => {
    dock.hidden = !dock.hidden;
    tool.setAttribute('aria-pressed', String(!dock.hidden));
  };
  const tool = addTool('Run', 'plots and table of the run (t)', toggle);
  tool.setAttribute('aria-pressed', 'true');
  onKey('t', 'plots and table of the run', toggle);
  onKey('x', 'flag the chosen frames, or take them back', () => run.toggle());
  onKey('u', 'undo the last flag', () => run.undo());
  const open = (/** @type {number} */ id) => run.load(id).then(() => blink.showStack(true)).catch(tell);
  await open(runs[0].id);
  const interval = 3000;
  setInterval(() => document.visibilityState === 'visible' && void run.renew(), interval);
  return run;
}
