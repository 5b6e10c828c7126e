// The curve of the stretch: points from 0 to 1, set by pointer or by keys.
import { make } from './dom.js';

/** The least distance of two points along the curve's input. */
const apart = 0.01;

/** @param {number} v @param {number} [low] @param {number} [high] */
const clamp = (v, low = 0, high = 1) => Math.min(Math.max(v, low), high);

/**
 * A curve that is edited.
 * @param {() => void} changed is called after each change by hand
 */
export function makeCurve(changed) {
  /** @type {[number, number][]} */
  let points = [[0, 0], [1, 1]];
  let chosen = 0, isDragged = false;

  const canvas = make('canvas', { className: 'histogram curve', width: 296, height: 150, tabIndex: 0, role: 'slider',
    'aria-label': 'The curve. Arrows to the sides choose a point and others move it, with Shift to the sides too; ' +
      'Enter adds one after it, Delete takes it away. Click adds a point, a point is dragged, a double click takes it away.' });

  function draw() {
    const context = /** @type {CanvasRenderingContext2D} */ (canvas.getContext('2d'));
    const { width, height } = canvas;
    context.clearRect(0, 0, width, height);
    context.strokeStyle = '#2c3440';
    for (let i = 1; i < 4; ++i) {
      context.strokeRect((i * width) / 4, -1, 0, height + 2);
      context.strokeRect(-1, (i * height) / 4, width + 2, 0);
    }
    context.strokeStyle = context.fillStyle = '#7cb7ff';
    context.beginPath();
    for (const [x, y] of points) context.lineTo(x * width, (1 - y) * height);
    context.stroke();
    for (const [x, y] of points) context.fillRect(x * width - 4, (1 - y) * height - 4, 8, 8);
    const [x, y] = points[chosen];
    if (document.activeElement === canvas) context.strokeRect(x * width - 7, (1 - y) * height - 7, 14, 14);
    canvas.setAttribute('aria-valuetext', `point ${chosen + 1} of ${points.length}: ${x.toFixed(2)} becomes ${y.toFixed(2)}`);
  }

  const isEnd = () => chosen === 0 || chosen === points.length - 1;

  /** Moves the chosen point; the first and the last stay at their sides. @param {number} x @param {number} y */
  function move(x, y) {
    const inside = isEnd() ? points[chosen][0]
                           : clamp(x, points[chosen - 1][0] + apart, points[chosen + 1][0] - apart);
    points[chosen] = [inside, clamp(y)];
    changed();
  }

  function add(/** @type {number} */ x, /** @type {number} */ y) {
    chosen = points.findIndex((point) => point[0] > x);
    points.splice(chosen, 0, [x, y]);
    changed();
  }

  function remove() {
    if (isEnd()) return;
    points.splice(chosen--, 1);
    changed();
  }

  const place = (/** @type {MouseEvent} */ event) => {
    const bounds = canvas.getBoundingClientRect();
    return [clamp((event.clientX - bounds.left) / bounds.width), clamp(1 - (event.clientY - bounds.top) / bounds.height)];
  };
  const nearest = (/** @type {number} */ x) => points.findIndex((point) => Math.abs(point[0] - x) < 0.03);
  canvas.addEventListener('pointerdown', (event) => {
    const [x, y] = place(event), found = nearest(x);
    isDragged = true;
    canvas.setPointerCapture(event.pointerId);
    if (found < 0) add(x, y);
    else chosen = found;
    draw();
  });
  canvas.addEventListener('pointermove', (event) => {
    const [x, y] = place(event);
    if (isDragged) move(x, y);
  });
  for (const end of ['pointerup', 'pointercancel']) canvas.addEventListener(end, () => (isDragged = false));
  canvas.addEventListener('dblclick', (event) => {
    const found = nearest(place(event)[0]);
    if (found < 0) return;
    chosen = found;
    remove();
  });
  for (const focus of ['focus', 'blur']) canvas.addEventListener(focus, draw);
  canvas.addEventListener('keydown', (event) => {
    if (event.ctrlKey || event.metaKey || event.altKey) return;
    const [x, y] = points[chosen], after = points[chosen + 1] ?? points[chosen - 1];
    const aside = event.key === 'ArrowLeft' ? -1 : event.key === 'ArrowRight' ? 1 : 0;
    const up = event.key === 'ArrowDown' ? -1 : event.key === 'ArrowUp' ? 1 : 0;
    if (aside && event.shiftKey) move(x + aside * apart, y);
    else if (aside) chosen = clamp(chosen + aside, 0, points.length - 1);
    else if (up) move(x, y + 0.01 * up * (event.shiftKey ? 10 : 1));
    else if (event.key === 'Enter' && Math.abs(after[0] - x) > 2 * apart) add((x + after[0]) / 2, (y + after[1]) / 2);
    else if (event.key === 'Delete') remove();
    else return;
    event.preventDefault();
    event.stopPropagation();
    draw();
  });

  return {
    canvas,
    draw,
    /** Makes it straight again. */
    reset() {
      points = [[0, 0], [1, 1]];
      chosen = 0;
    },
    isStraight: () => points.length === 2 && points[0][1] === 0 && points[1][1] === 1,
    /** The points as the operation `curve` takes them. */
    text: () => points.map(([x, y]) => `${x.toFixed(4)}:${y.toFixed(4)}`).join(','),
  };
}
