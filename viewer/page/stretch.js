// The panel of the stretch: automatic first, then levels and midtones by channel, hyperbolic stretch and a curve.
import { makeCurve } from './curve.js';
import { addPanel, make, onKey, pretty } from './dom.js';

/** @typedef {import('./api.js').PlaneLevels} PlaneLevels */
/** @typedef {import('./image.js').ImageView} ImageView */

/** The midtones transfer function. @param {number} x @param {number} m */
export function transfer(x, m) {
  return ((1 - m) * x) / ((1 - m) * x + m * (1 - x));
}

/**
 * The raw values about the sky, for histograms and sliders: the automatic stretch puts the sky at a quarter.
 * @param {PlaneLevels[]} levels
 */
export function skyRange(levels) {
  const black = Math.min(...levels.map((l) => l.black)), white = Math.max(...levels.map((l) => l.white));
  const [first] = levels;
  const depth = (first.white - first.black) * transfer(first.midtone, 0.75);
  if (first.midtone === 0.5) return { low: black, high: white, depth: (white - black) / 4 };
  return { low: black - 0.6 * depth, high: Math.min(black + 8 * depth, white), depth };
}

/** The value of a slider in words, and back. @typedef {{of: (t: number) => number, to: (v: number) => number}} Scale */

/**
 * A slider with a number beside it.
 * @param {string} name
 * @param {() => Scale} scale from 0 to 1 to values, and back
 * @param {(value: number) => void} take
 */
function makeField(name, scale, take) {
  const slider = make('input', { type: 'range', min: '0', max: '1000', ariaLabel: name });
  const box = make('input', { type: 'text', inputMode: 'decimal', ariaLabel: `${name}, as a number` });
  slider.addEventListener('input', () => {
    const value = scale().of(Number(slider.value) / 1000);
    box.value = pretty(value);
    take(value);
  });
  box.addEventListener('change', () => {
    const value = box.value.trim() === '' ? NaN : Number(box.value);
    if (!Number.isFinite(value)) return set(last);
    take(value);
    set(value);
  });
  let last = 0;
  /** @param {number} value */
  const set = (value) => {
    last = value;
    box.value = pretty(value);
    slider.value = String(Math.round(1000 * Math.min(Math.max(scale().to(value), 0), 1)));
  };
  return { row: make('label', { className: 'field' }, make('span', {}, name), slider, box), set };
}

/** A scale of equal steps. @param {number} low @param {number} high @returns {Scale} */
const linear = (low, high) => ({ of: (t) => low + (high - low) * t, to: (v) => (v - low) / (high - low) });

/** @param {ImageView} view */
export function addStretchPanel(view) {
  /** @type {PlaneLevels[]} */
  let levels = [];
  let mode = 'auto', channel = -1;
  const ghs = { on: false, amount: 3, shape: 2, symmetry: 0.02, shadows: 0, highlights: 1 };

  const raw = () => {
    const automatic = view.info?.auto ?? [{ black: 0, white: 1, midtone: 0.5 }];
    const { low, depth } = skyRange(automatic);
    const high = Math.max(...automatic.map((l) => l.white)), least = low - depth;
    // Fine where the sky is, coarse towards the brightest stars.
    return { of: (/** @type {number} */ t) => least + (high - least) * t ** 4,
             to: (/** @type {number} */ v) => (Math.max(v - least, 0) / (high - least)) ** 0.25 };
  };
  const tones = () => ({ of: (/** @type {number} */ t) => 10 ** (-4 + 3.995 * t),
                         to: (/** @type {number} */ v) => (Math.log10(v) + 4) / 3.995 });
  /** @param {keyof PlaneLevels} what */
  const change = (what) => (/** @type {number} */ value) => {
    const chosen = channel < 0 ? levels : [levels[channel]];
    const shift = value - chosen[0][what];
    for (const level of chosen) {
      // All channels keep their distances, so that colours stay; midtones are the same for all.
      const next = what === 'midtone' ? Math.min(Math.max(value, 1e-6), 1 - 1e-6) : level[what] + shift;
      level[what] = next;
      if (!(level.white > level.black)) level.white = level.black + Math.max(Math.abs(level.black), 1) * 1e-6;
    }
    mode = 'manual';
    send();
  };
  const black = makeField('Black', raw, change('black'));
  const midtone = makeField('Midtones', tones, change('midtone'));
  const white = makeField('White', raw, change('white'));

  const modes = Object.fromEntries([['auto', 'Automatic'], ['linked', 'Linked'], ['manual', 'By hand']].map(
    ([name, text]) => [name, make('button', { type: 'button', onclick: () => choose(name) }, text)]));
  const channels = ['All', 'R', 'G', 'B'].map((text, i) =>
    make('button', { type: 'button', ariaLabel: `Channel: ${text}`, onclick: () => { channel = i - 1; write(); } }, text));
  const channelRow = make('div', { className: 'row' }, ...channels);

  /** @param {string} text @param {keyof typeof ghs} name @param {number} low @param {number} high */
  const ghsField = (text, name, low, high) => {
    const field = makeField(text, () => linear(low, high), (value) => {
      /** @type {any} */ (ghs)[name] = Math.min(Math.max(value, low), high);
      if (ghs.on) send();
    });
    field.set(Number(ghs[name]));
    return field.row;
  };
  const ghsOn = make('input', { type: 'checkbox', onchange: () => { ghs.on = ghsOn.checked; begin(); send(); } });
  const ghsPart = make('details', {}, make('summary', {}, 'Hyperbolic stretch'),
    make('div', {}, make('label', { className: 'row' }, ghsOn, 'on, before the midtones'),
      ghsField('Amount', 'amount', 0, 15), ghsField('Shape', 'shape', -5, 15), ghsField('Symmetry', 'symmetry', 0, 1),
      ghsField('Shadows', 'shadows', 0, 1), ghsField('Highlights', 'highlights', 0, 1)));

  const curve = makeCurve(() => { begin(); send(); });
  const curvePart = make('details', {}, make('summary', {}, 'Curve'), make('div', {}, curve.canvas,
    make('div', { className: 'row' },
      make('button', { type: 'button', onclick: () => { curve.reset(); begin(); send(); } }, 'Straight'),
      make('span', { className: 'faint' }, 'after the midtones'))));

  addPanel('Stretch', true, make('div', { className: 'row', role: 'group' }, ...Object.values(modes)), channelRow,
    black.row, midtone.row, white.row, ghsPart, curvePart);

  /** Takes what is shown as the beginning of what is set by hand. */
  function begin() {
    if (mode === 'manual' || !view.info) return;
    mode = 'manual';
  }

  /** @param {string} name */
  function choose(name) {
    if (!view.info) return;
    mode = name;
    if (name !== 'manual') {
      ghs.on = ghsOn.checked = false;
      curve.reset();
    }
    follow();
    send();
  }

  /** What is automatic follows the image. */
  function follow() {
    const info = view.info;
    if (!info) return;
    if (mode !== 'manual' || levels.length !== info.auto.length) {
      levels = (mode === 'linked' ? info.linked : info.auto).map((level) => ({ ...level }));
    }
    write();
  }

  function write() {
    const shown = levels[Math.max(channel, 0)];
    if (!shown) return;
    black.set(shown.black);
    midtone.set(shown.midtone);
    white.set(shown.white);
    for (const [name, button] of Object.entries(modes)) button.setAttribute('aria-pressed', String(name === mode));
    channels.forEach((button, i) => button.setAttribute('aria-pressed', String(i - 1 === channel)));
    channelRow.hidden = levels.length < 3;
    curve.draw();
  }

  let waiting = 0;
  function send() {
    write();
    clearTimeout(waiting);
    waiting = window.setTimeout(() => {
      if (mode !== 'manual') return view.show({ levels: undefined, steps: undefined, linked: mode === 'linked' });
      const hasSteps = ghs.on || !curve.isStraight();
      const steps = [];
      if (ghs.on) {
        const { amount, shape, symmetry, shadows, highlights } = ghs;
        steps.push(`ghs amount=${amount} shape=${shape} symmetry=${symmetry} ` +
                   `shadows=${Math.min(shadows, symmetry)} highlights=${Math.max(highlights, symmetry)}`);
      }
      if (hasSteps) steps.push(`stretch midtone=${levels.map((l) => l.midtone).join(',')}`);
      if (!curve.isStraight()) steps.push(`curve points=${curve.text()}`);
      view.show({
        levels: levels.map((l) => [l.black, hasSteps ? 0.5 : l.midtone, l.white].join(',')).join(','),
        steps: steps.join(' then '),
        linked: undefined,
      });
    }, 80);
  }

  view.addEventListener('open', () => {
    mode = 'auto';
    channel = -1;
    ghs.on = ghsOn.checked = false;
    curve.reset();
    const told = view.shown.levels?.split(',').map(Number);
    if (told) {
      mode = 'manual';
      levels = Array.from({ length: told.length / 3 }, (_, p) =>
        ({ black: told[3 * p], midtone: told[3 * p + 1], white: told[3 * p + 2] }));
    }
    follow();
  });
  for (const name of ['progress', 'exact']) view.addEventListener(name, follow);
  onKey('a', 'automatic stretch', () => choose('auto'));
  onKey('l', 'linked stretch', () => choose('linked'));
}
