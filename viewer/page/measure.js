// What pixels are: under the cursor, in the view, in a box, along a line.
import { Latest } from './api.js';
import { addPanel, addTool, find, make, onKey, pretty, tell } from './dom.js';
import { skyRange } from './stretch.js';

/** @typedef {import('./image.js').ImageView} ImageView */

const names = ['R', 'G', 'B'], classes = ['red', 'green', 'blue'], inks = ['#ff8d85', '#7fd69b', '#86b6ff'];

/** Hours and degrees as people write them. @param {number} ra @param {number} dec */
export function skyText(ra, dec) {
  const sexagesimal = (/** @type {number} */ value, /** @type {number} */ digits) => {
    const unit = 10 ** digits, all = Math.round(Math.abs(value) * 3600 * unit);
    const seconds = ((all % (60 * unit)) / unit).toFixed(digits).padStart(digits ? digits + 3 : 2, '0');
    const minutes = String(Math.floor(all / (60 * unit)) % 60).padStart(2, '0');
    return [String(Math.floor(all / (3600 * unit))).padStart(2, '0'), minutes, seconds];
  };
  const [h, m, s] = sexagesimal(ra / 15, 2), [d, arcmin, arcsec] = sexagesimal(dec, 1);
  return `${h}ʰ${m}ᵐ${s}ˢ ${dec < 0 ? '−' : '+'}${d}°${arcmin}′${arcsec}″`;
}

/** Position, value and sky under the cursor. @param {ImageView} view */
export function addStatus(view) {
  const place = make('span'), values = make('span'), sky = make('span'), name = make('span', { className: 'name' });
  find('status').append(place, values, sky, name);
  const latest = new Latest();
  let asked = '';
  view.addEventListener('cursor', async (event) => {
    const at = /** @type {CustomEvent} */ (event).detail, info = view.info;
    if (!at || !info) {
      asked = '';
      place.textContent = values.textContent = sky.textContent = '';
      return;
    }
    const key = `${info.id} ${at.x} ${at.y}`;
    if (key === asked) return;
    asked = key;
    try {
      const found = await latest.get('image/value', { id: info.id, developed: info.developed || undefined, ...at });
      if (!found || key !== asked) return;
      place.textContent = `x ${found.x}  y ${found.y}`;
      values.replaceChildren(...found.values.map((/** @type {number | null} */ value, /** @type {number} */ p) =>
        make('span', { className: found.values.length > 1 ? classes[p] : '' }, `${pretty(value)}  `)));
      sky.textContent = 'ra' in found ? skyText(found.ra, found.dec) : '';
    } catch (error) {
      tell(error);
    }
  });
  view.addEventListener('open', () => {
    const info = view.info;
    if (!info) return;
    name.textContent = `${info.width} × ${info.height}${info.planes > 1 ? ` × ${info.planes}` : ''} ${info.type}`;
  });
}

/**
 * Draws counts by plane, by their logarithms.
 * @param {HTMLCanvasElement} canvas
 * @param {number[][]} planes
 */
function drawHistogram(canvas, planes) {
  const context = /** @type {CanvasRenderingContext2D} */ (canvas.getContext('2d'));
  const { width, height } = canvas;
  const top = Math.log1p(Math.max(1, ...planes.flat()));
  context.clearRect(0, 0, width, height);
  planes.forEach((counts, p) => {
    const ink = planes.length > 1 ? inks[p] : '#97a1af';
    context.beginPath();
    context.moveTo(0, height);
    counts.forEach((count, i) => {
      const y = height - (Math.log1p(count) / top) * (height - 2);
      context.lineTo((i * width) / counts.length, y);
      context.lineTo(((i + 1) * width) / counts.length, y);
    });
    context.lineTo(width, height);
    context.strokeStyle = ink;
    context.stroke();
    context.globalAlpha = planes.length > 1 ? 0.15 : 0.6;
    context.fillStyle = ink;
    context.fill();
    context.globalAlpha = 1;
  });
}

/** @param {any[]} planes */
function tableOf(planes) {
  const rows = [['Median', 'median'], ['Spread', 'spread'], ['Mean', 'mean'], ['Deviation', 'deviation'],
                ['Minimum', 'min'], ['Maximum', 'max'], ['Pixels', 'count'], ['Blank', 'blank']];
  const head = planes.length > 1
    ? [make('tr', {}, make('th'), ...planes.map((_, p) => make('td', { className: classes[p] }, names[p])))] : [];
  return make('table', {}, ...head, ...rows
    .filter(([, key]) => key !== 'blank' || planes.some((plane) => plane.blank > 0))
    .map(([text, key]) => make('tr', {}, make('th', { title: key === 'spread' ? '1.4826 times the median distance from the median' : '' }, text),
      ...planes.map((plane) => make('td', {}, pretty(plane[key]))))));
}

/** Statistics and histogram of the view, or of a box. @param {ImageView} view */
export function addStatistics(view) {
  const histogram = make('canvas', { className: 'histogram', width: 256, height: 96, role: 'img', ariaLabel: 'Histogram about the sky' });
  const ends = make('div', { className: 'row faint' });
  const numbers = make('div');
  const note = make('div', { className: 'faint' });
  const panel = addPanel('Statistics', true, note, histogram, ends, numbers);
  const latest = new Latest();
  /** @type {import('./image.js').Rect | null} */
  let box = null;
  let waiting = 0;

  const measure = async () => {
    const info = view.info;
    if (!info || !panel.open) return;
    const { low, high } = skyRange(info.auto);
    const rect = box ?? view.seen();
    if (rect.right <= rect.left || rect.bottom <= rect.top) return;
    try {
      const found = await latest.get('image/statistics',
        { id: info.id, developed: info.developed || undefined, ...rect, low, high: high > low ? high : low + 1 });
      if (!found) return;
      drawHistogram(histogram, found.planes.map((/** @type {any} */ plane) => plane.histogram));
      ends.replaceChildren(make('span', {}, pretty(low)), make('span', { style: 'margin-left:auto' }, pretty(high)));
      numbers.replaceChildren(tableOf(found.planes));
      const size = `${found.right - found.left} × ${found.bottom - found.top}`;
      note.textContent = `${box ? 'Box' : 'View'} ${size} at ${found.left}, ${found.top}` +
        (found.step > 1 ? `, one pixel of ${found.step} × ${found.step}` : '');
    } catch (error) {
      tell(error);
    }
  };
  const later = () => {
    clearTimeout(waiting);
    waiting = window.setTimeout(measure, 200);
  };
  for (const name of ['move', 'exact']) view.addEventListener(name, later);
  view.addEventListener('open', () => {
    box = null;
    later();
  });
  panel.addEventListener('toggle', later);
  return {
    /** Measures a box in place of the view. @param {import('./image.js').Rect | null} rect */
    measureBox(rect) {
      box = rect;
      later();
    },
  };
}

/** The tools that measure by dragging. @param {ImageView} view @param {ReturnType<typeof addStatistics>} statistics */
export function addMeasuringTools(view, statistics) {
  /** @type {'' | 'box' | 'line'} */
  let tool = '';
  /** @type {{from: {x: number, y: number}, to: {x: number, y: number}} | null} */
  let drawn = null;
  const length = make('output');
  const plot = make('div', { className: 'profile' }, make('span', { className: 'faint' }, 'Drag a line (m).'));
  const panel = addPanel('Profile', false, plot);
  const latest = new Latest();

  /** Plots the pixels along the line. */
  const drawProfile = async () => {
    const info = view.info;
    if (!info || !drawn) return;
    const { from, to } = drawn;
    try {
      const found = await latest.get('image/profile', { id: info.id, developed: info.developed || undefined,
        x0: from.x, y0: from.y, x1: to.x, y1: to.y });
      if (!found) return;
      panel.open = true;
      if (found.arc !== null && drawn) length.textContent = `${length.textContent}, ${found.arc.toFixed(1)}″`;
      const count = found.planes[0].length;
      const steps = Array.from({ length: count }, (_, i) => (i * found.length) / (count - 1));
      const axis = { stroke: '#97a1af', grid: { stroke: '#2c3440', width: 1 }, ticks: { stroke: '#2c3440' } };
      plot.replaceChildren();
      new uPlot({
        width: plot.clientWidth, height: 170, legend: { show: false }, scales: { x: { time: false } },
        axes: [{ ...axis, size: 32 }, { ...axis, size: 56 }],
        series: [{ label: 'px' }, ...found.planes.map((/** @type {unknown} */ _, /** @type {number} */ p) =>
          ({ stroke: found.planes.length > 1 ? inks[p] : '#d6dbe2', width: 1, spanGaps: false }))],
      }, [steps, ...found.planes], plot);
    } catch (error) {
      tell(error);
    }
  };

  /** @param {'box' | 'line'} name */
  const choose = (name) => {
    tool = tool === name ? '' : name;
    view.catchDrags(tool !== '');
    boxTool.setAttribute('aria-pressed', String(tool === 'box'));
    lineTool.setAttribute('aria-pressed', String(tool === 'line'));
    if (tool === '') {
      drawn = null;
      length.textContent = '';
      statistics.measureBox(null);
    }
    view.redraw();
  };
  const boxTool = addTool('Box', 'statistics of a box: drag one (r)', () => choose('box'));
  const lineTool = addTool('Line', 'measure a distance: drag a line (m)', () => choose('line'));
  find('tools').append(length);
  onKey('r', 'box with its statistics', () => choose('box'));
  onKey('m', 'measuring line', () => choose('line'));
  onKey('Escape', 'leave the tool', () => tool && choose(tool));

  const follow = (/** @type {Event} */ event) => {
    const info = view.info;
    drawn = /** @type {CustomEvent} */ (event).detail;
    if (!drawn || !info) return;
    const { from, to } = drawn;
    const dx = to.x - from.x, dy = to.y - from.y, pixels = Math.hypot(dx, dy);
    if (tool === 'line') {
      const angle = (Math.atan2(-dy, dx) * 180) / Math.PI;
      length.textContent = `${pixels.toFixed(1)} px, ${angle.toFixed(1)}°`;
      if (event.type === 'dragend') drawProfile();
    } else if (event.type === 'dragend') {
      const rect = {
        left: Math.floor(Math.min(from.x, to.x)), top: Math.floor(Math.min(from.y, to.y)),
        right: Math.ceil(Math.max(from.x, to.x)), bottom: Math.ceil(Math.max(from.y, to.y)),
      };
      statistics.measureBox(rect);
    }
    view.redraw();
  };
  view.addEventListener('drag', follow);
  view.addEventListener('dragend', follow);
  view.addEventListener('open', () => {
    drawn = null;
    length.textContent = '';
  });
  view.addLayer((context) => {
    if (!drawn) return;
    const from = view.toStage(drawn.from.x, drawn.from.y), to = view.toStage(drawn.to.x, drawn.to.y);
    context.strokeStyle = '#ffc66b';
    context.lineWidth = 1.5;
    context.beginPath();
    if (tool === 'line') {
      context.moveTo(from.x, from.y);
      context.lineTo(to.x, to.y);
    } else {
      context.rect(from.x, from.y, to.x - from.x, to.y - from.y);
    }
    context.stroke();
  });
}
